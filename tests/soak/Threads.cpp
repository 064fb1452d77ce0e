#include <array>
#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <unistd.h>

#include "Engine/utilities/Descriptor.h"
#include "Engine/utilities/StdException.h"
#include "Engine/utilities/StdPipe.h"
#include "Engine/utilities/StdThread.h"
#include "Engine/utilities/UNIX/UNIX_Critical_Section.h"
#include "Engine/utilities/UNIX/UNIX_Event_Semaphore.h"

#include "tests/soak/Parts.h"

namespace {

constexpr unsigned starters = 4;

// What a starter has in common with its threads, of which one runs at a time.
struct Common {
  std::atomic<bool> isAtWork = false;
  std::atomic<bool> isUnwound = false;
  std::atomic<bool> hasReturned = false;  // from a wait without end
  UNIX_Event_Semaphore event;             // is not posted
  UNIX_Critical_Section lock;             // held by the starter
  StdPipe pipe;                           // nothing is written to it
};

// On the stack of each thread.
class Trail {
 public:
  explicit Trail(Common& common) : common_(common) { common_.isAtWork = true; }
  Trail(const Trail&) = delete;
  Trail& operator=(const Trail&) = delete;
  ~Trail() { common_.isUnwound = true; }

 private:
  Common& common_;
};

void endByItself(Common& common) { const Trail trail(common); }

#if !defined(__SANITIZE_THREAD__)

void sleepOn(Common& common) {
  const Trail trail(common);
  for (;;) {
    usleep(1'000'000);
  }
}

void waitForEvent(Common& common) {
  const Trail trail(common);
  common.event.wait();
  common.hasReturned = true;
}

void waitForLock(Common& common) {
  const Trail trail(common);
  common.lock.request("void waitForLock()", __LINE__);
  common.hasReturned = true;
}

void readFromPipe(Common& common) {
  const Trail trail(common);
  char byte = 0;
  while (::read(common.pipe.readHandle(), &byte, 1) == -1) {
  }
}

void compute(Common& common) {
  const Trail trail(common);
  for (;;) {
    StdThread::thread_yield();
  }
}

using Body = void (*)(Common&);
constexpr Body bodies[] = {endByItself, sleepOn,     endByItself,  waitForEvent, endByItself,
                           waitForLock, endByItself, readFromPipe, endByItself,  compute};
#else
using Body = void (*)(Common&);
constexpr Body bodies[] = {endByItself};
#endif

class Worker : public StdThread {
 public:
  Worker(Body body, Common& common, Termination& end)
      : StdThread("soaked", 0, &end), body_(body), common_(common) {}
  void run() override { body_(common_); }

 private:
  const Body body_;
  Common& common_;
};

void startThread(Work& work, Body body, Common& common) {
  common.isAtWork = false;
  common.isUnwound = false;
  common.hasReturned = false;
  StdThread::Termination end;
  auto* const thread = new Worker(body, common, end);
  thread->start_thread(0);
  std::unique_ptr<Worker> asked;
  if (body != endByItself) {
    asked.reset(thread);  // whose object stays with who asks
    while (!common.isAtWork) {
      std::this_thread::yield();
    }
    if (thread->requestTerminate() != 0) {
      work.wrong("could not be asked");
    }
  }
  if (end.wait(0) != 0) {
    work.wrong("could not be waited for");
  }
  if (!common.isUnwound) {
    work.wrong("ended without leaving their functions");
  }
  if (common.hasReturned) {
    work.wrong("went on instead of ending");
  }
}

void startOneAfterTheOther(Work& work, unsigned first) {
  Common common;
  common.lock.request("void startOneAfterTheOther()", __LINE__);
  for (unsigned i = first; work.goesOn(); ++i) {
    try {
      startThread(work, bodies[i % std::size(bodies)], common);
    } catch (const StdException& exception) {
      work.wrong("not started", std::string(exception.text.view()));
    }
    work.done();
  }
  common.lock.release("void startOneAfterTheOther()", __LINE__);
}

}  // namespace

void startThreads(Work& work) {
  std::array<std::thread, starters> threads;
  for (unsigned i = 0; i < starters; ++i) {
    threads[i] = std::thread([&work, i] { startOneAfterTheOther(work, i); });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
}
