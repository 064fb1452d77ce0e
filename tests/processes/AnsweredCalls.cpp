#include "tests/processes/AnsweredCalls.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <filesystem>
#include <future>
#include <iterator>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <mutex>
#include <string>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>
#include <utility>

#include <gtest/gtest.h>

namespace {

// \return a descriptor from which the calls are read.
int installFilter(const std::vector<CaughtCalls>& calls) {
  std::vector<sock_filter> program;
  for (const CaughtCalls& call : calls) {
    const auto argument =
        static_cast<unsigned>(offsetof(seccomp_data, args) + sizeof(__u64) * call.argument);
    const sock_filter part[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<unsigned>(call.number), 0, 4),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, argument),
        BPF_JUMP(BPF_JMP | BPF_JGE | BPF_K, call.least, 0, 2),
        BPF_JUMP(BPF_JMP | BPF_JGT | BPF_K, call.most, 1, 0),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_USER_NOTIF),
    };
    program.insert(program.end(), std::begin(part), std::end(part));
  }
  program.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
  sock_fprog filter = {static_cast<unsigned short>(program.size()), program.data()};
  EXPECT_EQ(prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0), 0);
  return static_cast<int>(
      syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, SECCOMP_FILTER_FLAG_NEW_LISTENER, &filter));
}

std::filesystem::path programOf(const std::string& task) {
  std::error_code gone;
  return std::filesystem::read_symlink("/proc/" + task + "/exe", gone);
}

bool isOwn(pid_t task) {
  return access(("/proc/self/task/" + std::to_string(task)).c_str(), F_OK) == 0;
}

// In use until the process ends.
struct Desk {
  std::mutex mutex;
  SystemCallAnswer answer;

  int ask(const SystemCall& call) {
    const std::lock_guard lock(mutex);
    return answer ? answer(call) : 0;
  }
};

Desk& desk() {
  static Desk& theOne = *new Desk;
  return theOne;
}

[[noreturn]] void answerAll(int listener) {
  const std::filesystem::path ownProgram = programOf("self");
  for (;;) {
    seccomp_notif asked = {};
    if (ioctl(listener, SECCOMP_IOCTL_NOTIF_RECV, &asked) != 0) {
      continue;  // Who has asked is gone, or a signal came.
    }
    const auto task = static_cast<pid_t>(asked.pid);
    SystemCall call = {
        .task = task, .isMadeByChild = !isOwn(task), .number = asked.data.nr, .arguments = {}};
    std::copy(std::begin(asked.data.args), std::end(asked.data.args), call.arguments);
    const int error = programOf(std::to_string(task)) == ownProgram ? desk().ask(call) : 0;
    seccomp_notif_resp response = {};
    response.id = asked.id;
    response.error = -error;
    response.flags = error == 0 ? SECCOMP_USER_NOTIF_FLAG_CONTINUE : 0;
    ioctl(listener, SECCOMP_IOCTL_NOTIF_SEND, &response);
  }
}

}  // namespace

AnsweredCalls::AnsweredCalls(const std::vector<CaughtCalls>& calls, SystemCallAnswer answer) {
  desk().answer = std::move(answer);
  // Who answers must not ask: the thread exists before its creator's calls are caught.
  std::promise<int> listener;
  std::thread([opened = listener.get_future()]() mutable { answerAll(opened.get()); }).detach();
  const int handle = installFilter(calls);
  EXPECT_GE(handle, 0) << "errno " << errno;
  listener.set_value(handle);
}

AnsweredCalls::~AnsweredCalls() {
  const std::lock_guard lock(desk().mutex);
  desk().answer = nullptr;
}
