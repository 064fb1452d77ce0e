#pragma once

#include <atomic>
#include <dlfcn.h>

/// \file
/// How a test program stands in for functions of the C library, so that they fail or tell
/// something else. The program's own definition of a function stands before that of the C library,
/// also for calls from the library under test; calls that the C library makes inside itself pass
/// by.
///
/// A stand-in is defined once in a program and does nothing but call the real function, until a
/// case says what is called instead:
/// \code
///   CUL_STAND_IN(char*, strndup, (const char* text, size_t longest), noexcept, text, longest)
///
///   CUL_CHILD(ConfigureWithoutMemory) {
///     const Instead noMemory(strndupStandIn, [](auto...) -> char* { return nullptr; });
/// \endcode
/// What is called instead is a function without state, on every thread of the process, in signal
/// handlers and in forked children; it gets to the real one by `strndupStandIn.real()`.

/// A function of the C library and what is called instead.
/// \tparam Function its type, as in `int(int, ...)`.
template <typename Function>
class StandIn {
 public:
  explicit constexpr StandIn(const char* name) : name_(name) {}

  /// Calls the function that the name would stand for without this program: the C library's, or a
  /// sanitizer's.
  template <typename... Arguments>
  auto real(Arguments... arguments) {
    void* function = real_.load(std::memory_order_acquire);
    if (function == nullptr) {
      function = find();
    }
    return reinterpret_cast<Function*>(function)(arguments...);
  }

  /// Calls what is to be called now.
  template <typename... Arguments>
  auto call(Arguments... arguments) {
    Function* const instead = instead_.load(std::memory_order_acquire);
    return instead != nullptr ? instead(arguments...) : real(arguments...);
  }

  /// Null: the real one is to be called.
  /// \return what was to be called so far.
  Function* callInstead(Function* instead) { return instead_.exchange(instead); }

  /// Finds the real one, for forked children, in which dlsym() may wait for a lock.
  void* find() {
    void* function = nullptr;
#if !defined(__SANITIZE_THREAD__)
    // The functions of conditions have an older version, too, which dlsym() may give.
    function = dlvsym(RTLD_NEXT, name_, "GLIBC_2.3.2");
#endif
    if (function == nullptr) {
      function = dlsym(RTLD_NEXT, name_);
    }
    real_.store(function, std::memory_order_release);
    return function;
  }

 private:
  const char* name_;
  std::atomic<void*> real_ = nullptr;
  std::atomic<Function*> instead_ = nullptr;
};

/// Until the end of the scope, a function is called instead of one of the C library. Scopes nest.
template <typename Function>
class Instead {
 public:
  Instead(StandIn<Function>& standIn, Function* function)
      : standIn_(standIn), former_(standIn.callInstead(function)) {}
  Instead(const Instead&) = delete;
  Instead& operator=(const Instead&) = delete;
  ~Instead() { standIn_.callInstead(former_); }

 private:
  StandIn<Function>& standIn_;
  Function* former_;
};

template <typename Function, typename Callable>
Instead(StandIn<Function>&, Callable) -> Instead<Function>;

/// For the exceptions of a function that may throw.
#define CUL_NOTHING

/// Defines `nameStandIn`, with the real function found before main().
#define CUL_DEFINE_STAND_IN(Result, name, parameters)        \
  constinit StandIn<Result parameters> name##StandIn(#name); \
  __attribute__((constructor)) static void find_##name() { name##StandIn.find(); }

/// Defines `nameStandIn` and `Result name(parameters)`, which calls it; what follows the exceptions
/// are the names of the parameters.
#define CUL_STAND_IN(Result, name, parameters, exceptions, ...) \
  CUL_DEFINE_STAND_IN(Result, name, parameters)                 \
  extern "C" Result name parameters exceptions { return name##StandIn.call(__VA_ARGS__); }
