#pragma once

#include <csignal>

/// \file
/// A second stack for the handlers of faults, which a thread whose own stack has run over
/// could not call otherwise.
///
/// A stack that the thread has already is left in force. Without memory there is no second
/// stack, and a thread whose stack runs over ends the process by the signal. A handler may
/// leave by a jump: the stack is as new then.

class AlternateStack {
 public:
  /// Gives the calling thread its second stack. Must be destroyed on the same thread.
  AlternateStack() noexcept;
  AlternateStack(const AlternateStack&) = delete;
  AlternateStack& operator=(const AlternateStack&) = delete;
  /// Takes the stack out of use and gives its memory back.
  ~AlternateStack();

  /// Bytes of a stack. Room for a report with a trace that is only opened by it, and for the
  /// program's exit handlers; what is not used takes no memory.
  static constexpr std::size_t size = 262144;

 private:
  void* memory_;  // a page that allows nothing, and the stack above it; null: none
};
