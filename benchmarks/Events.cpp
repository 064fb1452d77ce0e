#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "Engine/utilities/UNIX/UNIX_Event_Semaphore.h"

#include "benchmarks/Comparison.h"

namespace {

constexpr auto seconds = CUL_Event_Semaphore::Seconds;

/// An event as one would write it with what the language brings along.
class ConditionEvent {
 public:
  void post() {
    const std::lock_guard guard(mutex_);
    isPosted_ = true;
    condition_.notify_all();
  }
  void reset() {
    const std::lock_guard guard(mutex_);
    isPosted_ = false;
  }
  void wait() {
    std::unique_lock guard(mutex_);
    condition_.wait(guard, [this] { return isPosted_; });
  }
  /// Whether the time ran out.
  bool wait(std::chrono::seconds limit) {
    std::unique_lock guard(mutex_);
    return !condition_.wait_for(guard, limit, [this] { return isPosted_; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable condition_;
  bool isPosted_ = false;
};

/// Two threads that wake each other in turn: one round is two ways.
template <class Event>
void pingPong(benchmark::State& state) {
  Event ping;
  Event pong;
  bool isDone = false;  // handed over with ping
  std::thread other([&] {
    for (;;) {
      ping.wait();
      ping.reset();
      if (isDone) {
        return;
      }
      pong.post();
    }
  });
  for (auto _ : state) {
    ping.post();
    pong.wait();
    pong.reset();
  }
  isDone = true;
  ping.post();
  other.join();
}

/// Like the library's, an object of the free store that the compiler cannot look into.
template <class Event>
std::shared_ptr<Event> openEvent() {
  auto event = std::make_shared<Event>();
  event->post();
  return event;
}

void comparePost() {
  // As in the library, the event is reached through its interface.
  const std::shared_ptr<CUL_Event_Semaphore> ours = std::make_shared<UNIX_Event_Semaphore>();
  const auto peer = std::make_shared<ConditionEvent>();
  compare(
      "event: post and reset, nobody waits",
      [ours] {
        ours->post();
        ours->reset();
      },
      "std::condition_variable",
      [peer] {
        peer->post();
        peer->reset();
      });
}

void compareOpen() {
  const std::shared_ptr<CUL_Event_Semaphore> ours = openEvent<UNIX_Event_Semaphore>();
  const auto peer = openEvent<ConditionEvent>();
  const auto flag = std::make_shared<std::atomic<bool>>(true);
  require(!ours->wait(1, seconds, false) && !peer->wait(std::chrono::seconds(1)), "open events");

  const std::string limited = "event: wait with a limit, open";
  addPeer(limited, "ours", [ours] { benchmark::DoNotOptimize(ours->wait(1, seconds, false)); });
  addPeer(limited, "std::condition_variable",
          [peer] { benchmark::DoNotOptimize(peer->wait(std::chrono::seconds(1))); });
  addPeer(limited, "atomic load",
          [flag] { benchmark::DoNotOptimize(flag->load(std::memory_order_acquire)); });

  compare(
      "event: wait without a limit, open", [ours] { ours->wait(); }, "std::condition_variable",
      [peer] { peer->wait(); });
}

void compareWaking() {
  const std::string what = "event: wake the other thread and be woken";
  for (const bool isOurs : {true, false}) {
    benchmark::RegisterBenchmark((what + (isOurs ? "/ours" : "/std::condition_variable")).c_str(),
                                 isOurs ? pingPong<UNIX_Event_Semaphore> : pingPong<ConditionEvent>)
        ->UseRealTime();
  }
}

}  // namespace

void compareEvents() {
  comparePost();
  compareOpen();
  compareWaking();
}
