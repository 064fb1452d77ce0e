#include "programs/enginetrace/FileBytes.h"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <string_view>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>
#include <vector>

#include "programs/enginetrace/LastChange.h"
#include "programs/enginetrace/TraceFile.h"

namespace {

[[noreturn]] void fail(const std::string& path) {
  throw std::system_error(errno, std::generic_category(), path);
}

struct stat inspect(int file, const std::string& path) {
  struct stat info = {};
  if (fstat(file, &info) != 0) {
    fail(path);
  }
  if (S_ISDIR(info.st_mode)) {
    errno = EISDIR;
    fail(path);
  }
  return info;
}

// The kernel's own files have bytes, and a size of 0 still.
bool hasNoSize(int file, const std::string& path) {
  char byte;
  return pread(file, &byte, 1, 0) == 1 && inspect(file, path).st_size == 0;
}

std::int64_t changeOf(const struct stat& info) noexcept {
  return info.st_mtim.tv_sec * microsecondsPerSecond + info.st_mtim.tv_nsec / 1000;
}

// The clock by which the kernel dates changes goes in steps: two changes may have one date.
constexpr std::int64_t step = 20'000;

// Never waits for a FIFO's writer, and gains no controlling terminal.
Descriptor open(const std::string& path) {
  if (path == "-") {
    Descriptor copy(fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
    return copy.isOpen() ? std::move(copy) : (fail(path), Descriptor());
  }
  Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
  if (!file.isOpen()) {
    fail(path);
  }
  fcntl(file.get(), F_SETFL, 0);
  return file;
}

// A file without a name, in the folder for temporary ones.
Descriptor unnamedFile() {
  const char* const folder = std::getenv("TMPDIR");
  std::string name =
      std::string(folder != nullptr && *folder != '\0' ? folder : "/tmp") + "/enginetrace.XXXXXX";
  Descriptor file(mkostemp(name.data(), O_CLOEXEC));
  if (!file.isOpen()) {
    fail(name);
  }
  unlink(name.c_str());
  return file;
}

void writeAll(int file, const char* bytes, std::size_t size) {
  while (size > 0) {
    const ssize_t n = uninterrupted([&] { return write(file, bytes, size); });
    if (n < 0) {
      fail("temporary file");
    }
    bytes += n;
    size -= static_cast<std::size_t>(n);
  }
}

}  // namespace

FileBytes::FileBytes(const std::string& path) : path_(path), file_(open(path)) {
  const struct stat info = inspect(file_.get(), path);
  if (!S_ISREG(info.st_mode)) {
    if (S_ISBLK(info.st_mode) || (S_ISCHR(info.st_mode) && path != "-")) {
      throw NotATrace(path);
    }
    spool();
    return;
  }
  if (info.st_size == 0 && hasNoSize(file_.get(), path)) {
    spool();
    return;
  }
  size_ = static_cast<std::uint64_t>(info.st_size);
  lastChange_ = changeOf(info);
  lookAgain();
}

// What is no trace is found out from its first bytes: it may have no end.
void FileBytes::spool() {
  const Descriptor spooled = unnamedFile();
  std::vector<char> buffer(notATraceWithin);
  std::size_t filled = 0;
  const auto flush = [&] {
    if (size_ == 0 && !looksLikeATrace({buffer.data(), filled})) {
      throw NotATrace(path_);
    }
    writeAll(spooled.get(), buffer.data(), filled);
    size_ += filled;
    filled = 0;
  };
  for (;;) {
    const ssize_t n = uninterrupted(
        [&] { return ::read(file_.get(), buffer.data() + filled, buffer.size() - filled); });
    if (n < 0) {
      fail(path_);
    }
    if (n == 0) {
      break;
    }
    filled += static_cast<std::size_t>(n);
    if (filled == buffer.size()) {
      flush();
    }
  }
  flush();
  file_.reset(fcntl(spooled.get(), F_DUPFD_CLOEXEC, 0));
  if (!file_.isOpen()) {
    fail(path_);
  }
}

bool FileBytes::isWrittenTo() const noexcept {
  struct stat info = {};
  if (lastChange_ < 0 || fstat(file_.get(), &info) != 0) {
    return false;
  }
  return isFresh_ || changeOf(info) != lastChange_ ||
         static_cast<std::uint64_t>(info.st_size) != size_;
}

// A write dates the file when it begins, and may be held up for long before it ends.
void FileBytes::lookAgain() noexcept {
  struct stat info = {};
  awaitWrite();
  if (lastChange_ >= 0 && fstat(file_.get(), &info) == 0) {
    size_ = static_cast<std::uint64_t>(info.st_size);
    lastChange_ = changeOf(info);
    isFresh_ = now() - lastChange_ < step;
  }
}

// The file systems of Linux take the lock of the file to look for data in it, which a write holds
// up to its last byte.
void awaitWrite(int file) noexcept { static_cast<void>(lseek(file, 0, SEEK_DATA)); }

void FileBytes::awaitWrite() const noexcept {
  // The position of standard input is everybody's.
  if (path_ != "-") {
    ::awaitWrite(file_.get());
  }
}

Descriptor FileBytes::duplicate() const noexcept {
  return Descriptor(fcntl(file_.get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
}

std::size_t FileBytes::read(std::uint64_t offset, char* to, std::size_t size) const {
  std::size_t done = 0;
  while (done < size) {
    const ssize_t n = uninterrupted([&] {
      return pread(file_.get(), to + done, size - done, static_cast<off_t>(offset + done));
    });
    if (n < 0) {
      fail(path_);
    }
    if (n == 0) {
      break;
    }
    done += static_cast<std::size_t>(n);
  }
  return done;
}
