#pragma once

#include <atomic>
#include <cstdint>

#include "Engine/utilities/ByteString.h"
#include "Engine/utilities/Export.h"

/// \file
/// Prints a chain of calls with the source location of each, as far as a module that knows
/// them is installed.
///
/// Locations come from the entry "whereis" of the library "liblibkdebug.a.so", which is
/// looked up once, by the first sourceLoc(). A traceback goes to the trace when tracing is
/// on; but until that first look-up its lines go to standard error, so the header of a
/// process's first traceback is found there and the rest of it in the trace.
///
/// Locations are asked for with the trace paused, and a pause belongs to one controlling
/// thread: while tracing is on, one thread at a time takes locations and tracebacks.
/// callerReturnAddress() is for any thread. Nothing here follows a frame pointer: calls are
/// found by the unwind information of the code, so code compiled without frame pointers
/// counts like any other, and code without unwind information ends the chain.

template <class T>
class ProcessWide;

class CUL_EXPORT TraceStack {
 public:
  /// One call of a chain. The calling frame lies at a higher address.
  struct FRAME {
    std::uint64_t address;  ///< In the code.
    FRAME* next;            ///< The calling frame; null ends the chain.
  };

  /// The process's one instance, made by the first call and never destroyed. Works from
  /// static constructors.
  [[nodiscard]] static TraceStack& instance();

  TraceStack(const TraceStack&) = delete;
  TraceStack& operator=(const TraceStack&) = delete;

  /// Where `address` lies in the source: "a", "a:b" or "a:b:c(line)", with as much as is
  /// known and each part without its folder; empty when nothing is. The first call of the
  /// process loads the library, and reports on standard error when it cannot.
  /// A thread that is asked to end in here ends when the location is there.
  [[nodiscard]] ByteString sourceLoc(unsigned long address);

  /// Prints `frame` and the frames that called it, one per line, until the chain ends or
  /// does not rise.
  /// \param frame null: prints an empty chain.
  void traceback(FRAME* frame);

  /// Prints the calls that led here, beginning with the caller's. At most 8192 are printed.
  void dumpStack();

  /// Where the function that calls this one will return to; with the environment variable
  /// "QVX_DBG_FRAME_ADD_DISABLE" set to 1 at the first call of the process, where this
  /// function itself returns to. 0 when that is not known. Any thread.
  [[nodiscard]] static unsigned long callerReturnAddress();

 private:
  // Fills in the line and three texts about a place in the code, and tells which of them.
  using Whereis = int (*)(unsigned long address, unsigned* line, char* first,
                          unsigned long firstSize, char* second, unsigned long secondSize,
                          char* third, unsigned long thirdSize);

  TraceStack() = default;
  ~TraceStack() = default;
  template <class T>
  friend class ProcessWide;

  Whereis lookUp();
  [[nodiscard]] bool goesToTrace() const noexcept;
  void print(unsigned line, const char* text) const;
  void printFrame(const FRAME& frame);

  std::atomic<Whereis> whereis_ = nullptr;
  std::atomic<unsigned char> lookedUp_ = 0;
};
