#include "programs/enginetrace/Pager.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>

#include "Engine/utilities/Descriptor.h"

#include "programs/common/StartSignals.h"

namespace {

const char* command() {
  const char* const named = std::getenv("PAGER");
  return named != nullptr && *named != '\0' ? named : "less -R";
}

[[noreturn]] void becomePager(int input) {
  setStartSignals();
  dup2(input, STDIN_FILENO);
  execl("/bin/sh", "sh", "-c", command(), static_cast<char*>(nullptr));
  _exit(127);
}

}  // namespace

Pager::Pager() {
  std::array<int, 2> ends = {-1, -1};
  if (pipe2(ends.data(), O_CLOEXEC) != 0) {
    throw OutputFailed(errno, std::generic_category());
  }
  const Descriptor input(ends[0]);
  const Descriptor output(ends[1]);
  process_ = fork();
  if (process_ == 0) {
    becomePager(input.get());
  }
  if (process_ < 0 || dup2(output.get(), STDOUT_FILENO) < 0) {
    throw OutputFailed(errno, std::generic_category());
  }
  std::signal(SIGINT, SIG_IGN);
  std::signal(SIGQUIT, SIG_IGN);
}

Pager::~Pager() {
  close(STDOUT_FILENO);
  static_cast<void>(uninterrupted([this] { return waitpid(process_, nullptr, 0); }));
}
