#include "Engine/utilities/StdPipe.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <memory>
#include <unistd.h>
#include <utility>

#include "Engine/internal/FixedLayout.h"
#include "Engine/internal/HoldRequests.h"
#include "Engine/internal/PlaceNumber.h"
#include "Engine/internal/SignalIgnored.h"
#include "Engine/internal/SystemCallFailure.h"
#include "Engine/utilities/ByteString.h"
#include "Engine/utilities/Descriptor.h"

// The engine knows this layout: docs/contract.md.
CUL_FIXED_SIZE(StdPipe, 12);
CUL_FIXED_FIELD(StdPipe, readHandle_, 0);
CUL_FIXED_FIELD(StdPipe, writeHandle_, 4);
CUL_FIXED_FIELD(StdPipe, reserved_, 8);

namespace {

constexpr const char* constructorText = "StdPipe::StdPipe()";
constexpr const char* childReadHandleText = "HANDLE StdPipe::childReadHandle()";
constexpr const char* childWriteHandleText = "HANDLE StdPipe::childWriteHandle()";
constexpr const char* writeText = "int StdPipe::write(const void*, unsigned int) const";
constexpr const char* readText = "int StdPipe::read(ByteString&, unsigned int) const";

// Mode 0: closed when a program is started; mode 1: inherited by it.
void setClose(int mode, int fd, const char* function, unsigned int line) {
  const int value = mode == 0 ? FD_CLOEXEC : 0;
  if (fcntl(fd, F_SETFD, value) == -1) {
    failSystemCall(function, line, line, "::fcntl(F_SETFD) in setClose() failed",
                   "::fcntl(F_SETFD, %d) in setClose() failed with errno %d.", value, errno);
  }
}

void setNonBlocking(int on, int fd, const char* function, unsigned int line) {
  const int current = fcntl(fd, F_GETFL);
  if (current == -1) {
    failSystemCall(function, line, line, "::fcntl(F_GETFL) failed",
                   "::fcntl(F_GETFL) failed with errno %d.", errno);
  }
  const int flags = on != 0 ? current | O_NONBLOCK : current & ~O_NONBLOCK;
  if (flags != current && fcntl(fd, F_SETFL, flags) == -1) {
    failSystemCall(function, line, line, "::fcntl(F_SETFL) failed",
                   "::fcntl(F_SETFL) failed with errno %d.", errno);
  }
}

// Reads again as long as there is nothing yet or a signal came in between.
ssize_t readPatiently(int fd, void* buffer, unsigned int maximum, unsigned int traceLine,
                      unsigned int throwLine) {
  for (;;) {
    const ssize_t n = ::read(fd, buffer, maximum);
    if (n >= 0) {
      return n;
    }
    if (errno != EAGAIN && errno != EINTR) {
      failSystemCall(readText, traceLine, throwLine, "read() failed",
                     "::read() failed with errno %d.", errno);
    }
  }
}

}  // namespace

StdPipe::StdPipe() {
  const HoldRequests hold;  // or the ends would stay open
  int ends[] = {-1, -1};
  // Close-on-exec at once: another thread may start a program before the steps below.
  if (pipe2(ends, O_CLOEXEC) != 0) {
    failSystemCall(constructorText, 46_place, 47_place, "pipe() failed",
                   "pipe() failed with errno %d", errno);
  }
  // Both are closed again when the pipe cannot be set up.
  Descriptor readEnd(ends[0]);
  Descriptor writeEnd(ends[1]);
  setNonBlocking(0, readEnd.get(), constructorText, 51_place);
  setClose(0, readEnd.get(), constructorText, 52_place);
  setNonBlocking(0, writeEnd.get(), constructorText, 54_place);
  setClose(0, writeEnd.get(), constructorText, 55_place);
  readHandle_ = readEnd.release();
  writeHandle_ = writeEnd.release();
}

StdPipe::~StdPipe() {
  close(readHandle_);
  close(writeHandle_);
}

int StdPipe::closeReadHandle() { return closeHandle(readHandle_); }

int StdPipe::closeWriteHandle() { return closeHandle(writeHandle_); }

HANDLE StdPipe::childReadHandle() {
  setNonBlocking(0, readHandle_, childReadHandleText, 68_place);
  setClose(1, readHandle_, childReadHandleText, 70_place);
  return readHandle_;
}

HANDLE StdPipe::childWriteHandle() {
  setNonBlocking(0, writeHandle_, childWriteHandleText, 78_place);
  setClose(1, writeHandle_, childWriteHandleText, 80_place);
  return writeHandle_;
}

int StdPipe::write(const void* data, unsigned int length) const {
  const auto* const bytes = static_cast<const char*>(data);
  unsigned int written = 0;
  while (written < length) {
    ssize_t n;
    {
      // Restored before anything is reported, and around each call: a handler of the caller
      // is never away for longer than one write.
      const SignalIgnored brokenPipe(SIGPIPE);
      n = ::write(writeHandle_, bytes + written, length - written);
    }
    if (n < 1) {
      failSystemCall(writeText, 160_place, 161_place, "write() failed",
                     "write() failed with errno %d.  Length = %d", errno, static_cast<int>(n));
    }
    written += static_cast<unsigned int>(n);
  }
  return static_cast<int>(written);
}

int StdPipe::read(ByteString& out, unsigned int maximum) const {
  setNonBlocking(0, readHandle_, readText, 102_place);
  unsigned char byte;
  const ssize_t atOnce = readPatiently(readHandle_, &byte, 1, 113_place, 114_place);
  out = ByteString(&byte, static_cast<unsigned int>(atOnce));
  if (maximum == 0) {
    return 0;  // Also when a byte was stored: kept, `out` tells.
  }
  // Before the end changes: without memory it stays blocking.
  const std::unique_ptr<unsigned char[]> buffer(new unsigned char[maximum]);
  setNonBlocking(1, readHandle_, readText, 125_place);
  const ssize_t rest = readPatiently(readHandle_, buffer.get(), maximum, 135_place, 136_place);
  setNonBlocking(0, readHandle_, readText, 138_place);
  // One buffer for both pieces: `out` is at most the first byte.
  out = ByteString(&byte, static_cast<unsigned int>(atOnce), buffer.get(),
                   static_cast<unsigned int>(rest), nullptr, 0);
  // The first byte counts even when it was the end of the file: kept, callers look at `out`.
  return static_cast<int>(rest) + 1;
}
