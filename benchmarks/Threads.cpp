#include <algorithm>
#include <atomic>
#include <cstdio>
#include <memory>
#include <pthread.h>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

#include "Engine/utilities/StdException.h"
#include "Engine/utilities/StdThread.h"
#include "Engine/utilities/ThreadHandle.h"
#include "Engine/utilities/ThreadListener.h"
#include "Engine/utilities/ThreadManager.h"
#include "Engine/utilities/UNIX/UNIX_Event_Semaphore.h"

#include "benchmarks/Comparison.h"

/// \file
/// What each thread does all the time, and how it depends on the number of threads. They are
/// runs of one manager, asleep in their work until the process ends.

namespace {

class Sleeping final : public Runnable {
 public:
  virtual ~Sleeping() = default;
  int work() override {
    for (;;) {
      pause();
    }
  }
};

class Nothing final : public Runnable {
 public:
  virtual ~Nothing() = default;
  int work() override { return 0; }
};

// Lists so many runs with a manager and starts them.
// \return whether there can be so many threads.
bool startRuns(ThreadManager& manager, Runnable& runnable, unsigned count) {
  try {
    for (unsigned i = 0; i < count; ++i) {
      Reference<ThreadHandle> handle = ThreadHandle::instance(manager, runnable);
      manager.append(handle);
      handle->start();
    }
  } catch (const StdException&) {
    return false;
  }
  return true;
}

// Each start takes one look of the timer, which serves all who wait: a hundred threads share it.
bool startManyRuns(ThreadManager& manager, Runnable& runnable, unsigned count) {
  constexpr unsigned starters = 100;
  std::atomic<bool> isDone = true;
  std::vector<std::thread> starting;
  for (unsigned i = 0; i < starters; ++i) {
    const unsigned share = (count + i) / starters;
    starting.emplace_back([&, share] {
      if (!startRuns(manager, runnable, share)) {
        isDone = false;
      }
    });
  }
  for (std::thread& thread : starting) {
    thread.join();
  }
  return isDone;
}

// The loop of a benchmark, on a thread of the library.
template <typename Operation>
class Loop : public StdThread {
 public:
  Loop(benchmark::State& state, Operation operation, Termination* termination)
      : StdThread("loop", 0, termination), state_(state), operation_(operation) {}

  void run() override {
    for (auto _ : state_) {
      operation_();
      benchmark::ClobberMemory();
    }
  }

 private:
  benchmark::State& state_;
  Operation operation_;
};

template <typename Operation>
auto onThreadOfOurs(Operation operation) {
  return [operation](benchmark::State& state) {
    StdThread::Termination termination;
    (new Loop(state, operation, &termination))->start_thread(0);
    require(termination.wait(0) == 0, "the end of a thread");
  };
}

// The same on a thread that the library knows nothing of.
template <typename Operation>
auto onForeignThread(Operation operation) {
  return [operation](benchmark::State& state) {
    std::thread([&] {
      for (auto _ : state) {
        operation();
        benchmark::ClobberMemory();
      }
    }).join();
  };
}

thread_local unsigned ownCount = 0;

// What a call into a library costs that reads a variable of the thread.
void askForSelf() { benchmark::DoNotOptimize(pthread_self()); }

void askForCurrent() { benchmark::DoNotOptimize(StdThread::currentThread()); }

void compareCurrent(const std::string& company) {
  require(StdThread::currentThread() == StdThread::thread1(), "the main thread");
  compare("current thread: the main one, " + company, askForCurrent, "pthread_self", askForSelf);
  compare("current thread: one of ours, " + company, onThreadOfOurs(askForCurrent), "pthread_self",
          onThreadOfOurs(askForSelf));
  compare("current thread: a foreign one, " + company, onForeignThread(askForCurrent),
          "pthread_self", onForeignThread(askForSelf));
  const auto block = [] { const StdThread::BlockTermination blocked; };
  const auto increment = [] {
    askForSelf();
    benchmark::DoNotOptimize(++ownCount);
    askForSelf();
    benchmark::DoNotOptimize(--ownCount);
  };
  compare("BlockTermination: the main thread, " + company, block, "call and count", increment);
  compare("BlockTermination: one of ours, " + company, onThreadOfOurs(block), "call and count",
          onThreadOfOurs(increment));
}

class Empty : public StdThread {
 public:
  explicit Empty(Termination* termination) : StdThread("empty", 0, termination) {}
  void run() override {}
};

// The wall time: the work is done by the kernel, the timer and the new thread.
template <typename Operation>
void addLife(const std::string& name, Operation operation) {
  benchmark::RegisterBenchmark(name.c_str(), [operation](benchmark::State& state) {
    for (auto _ : state) {
      operation();
    }
  })->UseRealTime();
}

void compareLives(const std::string& company) {
  const auto peersLife = [] { std::thread([] {}).join(); };

  const std::string thread = "thread: start, end and join, " + company;
  addLife(thread + "/ours", [] {
    StdThread::Termination termination;
    (new Empty(&termination))->start_thread(0);
    require(termination.wait(0) == 0, "the end of a thread");
  });
  addLife(thread + "/std::thread", peersLife);

  const std::string run = "run: start and wait, with the timer's pass, " + company;
  const auto event = std::make_shared<UNIX_Event_Semaphore>();
  addLife(run + "/ours", [] {
    Nothing nothing;
    const Reference<ThreadListener> listener = ThreadListener::instance(nothing);
    listener->start();
    listener->semaphore().wait();
    require(listener->result() == 0, "the result of a run");
  });
  addLife(run + "/std::thread", peersLife);
  addLife(run + "/bound", [event] {
    require(event->wait(0, CUL_Event_Semaphore::Seconds, false), "a closed event");
  });
}

// The place of a run in the list is what is asked for, so that a peer has to count as well.
void compareFinding(ThreadManager& manager, const std::string& company) {
  const List<unsigned long> ids = manager.getThreadIds();
  const std::vector<pthread_t> peers(ids.begin(), ids.end());
  const pthread_t last = peers.back();
  require(manager.findThread(last) == static_cast<int>(peers.size()) - 1, "find a run");
  compare(
      "ThreadManager: find the last run, " + company,
      [&manager, last] { benchmark::DoNotOptimize(manager.findThread(last)); }, "std::find",
      [peers, last] { benchmark::DoNotOptimize(std::find(peers.begin(), peers.end(), last)); });
}

}  // namespace

void compareManyThreads(unsigned count) {
  // Never destroyed, like the threads.
  static Sleeping& sleeping = *new Sleeping;
  static ThreadManager& manager = *new ThreadManager;
  const std::string company = std::to_string(count) + " more threads";
  if (!startManyRuns(manager, sleeping, count)) {
    std::fprintf(stderr, "There cannot be %s.\n", company.c_str());
    return;
  }
  compareCurrent(company);
  compareTraceLine(company);
  compareLives(company);
  if (count != 0) {
    compareFinding(manager, company);
  }
}
