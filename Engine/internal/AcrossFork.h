#pragma once

#include <atomic>

#include "Engine/utilities/LockChecks.h"

/// \file
/// What a fork promises, and the order in which the library's locks are taken.
///
/// **The promise.** A child made by fork(), whatever threads of the parent did at that moment,
/// can use the whole library: nothing of the library waits there for a thread that the child
/// does not have. For that, every lock of the library is taken around every fork, in the order
/// below, and is free in both processes afterwards. The handlers are registered when the
/// library is loaded, before a program can register its own: those run outside of ours, may
/// use the library, and must not leave a lock of it held that is taken before one they wait for.
///
/// **The locks**, outermost first. Who holds one may only ask for those below it, or again for
/// the same where it is recursive. What a new-handler or a module's constructor may do counts,
/// too: memory is asked for under most of them, and the library's new-handler traces.
///
/// - loader: of LoaderGuard, for loading modules and code pages and the process's locale;
///   recursive. Constructors of modules run under it and may ask for all the others.
/// - events: of UNIX_Event_Semaphore, for making the timer, then the timer's list; recursive.
///   Under it an event's mutex, starts and strings are asked for.
/// - starts: StdThreadRun::startLock(); recursive. Under it strings and memory.
/// - strings: of StringPoolManager; recursive. Under it memory.
/// - trace: of TraceImplementation; recursive. Under it threads.
/// - threads: of RunningThreads; recursive. Under it nothing, not even memory.
/// - conversions: of iconvDebug(). Under it nothing.
/// - local time: of CalendarTime.h. Under it nothing.
///
/// A participant takes part as soon as it exists. Behind ours come the locks that the C library
/// takes around a fork itself: those of its memory and its streams. Whoever adds a lock or a
/// thread to the library adds it here.
///
/// Locks of single objects (an event, a manager and its handles, a listener and its worker, an
/// RWlock, a critical section of the program's) are not taken. A thread asks for them in the
/// order manager's link, manager, listener or handle, worker, and for all of these before it
/// asks for "events"; an event's mutex comes behind "events", with "strings" and what follows
/// below it.
///
/// **The threads.** The library's own are the timer ("msecTimer") and the workers
/// ("ThrdListener").
/// - A child has no timer thread. Its first wait that needs one starts one of its own; the
///   parent's timer object stays in memory, and the waits listed there are forgotten.
/// - Thread objects of threads that the child does not have stay registered, since somebody may
///   own them, but count as not running: their id is 0, requestTerminate() gives ESRCH, a
///   Termination's wait() gives -1. So an id that the system uses again for a thread of the
///   child is that thread's alone. The forking thread keeps its object; a thread of the program's
///   is "main" in the child. Requests to end that the forking thread had not met are the
///   parent's. A token of a thread that had ended before the fork must not be waited for.
/// - An end of the process that another thread of the parent had begun is not the child's (see
///   internal/ProcessEnd.h).
///
/// **Objects that other threads were using.**
/// - An event can be used, and destroyed, as if it had been made in the child: it is as open or
///   closed as it was, and nobody waits for it.
/// - Another lock (critical section, mutex, RWlock) that a thread has which the child does not
///   have stays taken. That also goes for a ThreadManager, a listener or a handle that a thread
///   was just inside of: a manager is for 10 to 50 ms while it starts a run or takes note of
///   an end. The child makes its own. Runs that the parent had started never end there, and its
///   spawned processes are not the child's to wait for.
/// - An object without a lock is as the threads left it.
/// - The stocks of free blocks that threads keep in front of the string pool have no lock. They go
///   back to the pool's lists in the child, those of threads that it does not have and the forking
///   thread's as well: a stock can be read whatever its thread was doing (see StringStock.h).
///
/// **The trace** of the child writes into the parent's file until it is told of the fork by
/// TraceImplementation::processForked().
///
/// **What the C library does not look after.** Its fork leaves some of its locks as they are:
/// those of the time zone (localtime(), mktime()), of the locale, of the environment's changes,
/// of iconv_open() and of the exit handlers, and the state of its module loader. The library's
/// own calls are made under the locks above. What other threads of the program call directly
/// may be held in a child for ever: there, a program that does so must not call the same, which
/// for localtime() includes TimeDateStamp.
///
/// **No handlers** run for vfork(), posix_spawn(), _Fork() and clone(). Their children can only
/// start a program, which is all they are for; nothing is promised about the library there. The
/// library's own children, of SpawnedProcess, are such ones (see internal/ProgramStart.h): they
/// take no lock, and none is taken for them.
///

class AcrossFork {
 public:
  AcrossFork() = delete;

  /// How many forks lie between the program's start and this process. What has noted another
  /// number was last used by a process that this one descends from.
  [[nodiscard]] static unsigned int generation() noexcept {
    return generation_.load(std::memory_order_acquire);
  }

 private:
  struct Participant;
  struct Handlers;
  static const Participant participants[];

  static void prepare() noexcept;
  static void resumeParent() noexcept;
  static void resumeChild() noexcept;

  // Each participant's functions stand beside its lock. The first takes the lock, unless what it
  // belongs to does not exist yet, and tells whether it did; the second gives it back in both
  // processes. The third, where there is one, puts the child right, with all locks held. No lock is
  // given back by the function that took it, which the checks of locks do not follow.
  static bool holdLoader() noexcept CUL_UNCHECKED_LOCKS;
  static void releaseLoader() noexcept CUL_UNCHECKED_LOCKS;
  static bool holdEvents() noexcept CUL_UNCHECKED_LOCKS;
  static void releaseEvents() noexcept CUL_UNCHECKED_LOCKS;
  static void renewEvents() noexcept CUL_UNCHECKED_LOCKS;
  static bool holdStarts() noexcept CUL_UNCHECKED_LOCKS;
  static void releaseStarts() noexcept CUL_UNCHECKED_LOCKS;
  static void renewStarts() noexcept CUL_UNCHECKED_LOCKS;
  static bool holdStrings() noexcept CUL_UNCHECKED_LOCKS;
  static void releaseStrings() noexcept CUL_UNCHECKED_LOCKS;
  static void renewStrings() noexcept CUL_UNCHECKED_LOCKS;
  static bool holdTrace() noexcept CUL_UNCHECKED_LOCKS;
  static void releaseTrace() noexcept CUL_UNCHECKED_LOCKS;
  static bool holdThreads() noexcept CUL_UNCHECKED_LOCKS;
  static void releaseThreads() noexcept CUL_UNCHECKED_LOCKS;
  static void renewThreads() noexcept CUL_UNCHECKED_LOCKS;
  static bool holdConversions() noexcept CUL_UNCHECKED_LOCKS;
  static void releaseConversions() noexcept CUL_UNCHECKED_LOCKS;
  static bool holdLocalTime() noexcept CUL_UNCHECKED_LOCKS;
  static void releaseLocalTime() noexcept CUL_UNCHECKED_LOCKS;

  static constinit std::atomic<unsigned int> generation_;
};
