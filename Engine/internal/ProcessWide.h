#pragma once

#include <atomic>

/// \file
/// An object that a process has once: made by its first use and never destroyed, so that it also
/// serves static constructors and exit handlers.
///
/// Not left to the compiler's own guard of a static object: a child that is forked meanwhile would
/// wait for ever for the end of the making, and what comes back here while the object is made
/// would not return. The first use belongs on the main thread before a second one exists; where two
/// threads come at once all the same, both make an object, and the one that is second deletes its
/// own and uses the other's.
/// \code
///   static constinit ProcessWide<TraceStack> traceStack;
///   return traceStack.get([] { return new TraceStack; });
/// \endcode
template <class T>
class ProcessWide {
 public:
  constexpr ProcessWide() noexcept = default;
  ProcessWide(const ProcessWide&) = delete;
  ProcessWide& operator=(const ProcessWide&) = delete;

  /// The object, which `make()` gives with `new` when there is none.
  template <class Make>
  [[nodiscard]] T& get(Make make) {
    T* object = present();
    if (object == nullptr) {
      T* const made = make();
      if (object_.compare_exchange_strong(object, made, std::memory_order_acq_rel)) {
        return *made;
      }
      delete made;
    }
    return *object;
  }

  /// The object; null as long as there is none.
  [[nodiscard]] T* present() const noexcept { return object_.load(std::memory_order_acquire); }

 private:
  std::atomic<T*> object_ = nullptr;
};
