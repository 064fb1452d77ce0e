#pragma once

#include <cerrno>

/// Gives `errno` back the value it had, at the end of the scope. Internal to the library.
class KeepErrno {
 public:
  KeepErrno() noexcept : saved_(errno) {}
  KeepErrno(const KeepErrno&) = delete;
  KeepErrno& operator=(const KeepErrno&) = delete;
  ~KeepErrno() { errno = saved_; }

 private:
  int saved_;
};
