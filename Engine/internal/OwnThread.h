#pragma once

#include <atomic>
#include <cstdint>

/// \file
/// What the calling thread has found when it last looked itself up in RunningThreads, for as
/// long as another look would find the same.
///
/// The answer of a look is the last registered object with the thread's id. It is another one
/// only when an object that bears this id is registered or unregistered, or when an object is
/// given this id or loses it. That happens
///
/// - on the thread itself, with hardly an exception: its object is deleted there, "main" is made
///   there, the id is taken away there from an object that its thread leaves behind, and the
///   forking thread goes on as the only one of the child. There the thread calls forget();
/// - when its starter notes its id in its object. The starter holds the lock of starts, which the
///   thread passes before it runs anything; then it calls forget();
/// - when another thread destroys its object, or registers or unregisters it by hand. Nobody
///   knows who has found that, so everybody is told to look again, by forgetAll().
///
/// So other threads can be started and can end all the time without a look being needed here. Ids
/// that the system uses again do no harm: a thread begins with nothing found.
///
/// What a look has found holds for the generation that it has seen under the registry's lock.
/// forgetAll() is called under the same lock, so the generation is the old one only when the
/// object was still there. A thread that learns in whatever orderly way that another one has
/// changed the registry sees the new generation, too; to one that does not, the change may as
/// well come later. That needs no order in memory beyond that of the number itself.
///
/// A signal handler may look its thread up between any two instructions. So a change comes first
/// and is then forgotten about, and what is found is noted under the lock: whatever a handler
/// notes in between is the same.

class StdThread;

class OwnThread {
 public:
  OwnThread() = delete;

  /// Whether what was found last still holds.
  [[nodiscard]] static bool isKnown() noexcept {
    return __atomic_load_n(&found_.generation, __ATOMIC_RELAXED) ==
           generation_.number.load(std::memory_order_relaxed);
  }

  /// What was found; null: there is no object with this thread's id.
  [[nodiscard]] static StdThread* found() noexcept {
    return __atomic_load_n(&found_.thread, __ATOMIC_RELAXED);
  }

  /// Looks the thread up like RunningThreads::find(), and makes nothing: memory may be out.
  /// \return null: there is no object with this thread's id.
  [[nodiscard]] static StdThread* registered() noexcept __attribute__((visibility("hidden")));

  /// Notes what was found. With the registry's lock held.
  static void note(StdThread* thread) noexcept {
    forget();
    __atomic_store_n(&found_.thread, thread, __ATOMIC_RELAXED);
    std::atomic_signal_fence(std::memory_order_seq_cst);
    __atomic_store_n(&found_.generation, generation_.number.load(std::memory_order_relaxed),
                     __ATOMIC_RELAXED);
  }

  /// Has the calling thread look again, after a change.
  static void forget() noexcept {
    std::atomic_signal_fence(std::memory_order_seq_cst);
    __atomic_store_n(&found_.generation, none, __ATOMIC_RELAXED);
    std::atomic_signal_fence(std::memory_order_seq_cst);
  }

  /// Has all threads look again. With the registry's lock held.
  static void forgetAll() noexcept { generation_.number.fetch_add(1, std::memory_order_relaxed); }

 private:
  static constexpr std::uint64_t none = 0;

  struct Found {
    StdThread* thread = nullptr;
    std::uint64_t generation = none;
  };

  // By itself: all threads read it, and hardly one ever writes it.
  struct alignas(64) Generation {
    std::atomic<std::uint64_t> number = none + 1;
  };

  static constinit thread_local Found found_
      __attribute__((tls_model("initial-exec"), visibility("hidden")));
  static constinit Generation generation_ __attribute__((visibility("hidden")));
};
