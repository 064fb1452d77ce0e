#pragma once

#include <functional>

/// \file
/// Interference with calls of the thread library; this test program's own definitions stand
/// before those of the C library, also for calls from the library under test.

/// The calls that can be interfered with.
enum class PosixCall {
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

/// What happens to one such call of the calling thread. Objects nest; of several for the
/// same call the innermost comes first.
class PosixInterference {
 public:
  PosixInterference(const PosixInterference&) = delete;
  PosixInterference& operator=(const PosixInterference&) = delete;
  /// Fails the test when the call never came.
  ~PosixInterference();

  /// Used by the definitions of the calls.
  /// \return whether the call is not to be made but to return `result`.
  static bool intercepts(PosixCall call, int& result);

 protected:
  PosixInterference(PosixCall call, unsigned passing, std::function<bool(int&)> action);

  /// What happens to the next call; null: nothing.
  void setAction(std::function<bool(int&)> action);

 private:
  PosixCall call_;
  unsigned passing_;
  std::function<bool(int&)> action_;  // null once it has happened
  PosixInterference* outer_;
};

/// Lets a call fail without having done anything.
class PosixFailure : public PosixInterference {
 public:
  /// \param call    what fails, once.
  /// \param result  what the call returns.
  /// \param error   what it leaves in `errno`.
  /// \param passing how many such calls go through before.
  PosixFailure(PosixCall call, int result, int error, unsigned passing = 0);
};

/// Counts calls.
class PosixCount : public PosixInterference {
 public:
  explicit PosixCount(PosixCall call);
  PosixCount(const PosixCount&) = delete;
  PosixCount& operator=(const PosixCount&) = delete;
  ~PosixCount() { setAction(nullptr); }

  [[nodiscard]] unsigned count() const { return count_; }

 private:
  bool note();

  unsigned count_ = 0;
};

/// Does something right before a call does its work.
class PosixMoment : public PosixInterference {
 public:
  PosixMoment(PosixCall call, std::function<void()> action);
};
