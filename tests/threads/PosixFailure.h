#pragma once

/// The calls of the thread library that this test program can let fail; its own definitions
/// stand before those of the C library, also for calls from the library under test.
enum class PosixCall {
  none,
  mutexInit,
  mutexDestroy,
  mutexLock,
  mutexUnlock,
  condInit,
  condDestroy,
  condWait,
  condBroadcast,
  create,
  join
};

/// Lets the next such call of the calling thread fail without having done anything.
class PosixFailure {
 public:
  /// \param call   what fails, once.
  /// \param result what the call returns.
  /// \param error  what it leaves in `errno`.
  PosixFailure(PosixCall call, int result, int error);
  PosixFailure(const PosixFailure&) = delete;
  PosixFailure& operator=(const PosixFailure&) = delete;
  /// Fails the test when the call never came.
  ~PosixFailure();
};
