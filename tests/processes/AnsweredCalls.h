#pragma once

#include <functional>
#include <sys/types.h>
#include <vector>

/// \file
/// System calls that the test answers in the place of the kernel: also those of a child that
/// does without the C library, which FailingCall cannot reach.

/// A system call that is about to be made.
struct SystemCall {
  pid_t task;          ///< The thread that makes it.
  bool isMadeByChild;  ///< Not by a thread of this process.
  long number;
  unsigned long arguments[6];
};

/// The calls that are meant: those of this number with an argument within these limits. The search
/// for leaks at the end of a process stops all other threads, also the one that answers: it must
/// make none of them.
struct CaughtCalls {
  // NOLINTNEXTLINE(google-explicit-constructor): a number alone stands for all of its calls.
  CaughtCalls(long itsNumber, unsigned itsArgument = 0, unsigned itsLeast = 0,
              unsigned itsMost = ~0U)
      : number(itsNumber), argument(itsArgument), least(itsLeast), most(itsMost) {}

  long number;
  unsigned argument;
  unsigned least;
  unsigned most;
};

/// Asked before each call.
/// \return an `errno` value with which the call fails; 0: the kernel makes it.
using SystemCallAnswer = std::function<int(const SystemCall&)>;

/// Until the end of the scope, `answer` is asked about the system calls of these kinds that
/// the calling thread makes, threads that it creates from now on, and children for as long as they
/// have not become a program. It is asked on a thread of its own, about one call at a time, while
/// whoever makes the call waits. Once in a process, for child cases: the calls go through that
/// thread until the process ends.
class AnsweredCalls {
 public:
  AnsweredCalls(const std::vector<CaughtCalls>& calls, SystemCallAnswer answer);
  AnsweredCalls(const AnsweredCalls&) = delete;
  AnsweredCalls& operator=(const AnsweredCalls&) = delete;
  ~AnsweredCalls();
};
