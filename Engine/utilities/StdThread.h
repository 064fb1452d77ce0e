#pragma once

#include <csetjmp>
#include <cstddef>
#include <pthread.h>

#include "Engine/utilities/ByteString.h"
#include "Engine/utilities/Export.h"
#include "Engine/utilities/List.h"

/// \file
/// Threads. A thread is an object of a class derived from StdThread whose run() does the
/// work.
///
/// **Life.** An object is registered (see RunningThreads) from construction on. Once
/// started it belongs to its thread, which deletes it when run() returns: make it with
/// `new`, and do not delete or even touch it after start_thread() unless something else
/// keeps it alive. Whoever wants to wait for the thread keeps a StdThread::Termination. A
/// thread whose run() lets an exception out ends the whole process with status 99. When the
/// process is ending already, that ending goes on with its own status, and the thread is as good
/// as ended: it can be joined, its object stays registered (see signals.h on several endings).
///
/// **Asking a thread to end.** requestTerminate() sends SIGUSR2. The thread ends where it
/// is by unwinding its stack, so objects on the stack are destroyed; its thread object
/// stays registered and is not deleted. It ends at once when it waits (in read, poll, a
/// condition, a sleep, join; for a lock of this library, a pthread mutex, a std::mutex) and
/// when it is throwing an exception; soon when it makes calls that may throw (allocation, strings,
/// lists, traces, input and output, thread_yield()): the call it is in returns first, and what it
/// hands over, an object or a descriptor, is lost. In code that makes no such call it ends after a
/// twentieth of a second. It never ends while it takes a lock or has one of this library that
/// nothing would give back, and other threads can go on.
///
/// What does not end, and how to help it:
/// - a loop without any of these calls, in a function with something to destroy; and any in a
///   function that is or calls through noexcept ones: call thread_yield() now and then;
/// - a wait for a mutex whose lock function was compiled into a function with something to
///   destroy, since the compiler takes pthread_mutex_lock() for one that never throws: it ends
///   behind the wait. The locks of this library are not concerned;
/// - a wait of another kind in the system (a robust mutex, a pthread read/write lock, a futex).
///
/// A `catch (...)` must throw on what it does not know. A lock taken without a guard stays
/// taken; so may one of the C library whose guard encloses nothing that could throw when the
/// thread computes inside of it for a twentieth of a second and longer, because the compiler
/// sees no need to unlock on the way out. BlockTermination protects such code.
///
/// **Recovery from a fatal signal.** A thread may arm its recovery point before risky
/// work; the handler of fatal signals then resumes there instead of ending the process:
/// \code
///   StdThread* self = StdThread::currentThread();
///   if (const int signal = self->_setjmp(); signal == 0) {
///     work();
///     self->clearjmp();
///   } else { ... }
/// \endcode
/// As with the C library's setjmp, the function that armed the point must not have
/// returned, objects in between are not destroyed, and local variables changed since must
/// be volatile.
///
/// **Other threads.** All threads that are not started by this class share the one object
/// "main", and with it its named slots, its recovery point and its block count. These are not
/// locked and serve one thread only: of such threads let one, say the process's first, use them.
/// A BlockTermination on one of them keeps requests from all of them, and a fault on any of them
/// resumes at the point that "main" has armed, on the stack of another thread.

class CUL_EXPORT StdThread {
 public:
  /// A token by which a thread can be waited for. It must outlive the thread object, and
  /// serves one thread object at a time.
  class CUL_EXPORT Termination {
   public:
    Termination() = default;
    Termination(const Termination&) = delete;
    Termination& operator=(const Termination&) = delete;
    ~Termination() = default;

    /// Waits until the thread has ended. A thread can be waited for once: its id means nothing
    /// afterwards, and as the token keeps it, a second wait is undefined like a second
    /// pthread_join(); it may wait for another thread or crash.
    /// \param timeout ignored.
    /// \return the result of pthread_join() once the thread was started; before that -1
    ///   while a thread object uses the token, 0 when none does.
    int wait(unsigned short timeout) const;

    /// pthread_join(), whatever the state of the token.
    /// \param timeout ignored.
    int systemWait(unsigned short timeout) const;

    /// The thread's id; 0 until it starts. Kept when the thread ends.
    [[nodiscard]] pthread_t threadId() const noexcept {
      return __atomic_load_n(&threadId_, __ATOMIC_ACQUIRE);
    }

   private:
    friend class StdThread;
    friend class StdThreadRun;

    pthread_t threadId_ = 0;
    StdThread* thread_ = nullptr;
  };

  /// Marks a stretch of the current thread in which a request to end only leaves a mark.
  ///
  /// The mark is not acted on when the guard ends: a request that arrives inside is lost,
  /// unless a guard ends that was never counted on this thread. Kept so: a guard that acted on
  /// it would end threads in destructors.
  class CUL_EXPORT BlockTermination {
   public:
    BlockTermination();
    BlockTermination(const BlockTermination&) = delete;
    BlockTermination& operator=(const BlockTermination&) = delete;
    /// May end the thread.
    // NOLINTNEXTLINE(bugprone-exception-escape): which passes here.
    ~BlockTermination() noexcept(false);
  };

