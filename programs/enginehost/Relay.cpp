#include "Relay.h"

#include <cerrno>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "Engine/utilities/ByteString.h"
#include "Engine/utilities/TraceFlags.h"

namespace {

// A program that goes on printing must not wait for a reader that has gone.
class ClosedAtTheEnd {
 public:
  explicit ClosedAtTheEnd(StdPipe& pipe) : pipe_(pipe) {}
  ClosedAtTheEnd(const ClosedAtTheEnd&) = delete;
  ClosedAtTheEnd& operator=(const ClosedAtTheEnd&) = delete;
  ~ClosedAtTheEnd() { pipe_.closeReadHandle(); }

 private:
  StdPipe& pipe_;
};

// Waits for the next bytes; empty at the end.
ByteString nextBytes(const StdPipe& pipe) {
  ByteString first;
  pipe.read(first, 0);
  int waiting = 0;
  if (first.length() == 0 || ioctl(pipe.readHandle(), FIONREAD, &waiting) != 0 || waiting < 1) {
    return first;
  }
  // Only what is there already: read() would spin until the next byte otherwise.
  ByteString others;
  pipe.read(others, static_cast<unsigned>(waiting) - 1);
  return first + others;
}

// A target that the host shares with others can be non-blocking.
void waitForRoom(int target) {
  pollfd room = {target, POLLOUT, 0};
  poll(&room, 1, -1);
}

bool writeAll(int target, const ByteString& bytes) {
  const unsigned char* next = bytes;
  for (unsigned left = bytes.length(); left > 0;) {
    const ssize_t written = write(target, next, left);
    if (written < 0 && errno == EAGAIN) {
      waitForRoom(target);
    } else if (written < 0 && errno != EINTR) {
      return false;
    }
    if (written > 0) {
      next += written;
      left -= static_cast<unsigned>(written);
    }
  }
  return true;
}

}  // namespace

unsigned long relay(StdPipe& pipe, int target) {
  const ClosedAtTheEnd closed(pipe);
  unsigned long relayed = 0;
  for (;;) {
    const ByteString bytes = nextBytes(pipe);
    if (bytes.length() == 0) {
      return relayed;
    }
    if (!writeAll(target, bytes)) {
      CUL_TRACE(TraceType::error, "unsigned long relay(StdPipe&, int)", __LINE__,
                "write() failed with errno %d.", errno);
      return relayed;
    }
    relayed += bytes.length();
  }
}
