#pragma once

#include <cstddef>
#include <cstdint>

/// \file
/// How the stack of the calling thread can be left, from wherever it is; RequestToEnd.h tells
/// what for.
///
/// Unwinding a stack is sound only where the compiler has prepared for it: at calls. Anywhere
/// else in a function with something to destroy the exception table lists nothing, and the C++
/// runtime answers with std::terminate(); and in the middle of malloc() a lock would stay taken
/// for ever. So this looks at each frame first, in the same tables as the runtime will. What
/// cannot be read or is not known counts as a place that cannot be left.
///
/// Nothing here but learnRuntime() allocates or takes a lock, and all else may run in a signal
/// handler. Nothing throws, but for a failed allocation there; what a thread can be unwound through
/// is not noexcept.

/// Where the calling thread can end.
struct WayOut {
  enum class Kind {
    none,
    here,     ///< By unwinding from here.
    atReturn  ///< When the call of the program that it is in has returned.
  };

  Kind kind = Kind::none;
  /// Whether the program has counted on an exception at just this place. If not, it may hold a
  /// lock whose guard the compiler did not bother to note, or be half-way through a change.
  bool isCertain = false;
  /// Whether the call takes or gives back a lock of the C or C++ runtime.
  bool usesRuntimeLocks = false;
  /// Whether it gives one back.
  bool unlocks = false;
  /// At a return: where the call's return address lies, and what it returns: what malloc(),
  /// operator new or new[] has allocated, or something else.
  std::uintptr_t* returnAddress = nullptr;
  enum class Result : unsigned char { unknown, memory, object, array } result = Result::unknown;
  /// Whether all frames could be looked at, and one of them was that of a diverted call. Set for
  /// every kind.
  bool sawAll = false;
  bool sawDiversion = false;
  /// Tells calls of the innermost function with something to destroy apart; 0: there is none.
  /// What the C library calls is passed over when there is such a function further out. Set for
  /// every kind.
  std::uintptr_t anchor = 0;
};

/// Finds out where the runtime's functions are that need care, before a thread starts that can be
/// asked to end. The loader is asked: no lock of the process (AcrossFork.h) may be held, since a
/// thread that loads a module may wait for it in a constructor.
void learnRuntime();

/// Whether the stack can be looked at from an instruction that a signal has interrupted: there
/// may be no code, after a call through a wild pointer.
[[nodiscard]] bool canLookFrom(const void* instruction) noexcept;

/// Looks at all frames from the place of the signal that is being handled, or from the caller
/// when there is none, to the outermost. canLookFrom() holds for that place.
/// \param entryFrame frame address of the thread's entry function, which must be found; null:
///   not asked for.
[[nodiscard]] WayOut findWayOut(const void* entryFrame);

/// Whether the stack can be unwound from the caller, a function that may throw; its own callers
/// are looked at in the same way.
[[nodiscard]] bool canLeaveCall(const void* entryFrame);
