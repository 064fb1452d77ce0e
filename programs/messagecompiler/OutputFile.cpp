#include "OutputFile.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <string_view>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

#include "Engine/utilities/Descriptor.h"

namespace {

// Puts off the signals that end a process, until the end of the scope. That a file would become
// too large is told by write() instead.
class SignalsPutOff {
 public:
  SignalsPutOff() {
    std::signal(SIGXFSZ, SIG_IGN);
    sigset_t all;
    sigfillset(&all);
    sigprocmask(SIG_SETMASK, &all, &former_);
  }
  SignalsPutOff(const SignalsPutOff&) = delete;
  SignalsPutOff& operator=(const SignalsPutOff&) = delete;
  ~SignalsPutOff() {
    const int error = errno;
    sigprocmask(SIG_SETMASK, &former_, nullptr);
    errno = error;
  }

 private:
  sigset_t former_ = {};
};

bool writeAll(int handle, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t n = uninterrupted([&] { return write(handle, bytes.data(), bytes.size()); });
    if (n < 0) {
      return false;
    }
    bytes.remove_prefix(static_cast<std::size_t>(n));
  }
  return true;
}

// Some file systems tell at the end only that there was no room. Keeps the reason of an earlier
// failure.
bool closeWritten(int handle, bool isWritten) {
  const int error = errno;
  const bool isClosed = close(handle) == 0;
  if (!isWritten) {
    errno = error;
  }
  return isWritten && isClosed;
}

// Where symbolic links lead to, also when nothing is there.
std::filesystem::path behindLinks(std::filesystem::path file) {
  constexpr int mostLinks = 40;
  std::error_code none;
  for (int i = 0; i < mostLinks && std::filesystem::is_symlink(file, none); ++i) {
    file = file.parent_path() / std::filesystem::read_symlink(file, none);
  }
  return file;
}

mode_t modeOfFreshFiles() {
  const mode_t mask = umask(0);
  umask(mask);
  return 0666 & ~mask;
}

bool writeInPlace(const char* file, const std::string& contents) {
  const int handle = open(file, O_WRONLY | O_CLOEXEC);
  return handle >= 0 && closeWritten(handle, writeAll(handle, contents));
}

bool replace(const std::filesystem::path& file, const std::string& contents, mode_t mode) {
  const SignalsPutOff signals;
  std::string beside = file.parent_path() / ".cul-message-XXXXXX";
  const int handle = mkostemp(beside.data(), O_CLOEXEC);
  if (handle < 0) {
    return false;
  }
  const bool isWritten = writeAll(handle, contents) && fchmod(handle, mode) == 0;
  if (closeWritten(handle, isWritten) && std::rename(beside.c_str(), file.c_str()) == 0) {
    return true;
  }
  const int error = errno;
  unlink(beside.c_str());
  errno = error;
  return false;
}

}  // namespace

bool writeOutput(const std::string& file, const std::string& contents) {
  struct stat state;
  if (stat(file.c_str(), &state) != 0) {
    return errno == ENOENT && replace(behindLinks(file), contents, modeOfFreshFiles());
  }
  if (!S_ISREG(state.st_mode)) {
    return writeInPlace(file.c_str(), contents);
  }
  // Opened to be told what speaks against it: that nobody may write to it, that it runs.
  if (!Descriptor(open(file.c_str(), O_WRONLY | O_CLOEXEC)).isOpen()) {
    return false;
  }
  constexpr mode_t permissions = 07777;
  return replace(behindLinks(file), contents, state.st_mode & permissions);
}

bool isSameFile(const std::string& a, const std::string& b) {
  struct stat one;
  struct stat other;
  return stat(a.c_str(), &one) == 0 && stat(b.c_str(), &other) == 0 && S_ISREG(one.st_mode) &&
         one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}
