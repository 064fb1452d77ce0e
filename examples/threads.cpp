// Adds up on threads of a manager, then starts a thread by itself.

#include <cstdio>

#include "Engine/utilities/CUL_Event_Semaphore.h"
#include "Engine/utilities/Runnable.h"
#include "Engine/utilities/StdThread.h"
#include "Engine/utilities/ThreadManager.h"
#include "Engine/utilities/UNIX/UNIX_Critical_Section.h"

namespace {

UNIX_Critical_Section lock;
unsigned total = 0;

// Work for a manager; whoever makes it keeps it until its run has ended.
class Adder final : public Runnable {
 public:
  int work() override {
    for (unsigned number = 1; number <= 1000; ++number) {
      // The lock is told who asks for it: one that fails says so in the trace.
      lock.request("Adder::work()", __LINE__);
      total += number;
      lock.release("Adder::work()", __LINE__);
    }
    return 0;
  }
};

// A thread is an object that belongs to itself once it is started.
class Greeter final : public StdThread {
 public:
  explicit Greeter(Termination& termination) : StdThread("greeter", 0, &termination) {}
  void run() override {
    std::printf("on a thread of its own: %s\n", currentThread() == this ? "yes" : "no");
  }
};

}  // namespace

int main() {
  Adder one;
  Adder another;
  ThreadManager manager;
  manager.start(one);
  manager.start(another);
  const bool late = manager.allEnded().wait(60, CUL_Event_Semaphore::Seconds, false);
  std::printf("%s: %u\n", late ? "late" : "in time", total);

  // Outlives the thread object, which nobody touches after its start.
  StdThread::Termination termination;
  (new Greeter(termination))->start_thread(0);
  return termination.wait(0);
}
