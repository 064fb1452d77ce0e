#include "tests/support/Child.h"

#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <string_view>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "tests/support/ChildMain.h"

namespace {

std::map<std::string, void (*)()>& cases() {
  static std::map<std::string, void (*)()> all;
  return all;
}

std::vector<std::string>& arguments() {
  static std::vector<std::string> all;
  return all;
}

bool isKept(std::string_view variable) {
  for (const std::string_view prefix :
       {"PATH=", "ASAN_OPTIONS=", "UBSAN_OPTIONS=", "TSAN_OPTIONS=", "LSAN_OPTIONS=", "GCOV_",
        "LD_PRELOAD=", "CUL_LOCK_ORDER_LOG="}) {
    if (variable.starts_with(prefix)) {
      return true;
    }
  }
  return false;
}

struct Pipe {
  int ends[2] = {-1, -1};

  Pipe() {
    if (pipe2(ends, O_CLOEXEC) != 0) {
      ADD_FAILURE() << "pipe2: " << std::strerror(errno);
    }
  }
  Pipe(const Pipe&) = delete;
  Pipe& operator=(const Pipe&) = delete;
  ~Pipe() {
    closeEnd(0);
    closeEnd(1);
  }
  void closeEnd(int end) {
    if (ends[end] >= 0) {
      close(ends[end]);
      ends[end] = -1;
    }
  }
};

// Feeds the child and collects what it prints until both its streams are closed.
// Returns false when the limit passes first.
bool converse(Pipe& in, Pipe& out, Pipe& err, const ChildOptions& options, ChildResult& result) {
  const auto limit =
      std::chrono::steady_clock::now() + std::chrono::seconds(options.limitInSeconds);
  size_t written = 0;
  if (options.input.empty()) {
    in.closeEnd(1);
  } else {
    fcntl(in.ends[1], F_SETFL, O_NONBLOCK);
  }
  while (out.ends[0] >= 0 || err.ends[0] >= 0) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        limit - std::chrono::steady_clock::now());
    if (left.count() <= 0) {
      return false;
    }
    pollfd waits[] = {{out.ends[0], POLLIN, 0}, {err.ends[0], POLLIN, 0}, {in.ends[1], POLLOUT, 0}};
    poll(waits, 3, static_cast<int>(left.count()));
    char chunk[65536];
    if (waits[0].revents != 0) {
      const ssize_t n = read(out.ends[0], chunk, sizeof chunk);
      n > 0 ? void(result.out.append(chunk, static_cast<size_t>(n))) : out.closeEnd(0);
    }
    if (waits[1].revents != 0) {
      const ssize_t n = read(err.ends[0], chunk, sizeof chunk);
      n > 0 ? void(result.err.append(chunk, static_cast<size_t>(n))) : err.closeEnd(0);
    }
    if (waits[2].revents != 0) {
      const ssize_t n =
          write(in.ends[1], options.input.data() + written, options.input.size() - written);
      written += n > 0 ? static_cast<size_t>(n) : 0;
      if (n < 0 || written == options.input.size()) {
        in.closeEnd(1);
      }
    }
  }
  return true;
}

void becomeChild(Pipe& in, Pipe& out, Pipe& err, const ChildOptions& options, char** argv,
                 char** envp) {
  setpgid(0, 0);
  // A test that is killed takes its child along.
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  dup2(in.ends[0], 0);
  dup2(out.ends[1], 1);
  dup2(err.ends[1], 2);
  signal(SIGPIPE, SIG_DFL);
  signal(SIGTTIN, SIG_DFL);
  if (!options.directory.empty() && chdir(options.directory.c_str()) != 0) {
    _exit(126);
  }
  execve(argv[0], argv, envp);
  _exit(127);
}

}  // namespace

std::vector<std::string> childEnvironment(const std::map<std::string, std::string>& added) {
  std::vector<std::string> result;
  for (char** variable = environ; *variable != nullptr; ++variable) {
    const std::string_view text = *variable;
    if (isKept(text) && added.count(std::string(text.substr(0, text.find('=')))) == 0) {
      result.emplace_back(text);
    }
  }
  for (const auto& [name, value] : added) {
    // Of a sanitizer's options the last one counts: those of the suite stay where none is given.
    const char* const given = name.ends_with("SAN_OPTIONS") ? getenv(name.c_str()) : nullptr;
    result.push_back(name + "=" + (given != nullptr ? given + std::string(":") : "") + value);
  }
  return result;
}

std::vector<std::string> childCommand(const std::string& name,
                                      const std::vector<std::string>& arguments) {
  char self[PATH_MAX];
  const ssize_t length = readlink("/proc/self/exe", self, sizeof self);
  std::vector<std::string> command = {
      std::string(self, length > 0 ? static_cast<size_t>(length) : 0), childOption, name};
  command.insert(command.end(), arguments.begin(), arguments.end());
  return command;
}

std::vector<char*> pointersTo(std::vector<std::string>& texts) {
  std::vector<char*> result;
  for (std::string& text : texts) {
    result.push_back(text.data());
  }
  result.push_back(nullptr);
  return result;
}

ChildResult runProgram(const std::vector<std::string>& command, const ChildOptions& options) {
  std::vector<std::string> words = command;
  std::vector<std::string> variables = childEnvironment(options.environment);
  const std::vector<char*> argv = pointersTo(words);
  const std::vector<char*> envp = pointersTo(variables);
  ChildResult result;
  Pipe in;
  Pipe out;
  Pipe err;
  const pid_t child = fork();
  if (child == 0) {
    becomeChild(in, out, err, options, const_cast<char**>(argv.data()),
                const_cast<char**>(envp.data()));
  }
  if (child < 0) {
    ADD_FAILURE() << "fork: " << std::strerror(errno);
    return result;
  }
  in.closeEnd(0);
  out.closeEnd(1);
  err.closeEnd(1);
  if (!converse(in, out, err, options, result)) {
    ADD_FAILURE() << command[0] << " is still running after " << options.limitInSeconds << " s\n"
                  << result.out << result.err;
    kill(-child, SIGKILL);
  }
  int status = 0;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return result;
}

ChildResult runChild(const std::string& name, const ChildOptions& options) {
  return runProgram(childCommand(name, options.arguments), options);
}

const std::vector<std::string>& childArguments() { return arguments(); }

ChildCase::ChildCase(const char* name, void (*body)()) { cases().emplace(name, body); }

int runChildCase(const std::string& name, std::vector<std::string> childArgumentTexts) {
  const auto found = cases().find(name);
  if (found == cases().end()) {
    std::printf("no child case %s\n", name.c_str());
    return 125;
  }
  arguments() = std::move(childArgumentTexts);
  found->second();
  return testing::UnitTest::GetInstance()->ad_hoc_test_result().Failed() ? 1 : 0;
}
