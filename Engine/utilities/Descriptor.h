#pragma once

#include <cerrno>
#include <unistd.h>
#include <utility>

#include "Engine/utilities/KeepErrno.h"

/// \file
/// Descriptors of open files that are closed at the end of a scope, and system calls that signals
/// interrupt. Not thread-safe: a descriptor belongs to one thread at a time.

/// Closes what a field holds, which is -1 afterwards, also for a signal handler that comes
/// meanwhile: no number is closed twice.
/// \return the result of `close()`: -1 with `errno` EBADF when there was nothing to close.
inline int closeHandle(int& handle) { return close(std::exchange(handle, -1)); }

/// Owns one descriptor, or none, which is -1. Keeps `errno` where it closes by itself.
class Descriptor {
 public:
  Descriptor() noexcept = default;
  /// Owns `handle`, which may be -1.
  explicit Descriptor(int handle) noexcept : handle_(handle) {}
  /// Leaves the source without a descriptor.
  Descriptor(Descriptor&& other) noexcept : handle_(other.release()) {}
  /// Closes what it had, and leaves the source without a descriptor.
  Descriptor& operator=(Descriptor&& other) noexcept {
    reset(other.release());
    return *this;
  }
  ~Descriptor() { reset(); }

  /// The number, -1 when there is none. Stays this object's to close.
  [[nodiscard]] int get() const noexcept { return handle_; }

  /// Whether there is one.
  [[nodiscard]] bool isOpen() const noexcept { return handle_ >= 0; }

  /// Gives the number away: the caller closes it.
  [[nodiscard]] int release() noexcept { return std::exchange(handle_, -1); }

  /// Closes it and owns `handle` from now on.
  void reset(int handle = -1) noexcept {
    if (const int former = std::exchange(handle_, handle); former >= 0) {
      const KeepErrno keepErrno;
      close(former);
    }
  }

 private:
  int handle_ = -1;
};

/// The result of `call()`, which is made again as long as a signal interrupts it: it gives a
/// negative number then, with `errno` EINTR.
template <class Call>
auto uninterrupted(Call call) {
  for (;;) {
    if (const auto result = call(); result >= 0 || errno != EINTR) {
      return result;
    }
  }
}
