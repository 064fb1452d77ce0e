#pragma once

#include <atomic>
#include <cerrno>
#include <climits>
#include <initializer_list>
#include <optional>
#include <string>
#include <vector>

/// \file
/// Calls of the C library that this test program can let fail or answer itself, and of which
/// it can keep a record; its own definitions stand before those of the C library, also for
/// calls from the library under test.
/// \code
///   CallRecord record({LibcCall::open});
///   FailingCall open({.call = LibcCall::open, .error = ENOENT, .path = "/dev/ptmx"});
///   FailingCall size({.call = LibcCall::ioctl, .error = ENOTTY, .argument = TIOCGWINSZ});
/// \endcode
/// Both act in the whole process, on all its threads and in children that it forks, which
/// count for themselves. Calls that the C library makes inside itself (`isatty` asking for the
/// attributes, `fopen` opening) pass by.

enum class LibcCall {
  open,
  close,
  read,
  write,
  lseek,
  ftruncate,
  dup,
  fcntl,
  poll,
  ioctl,
  grantpt,
  unlockpt,
  ptsname,
  setsid,
  tcgetattr,
  tcsetattr,
  tcflush,
  waitpid,
  sysconf,
  createThread,
  initCondition
};

/// Which calls are answered, and how. What is not given matches everything.
struct CallFailure {
  static constexpr unsigned always = UINT_MAX;

  LibcCall call;
  /// What the call leaves in `errno` when `result` is negative or a text is missing.
  int error = EIO;
  /// What the call returns without having done anything; those of threads, the error.
  long result = -1;
  /// What `ptsname` returns; without it, null.
  std::optional<std::string> text = {};
  /// `open`: only paths that start so.
  std::string path = {};
  /// The first argument as listed at CallMade.
  std::optional<int> first = {};
  /// The second argument as listed at CallMade.
  std::optional<long> argument = {};
  /// How many calls are answered; later ones are real again.
  unsigned times = 1;
  /// How many matching calls are let through before.
  unsigned after = 0;
};

/// Answers calls until the end of the scope. Up to eight at a time; of several that match a
/// call the one made first answers.
class FailingCall {
 public:
  explicit FailingCall(CallFailure failure);
  FailingCall(const FailingCall&) = delete;
  FailingCall& operator=(const FailingCall&) = delete;
  /// Fails the test when no call was answered, or fewer than `times` unless that is `always`.
  ~FailingCall();

  /// How many calls were answered in this process, and before it was forked.
  [[nodiscard]] unsigned answered() const;

  /// Ends the answers here, and with them what the destructor expects; for the parent of a
  /// process in which the call is to fail.
  void dismiss();

 private:
  friend struct CallDesk;

  // Stays for good: another thread may be looking at it when the scope ends.
  struct Kept {
    CallFailure failure;
    std::atomic<unsigned> matched = 0;
    std::atomic<unsigned> answered = 0;
  };
  static Kept& keep(CallFailure failure);

  Kept& kept_;
};

/// A call that was made, answered or real.
struct CallMade {
  LibcCall call;
  /// `open`; cut after 63 bytes.
  char path[64];
  /// The first argument as a number: the descriptor (poll: the first one), the process of
  /// waitpid, the name of sysconf; 0 where there is none.
  int first;
  /// open: the flags. fcntl: the command. ioctl: the request. lseek: the offset. ftruncate: the
  /// length. read, write: the size. poll: the timeout. tcsetattr: when. tcflush: which queue.
  /// waitpid: the options.
  long argument;
  /// fcntl: the argument. lseek: from where. poll: the events of the first one. 0 for others.
  long more;
};

/// Keeps a record of all calls of the given kinds until the end of the scope. One at a time;
/// a child that is forked goes on with a copy. The first 1024 calls are kept.
class CallRecord {
 public:
  CallRecord(std::initializer_list<LibcCall> kinds);
  CallRecord(const CallRecord&) = delete;
  CallRecord& operator=(const CallRecord&) = delete;
  ~CallRecord();

  [[nodiscard]] std::vector<CallMade> calls() const;
  /// How many calls of this kind were made.
  [[nodiscard]] unsigned count(LibcCall kind) const;
};