  /// Registers a thread that is not started yet.
  /// \param name        copied; null counts as empty.
  /// \param stackSize   bytes, raised to defaultStackSize() when smaller.
  /// \param termination token to wait by, or null: the thread cannot be joined then. Not
  ///   owned.
  /// \throws StdException "Termination object used for 2 threads", status -1.
  StdThread(const char* name, unsigned int stackSize, Termination* termination);
  StdThread(const StdThread&) = delete;
  StdThread& operator=(const StdThread&) = delete;

  /// Unregisters the object and detaches it from its token.
  virtual ~StdThread();

  /// The thread's work.
  virtual void run() = 0;

  /// Starts the thread; does nothing when it was started before.
  /// \param stackSize bytes; counts when it is larger than what the constructor was given.
  /// \throws StdException status -1 when there can be no thread; the object stays
  ///   unstarted.
  void start_thread(unsigned int stackSize);

  /// Asks the thread to end. What answers is installed by the first start of a thread: before
  /// that, asking "main" ends the process.
  /// \return the result of pthread_kill(); ESRCH when the thread is not started or has
  ///   ended by a request.
  int requestTerminate() const;

  /// Arms the recovery point at the place of the call.
  /// \return 0, and once more the value given to longjmp() when execution resumes here.
  int _setjmp() __attribute__((returns_twice));

  /// Resumes at the recovery point; returns when it is not armed. Only the thread itself may call
  /// it, as the handler of fatal signals does, while the function that armed the point has not
  /// returned.
  /// \param value     what _setjmp() returns then; as in C, 0 arrives as 1.
  /// \param keepArmed whether the recovery point stays armed.
  void longjmp(int value, int keepArmed);

  /// Disarms the recovery point.
  void clearjmp() noexcept { recoveryArmed_ = 0; }

  /// Whether longjmp() would resume at the recovery point.
  [[nodiscard]] bool isRecoveryArmed() const noexcept { return recoveryArmed_ != 0; }

  /// The object's named slot, made with the value null when absent.
  /// \param key compared as a whole.
  /// \return its address, valid until a slot is added to the same object.
  void** _getKeyValue(const char* key);

  /// The name as it was given; empty for null.
  [[nodiscard]] const ByteString& name() const noexcept { return name_; }

  /// The id of the running thread, 0 until it starts. Any thread.
  [[nodiscard]] pthread_t threadId() const noexcept {
    return __atomic_load_n(&threadId_, __ATOMIC_ACQUIRE);
  }

  /// Bytes of stack the thread has or will have.
  [[nodiscard]] unsigned int stackSize() const noexcept { return stackSize_; }

  /// The object of the calling thread; thread1() when it has none of its own.
  [[nodiscard]] static StdThread* currentThread();

  /// The object "main" that stands for all threads not started by this class. Its thread
  /// id is that of the first caller. Never deleted.
  [[nodiscard]] static StdThread* thread1();

  /// The id of the calling thread.
  [[nodiscard]] static pthread_t currentThreadId() noexcept { return pthread_self(); }

  /// Lets other threads run. The calling thread ends here when it was asked to and could
  /// not until now.
  static void thread_yield();

  /// The least stack size in bytes.
  [[nodiscard]] static constexpr unsigned int defaultStackSize() noexcept { return 131072; }

  /// What SIGUSR2 does to the thread it arrives at.
  static void sigUSR2handler(int signal);

 private:
  friend class StdThreadRun;

  struct NamedSlot {
    char* key;  // owned; raw because the list moves bytes and is kept (docs/contract.md)
    void* value;
    unsigned int keyLength;  // with the final zero
  };

  // Where the fields are that the assembly part of _setjmp() writes.
  static const std::size_t recoveryPointOffset_ __attribute__((visibility("hidden")));
  static const std::size_t recoveryArmedOffset_ __attribute__((visibility("hidden")));

  __attribute__((visibility("hidden"))) void setThreadId(pthread_t id) noexcept;
  __attribute__((visibility("hidden"))) void leaveToken() noexcept;
  __attribute__((visibility("hidden"))) static StdThread* askedThread();

  jmp_buf recoveryPoint_;
  ByteString name_;
  List<NamedSlot> slots_;
  pthread_t threadId_ = 0;
  Termination* termination_;
  unsigned int stackSize_;
  unsigned short blockCount_ = 0;
  unsigned char started_ = 0;
  unsigned char recoveryArmed_ = 0;
  unsigned char terminationPending_ = 0;
};

/// The handler of SIGUSR2; forwards to StdThread::sigUSR2handler().
extern "C" CUL_EXPORT void sigUSR2handler(int signal);
