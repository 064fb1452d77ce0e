#include <atomic>
#include <csignal>
#include <memory>
#include <new>
#include <pthread.h>
#include <unistd.h>

#include "Engine/utilities/CUL_Critical_Section.h"
#include "Engine/utilities/RWlock.h"
#include "Engine/utilities/Reference.h"
#include "Engine/utilities/Runnable.h"
#include "Engine/utilities/RunningThreads.h"
#include "Engine/utilities/StdException.h"
#include "Engine/utilities/StdThread.h"
#include "Engine/utilities/ThreadHandle.h"
#include "Engine/utilities/ThreadListener.h"
#include "Engine/utilities/ThreadManager.h"
#include "Engine/utilities/UNIX/UNIX_Critical_Section.h"
#include "Engine/utilities/UNIX/UNIX_Event_Semaphore.h"
#include "Engine/utilities/UNIX/UNIX_Mutex.h"
#include "Engine/utilities/WorkerThread.h"
#include "Engine/utilities/signals.h"
#include "Engine/utilities/workstation/TraceStack.h"

#include "tests/torture/Workload.h"

namespace {

// Started by start(); the token says when it has ended. One that was never started is deleted.
class Thread : public StdThread {
 public:
  explicit Thread(void (*body)(), Termination* termination)
      : StdThread("torture", 0, termination), body_(body) {}
  void run() override { body_(); }

