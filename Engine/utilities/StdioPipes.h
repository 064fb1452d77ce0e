#pragma once

#include "Engine/utilities/Export.h"
#include "Engine/utilities/StdPipe.h"

/// \file
/// The console of the debuggee, the program being debugged: what the engine types into it
/// and what it prints.
///
/// This is the portable interface; the console of this platform, and with it everything
/// that an operation promises, is UNIXStdioPipes. A console belongs to the thread that starts
/// and talks to the debuggee: an object is used by one thread at a time, except that one may
/// write while another reads.

class ByteString;

class CUL_EXPORT StdioPipes {
 public:
  /// A standard stream of the debuggee, as its descriptor number.
  enum StdFileHandle : int { StdInput = 0, StdOutput = 1, StdError = 2 };

  /// The console of this process, made by the first call from the standard streams as they
  /// are then; that call belongs on the main thread before a second thread exists. It works
  /// before main and is never destroyed.
  [[nodiscard]] static StdioPipes* instance();

  StdioPipes(const StdioPipes&) = delete;
  StdioPipes& operator=(const StdioPipes&) = delete;
  virtual ~StdioPipes() = default;

  /// Gives up the connection with the debuggee. Here: nothing.
  virtual void closePipes();

  /// The descriptor that becomes the debuggee's standard input. Called in the debuggee.
  [[nodiscard]] virtual HANDLE childReadHandle() = 0;

  /// The descriptor that becomes the debuggee's standard output or standard error. Called in
  /// the debuggee.
  [[nodiscard]] virtual HANDLE childWriteHandle(StdFileHandle stream) = 0;

  /// Where the engine finds what the debuggee prints on `stream`.
  [[nodiscard]] virtual HANDLE readHandle(StdFileHandle stream) const = 0;

  /// Where the engine types for the debuggee.
  [[nodiscard]] virtual HANDLE writeHandle() const = 0;

  /// Types `length` bytes for the debuggee.
  /// \return how many were taken, 0 on any failure.
  virtual int write(const void* data, unsigned int length) const = 0;

  /// Types the bytes of `data`.
  int write(const ByteString& data) const;

  /// Takes what the debuggee has printed on a stream, without waiting.
  /// \param stream  StdOutput or StdError.
  /// \param out     replaced by the bytes.
  /// \param maximum in bytes.
  /// \return the number of bytes.
  virtual int read(StdFileHandle stream, ByteString& out, unsigned int maximum) const = 0;

  /// The same, into `buffer` of at least `maximum` bytes; no zero byte is put behind them.
  int read(StdFileHandle stream, void* buffer, unsigned int maximum) const;

 protected:
  StdioPipes() = default;
};
