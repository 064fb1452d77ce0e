#include <cerrno>
#include <fcntl.h>
#include <spawn.h>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

/// \file
/// Usage: measured program [argument...]
/// Runs a program and writes to descriptor 3 how many kilobytes it had in memory at most. A program
/// is said to have had what its starter had, so that this must be a small one.

int main(int argc, char** argv) {
  constexpr int report = 3;
  pid_t process = 0;
  if (argc < 2 || fcntl(report, F_SETFD, FD_CLOEXEC) != 0 ||
      posix_spawnp(&process, argv[1], nullptr, nullptr, argv + 1, environ) != 0) {
    return 2;
  }
  int status = 0;
  rusage usage = {};
  while (wait4(process, &status, 0, &usage) < 0) {
    if (errno != EINTR) {
      return 2;
    }
  }
  const std::string text = std::to_string(usage.ru_maxrss);
  const bool isTold = write(report, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  return isTold && WIFEXITED(status) ? WEXITSTATUS(status) : 2;
}