 private:
  void (*body_)();
};

void start(std::unique_ptr<StdThread> thread) {
  thread->start_thread(200000);
  static_cast<void>(thread.release());  // its own now
}

// Until the thread that uses it has ended.
class Joined {
 public:
  Joined() = default;
  Joined(const Joined&) = delete;
  Joined& operator=(const Joined&) = delete;
  ~Joined() {
    if (termination.threadId() != 0) {
      termination.systemWait(0);
    }
  }
  StdThread::Termination termination;
};

std::atomic<unsigned> runs = 0;

void startAThread() {
  const unsigned before = runs;
  {
    Joined joined;
    start(std::make_unique<Thread>([] { ++runs; }, &joined.termination));
  }
  CUL_EXPECT_THAT(runs == before + 1);
  StdThread::Termination unused;
  CUL_EXPECT_THAT(unused.wait(0) == 0);
  bool isRefused = false;
  const Thread one([] {}, &unused);
  try {
    const Thread other([] {}, &unused);
  } catch (const StdException&) {
    isRefused = true;
  }
  CUL_EXPECT_THAT(isRefused);
}

void letAnExceptionEscape() {
  Joined joined;
  start(std::make_unique<Thread>([] { throw 7; }, &joined.termination));
}

void letAnotherExceptionEscape() {
  Joined joined;
  start(std::make_unique<Thread>([] { StdException::throwException("torture", 1, "escapes", -1); },
                                 &joined.termination));
}

std::atomic<bool> isAsleep = false;

void askAThreadToEnd() {
  isAsleep = false;
  StdThread::Termination termination;
  auto thread = std::make_unique<Thread>(
      [] {
        isAsleep = true;
        for (;;) {
          pause();
        }
      },
      &termination);
  thread->start_thread(0);
  do {
    StdThread::thread_yield();  // No other work does.
  } while (!isAsleep);
  int result = thread->requestTerminate();
  if (result != 0) {
    static_cast<void>(thread->requestTerminate());
  }
  CUL_EXPECT_THAT(termination.systemWait(0) == 0);
  CUL_EXPECT_THAT(result == 0);
}

void blockRequests() {
  Joined joined;
  start(std::make_unique<Thread>(
      [] {
        const StdThread::BlockTermination outer;
        const StdThread::BlockTermination inner;
        static_cast<void>(StdThread::currentThread()->requestTerminate());
        sigUSR2handler(SIGUSR2);
        StdThread::sigUSR2handler(SIGUSR2);
      },
      &joined.termination));
}

void nameSlots() {
  Thread thread([] {}, nullptr);
  for (const char* const key : {"one", "two", "a key of some length that is kept on the heap"}) {
    void** const value = thread._getKeyValue(key);
    CUL_EXPECT_THAT(*value == nullptr && thread._getKeyValue(key) == value);
  }
  CUL_EXPECT_THAT(StdThread::thread1() != nullptr);
}

void recover() {
  StdThread* const self = StdThread::currentThread();
  if (self->_setjmp() == 0) {
    self->longjmp(3, 0);
    expectThat(false, "a jump does not return");
  }
  CUL_EXPECT_THAT(!self->isRecoveryArmed());
}

void recoverFromASignal() {
  StdThread* const self = StdThread::currentThread();
  if (const int signal = self->_setjmp(); signal == 0) {
    raise(SIGTERM);
  } else {
    CUL_EXPECT_THAT(signal == SIGTERM);
  }
  registerErrorHandlers();
}

void keepARegister() {
  RunningThreads& threads = RunningThreads::instance();
  Thread thread([] {}, nullptr);
  threads.remove(&thread);
  threads.append(&thread);
  CUL_EXPECT_THAT(threads.find(0) == &thread);
}

class OpenMutex : public UNIX_Mutex {
 public:
  static void tell() { warn("pthread_mutex_lock", "torture", 1); }
};

void lockAndUnlock() {
  UNIX_Mutex mutex;
  UNIX_Critical_Section section;
  for (CUL_Critical_Section* const lock :
       {static_cast<CUL_Critical_Section*>(&mutex), static_cast<CUL_Critical_Section*>(&section)}) {
    lock->request("torture", 1);
    lock->release("torture", 2);
  }
  section.request("torture", 3);
  section.request("torture", 4);
  section.release("torture", 5);
  section.release("torture", 6);
  OpenMutex::tell();
  bool isRefused = false;
  try {
    section.release("torture", 7);
  } catch (const StdException&) {
    isRefused = true;
  }
  CUL_EXPECT_THAT(isRefused);
  const std::unique_ptr<CUL_Critical_Section> owned = std::make_unique<UNIX_Mutex>();
  const std::unique_ptr<CUL_Critical_Section> other = std::make_unique<UNIX_Critical_Section>();
}

RWlock* shared = nullptr;

void readAndWrite() {
  for (const RWlockBase::Priority priority :
       {RWlockBase::NoPriority, RWlockBase::ReaderPriority, RWlockBase::WriterPriority}) {
    RWlock lock(priority);
    lock.requestRead();
    struct Hold {
      RWlock& lock;
      ~Hold() { lock.release(); }
    };
    {
      const Hold reading{lock};
      CUL_EXPECT_THAT(lock.holdsReadLock() && lock.holdsAnyLock());
    }
    lock.requestWrite();
    const Hold writing{lock};
    CUL_EXPECT_THAT(lock.holdsWriteLock());
    shared = &lock;
    lock.requestRead();
    lock.release();
  }
}

void postAnEvent() {
  UNIX_Event_Semaphore event;
  CUL_Event_Semaphore& any = event;
  any.post();
  any.wait();
  CUL_EXPECT_THAT(!any.wait(1, CUL_Event_Semaphore::Seconds, false));
  any.reset();
  const std::unique_ptr<CUL_Event_Semaphore> owned = std::make_unique<UNIX_Event_Semaphore>();
}

void waitWithALimit() {
  UNIX_Event_Semaphore event;
  CUL_EXPECT_THAT(event.wait(1, CUL_Event_Semaphore::Milliseconds, false));
  bool isTold = false;
  try {
    event.wait(0, CUL_Event_Semaphore::Milliseconds, true);
  } catch (const StdException&) {
    isTold = true;
  }
  CUL_EXPECT_THAT(isTold);
}

void useTheTimer() {
  UNIX_Event_Semaphore event;
  UNIX_Event_Semaphore::MillisecondTimer& timer = *UNIX_Event_Semaphore::timerInstance();
  UNIX_Event_Semaphore::WaitInstance wait(event, 50000);
  UNIX_Event_Semaphore::WaitInstance later(event, 60000);
  UNIX_Event_Semaphore::WaitInstance between(event, 55000);
  List<const UNIX_Event_Semaphore::WaitInstance*> pending;
  timer.copyPending(pending);
  CUL_EXPECT_THAT(pending.count() == 3 && pending[2] == &later);
  timer.remove(wait);
  timer.add(wait);
  wait.expire();
  timer.remove(event);
  CUL_EXPECT_THAT(wait.isExpired() && wait.deadline() < later.deadline());
}

// Another one than the library's own, of which a process has one.
void makeATimer() {
  static constinit UNIX_Event_Semaphore::MillisecondTimer* timer = nullptr;
  if (timer == nullptr) {
    timer = new UNIX_Event_Semaphore::MillisecondTimer;
  }
  List<const UNIX_Event_Semaphore::WaitInstance*> pending;
  timer->copyPending(pending);
  CUL_EXPECT_THAT(pending.isEmpty());
}

class Answer final : public Runnable {
 public:
  virtual ~Answer() = default;
  int work() override { return 42; }
};

// The runs outlive what fails.
Answer& answer() {
  static Answer answer;
  return answer;
}

void runAWorker() {
  const Reference<ThreadListener> listener = ThreadListener::instance(answer());
  CUL_EXPECT_THAT(listener->start() != 0);
  listener->semaphore().wait();
  CUL_EXPECT_THAT(listener->result() == 42);
  const Reference<ThreadListener> unstarted = ThreadListener::instance(answer());
  const Reference<ThreadListener> told(new ThreadListener(answer()));
  told->notify(0, 7);
  CUL_EXPECT_THAT(told->result() == 7 && told->start() == 0);
}

void makeAWorker() {
  const Reference<ThreadListener> listener = ThreadListener::instance(answer());
  const WorkerThread worker(*listener, answer());
  CUL_EXPECT_THAT(worker.state() == WorkerThread::created && worker.result() == 0);
  const std::unique_ptr<StdThread> owned = std::make_unique<WorkerThread>(*listener, answer());
}

void manageThreads() {
  ThreadManager manager;
  CUL_EXPECT_THAT(manager.start(answer()) != 0);
  manager.allEnded().wait();
  CUL_EXPECT_THAT(manager.getThreadIds().isEmpty());
}

void keepHandles() {
  ThreadManager manager;
  Reference<ThreadHandle> handle = ThreadHandle::instance(manager, answer());
  Reference<ThreadHandle> other(new ThreadHandle(&manager, answer()));
  CUL_EXPECT_THAT(manager.append(handle) == ThreadManager::THREADMANAGER_OK);
  CUL_EXPECT_THAT(manager.append(other) == ThreadManager::THREADMANAGER_OK);
  CUL_EXPECT_THAT(manager.append(handle) == ThreadManager::THREADMANAGER_FAILED);
  CUL_EXPECT_THAT(manager.findThread(handle) == 0 && manager.findThread(pthread_t{0}) == 0);
  CUL_EXPECT_THAT(manager.getThread(0)->result() == 0 && manager.getThreadIds().count() == 2);
  CUL_EXPECT_THAT(handle->manager() == &manager);
  CUL_EXPECT_THAT(manager.remove(handle) == ThreadManager::THREADMANAGER_OK);
  CUL_EXPECT_THAT(manager.destroy(0) == ThreadManager::THREADMANAGER_OK);
  manager.append(handle);
  CUL_EXPECT_THAT(manager.remove(pthread_t{0}) == ThreadManager::THREADMANAGER_OK);
  handle->setManager(nullptr);
  handle->setManager(&manager);
  manager.notify(0, 0);
  handle->notify(0, 0);
  manager.append(other);
  manager.orphanThreads();
  CUL_EXPECT_THAT(manager.getThreadIds().isEmpty());
  const Reference<ReferenceCounted> counted(new ThreadHandle(nullptr, answer()));
}

void nameSignals() {
  CUL_EXPECT_THAT(*SignalOccurred(SIGTERM).signalName() == 'S');
  CUL_EXPECT_THAT(registerHandlerForSignal(SIGFPE) == 0);
}

void receiveASignal() { raise(SIGTERM); }
// Of the faults, the one that no sanitizer takes upon itself.
void fault() { raise(SIGABRT); }
void terminate() { CUL_terminate(); }
void meetTheUnexpected() { CUL_unexpected(); }
void runOutOfMemory() { newHandler(); }

void dumpTheCalls() {
  dumpModulesAndChain(true);
  dumpModulesAndChain(false);
  CUL_EXPECT_THAT(TraceStack::callerReturnAddress() != 0);
  TraceStack& stack = TraceStack::instance();
  stack.dumpStack();
  TraceStack::FRAME frames[2] = {{1, nullptr}, {2, nullptr}};
  frames[0].next = &frames[1];
  stack.traceback(frames);
  CUL_EXPECT_THAT(stack.sourceLoc(1).length() == 0);
}

// There can be no thread, or no event: status -1, without a text.
constexpr const char* empty = "threw StdException: ";
constexpr MayTell noThread = {empty,
                              "malloc pthread_create pthread_attr_init pthread_attr_setdetachstate "
                              "pthread_attr_setsigmask_np"};
constexpr MayTell noEvent = {empty, "pthread_cond_init pthread_cond_wait pthread_cond_broadcast"};
// What has nobody to tell.
constexpr MayTell noPost = {"ended 99", "pthread_cond_broadcast"};
// Nor has the timer's thread, or another one that has just begun, when memory is out.
constexpr MayTell noMemory = {"ended 99", "malloc"};
constexpr MayTell noMemoryLater = {"told \"done\" and then ended 99", "malloc"};

const Workload workloads[] = {
    {"threads", startAThread, -1, {noThread}},
    {"escaping exceptions", letAnExceptionEscape, 99, {noThread}},
    {"escaping StdExceptions", letAnotherExceptionEscape, 99, {noThread}},
    {"requests to end",
     askAThreadToEnd,
     -1,
     {noThread,
      {"other: termination.systemWait(0) == 0", "pthread_join"},
      {"other: result == 0", "pthread_kill"},
      // A thread whose signals cannot be unblocked hears of no request.
      {"hung", "pthread_sigmask"}}},
    {"blocked requests", blockRequests, -1, {noThread}},
    {"named slots", nameSlots},
    {"recovery", recover},
    {"recovery from signals", recoverFromASignal, -1, {{"was killed by Terminated", "sigaction"}}},
    {"register of threads", keepARegister},
    {"locks", lockAndUnlock},
    {"read and write locks", readAndWrite},
    {"events", postAnEvent, -1, {noEvent}},
    // The timer's thread has nobody to tell.
    {"timed waits", waitWithALimit, -1, {noMemory, noMemoryLater, noThread, noEvent, noPost}},
    {"timer",
     useTheTimer,
     -1,
     {noMemory,
      noMemoryLater,
      noThread,
      noEvent,
      noPost,
      {"other: pending.count()...", "gettimeofday"}}},
    {"another timer", makeATimer, -1, {noMemory, noMemoryLater, noThread}},
    {"workers", runAWorker, -1, {noMemory, noMemoryLater, noThread, noEvent, noPost}},
    {"making workers", makeAWorker, -1, {noEvent}},
    {"manager", manageThreads, -1, {noMemory, noMemoryLater, noThread, noEvent, noPost}},
    {"handles", keepHandles, -1, {noMemory, noMemoryLater, noThread, noEvent, noPost}},
    {"names of signals", nameSignals, -1, {{"other: registerHandlerForSignal...", "sigaction"}}},
    {"signal", receiveASignal, 99},
    {"fault", fault, 99},
    {"terminate", terminate, 1},
    {"unexpected", meetTheUnexpected, 1},
    {"out of memory", runOutOfMemory, 1},
    {"chain of calls", dumpTheCalls},
};

}  // namespace

std::span<const Workload> threadWorkloads() { return workloads; }
