#pragma once

#include "Engine/utilities/Export.h"

/// \file
/// A pipe between the engine and a child process.
///
/// Both ends are blocking and close-on-exec until one is handed to a child with
/// childReadHandle() or childWriteHandle(). A pipe owns its two descriptors and is not
/// copyable.
///
/// Every failing system call (except `close`) is traced under "ERROR" and thrown as a
/// StdException with status -1; the descriptors stay open.
///
/// One thread may read while another writes. write() ignores SIGPIPE meanwhile, and signal
/// dispositions belong to the whole process: when several threads write to pipes at once,
/// one may restore the caller's disposition while another still writes. Such a process
/// ignores SIGPIPE throughout, as registerErrorHandlers() does.

class ByteString;

/// A file descriptor, -1 when closed.
using HANDLE = int;

class CUL_EXPORT StdPipe {
 public:
  /// Opens the pipe.
  /// \throws StdException "pipe() failed" when no descriptor is left, and as childReadHandle()
  ///         when an end cannot be set up; both are closed then.
  StdPipe();
  StdPipe(const StdPipe&) = delete;
  StdPipe& operator=(const StdPipe&) = delete;
  /// Closes both ends.
  ~StdPipe();

  /// \name Closing
  /// Closes one end, whose handle is -1 afterwards.
  /// \return the result of `close`: 0, or -1 with `errno` set, as for an end closed already.
  /// @{
  int closeReadHandle();
  int closeWriteHandle();
  /// @}

  /// \name Handing over
  /// Makes one end blocking and inheritable, for a child that is started afterwards.
  /// \return the end's handle, which still belongs to the pipe.
  /// \throws StdException "::fcntl(F_GETFL) failed" for an end that is closed; "::fcntl(F_SETFL)
  ///         failed" or "::fcntl(F_SETFD) in setClose() failed" when it cannot be changed.
  /// @{
  HANDLE childReadHandle();
  HANDLE childWriteHandle();
  /// @}

  /// Writes all of `length` bytes, with SIGPIPE ignored meanwhile. Blocks while the pipe is
  /// full.
  /// \return `length`; 0 bytes make no system call.
  /// \throws StdException "write() failed" when the reader is gone, when a signal handler
  ///         interrupts before a byte is written, or on any other error; part of the data
  ///         may have been written.
  int write(const void* data, unsigned int length) const;

  /// Waits for the first byte, then takes what else is there, up to `maximum` bytes more.
  ///
  /// The second step spins without sleeping until another byte or the end of the file
  /// arrives: a caller that relays output as it comes asks the kernel first how much is
  /// there (FIONREAD) and reads just that.
  /// \param out     replaced by the bytes read; empty at the end of the file.
  /// \param maximum of the second step, in bytes.
  /// \return the bytes taken in the second step plus 1, also at the end of the file; always
  ///         0 for a `maximum` of 0, also when a byte was stored. Callers rely on `out`.
  /// \throws StdException "read() failed", or "::fcntl(F_GETFL) failed" for a closed end; `out`
  ///         is as it was, or has the first byte when the second step fails. The end, which is
  ///         non-blocking during that step, may stay so until the next read().
  /// \throws std::bad_alloc when there is no memory for `maximum` bytes; the first byte, which
  ///         has been taken, is in `out`. Nor are the bytes of the second step kept when there
  ///         is none for the text of both.
  int read(ByteString& out, unsigned int maximum) const;

  /// \name Handles
  /// The descriptor of one end, which still belongs to the pipe; -1 once it is closed.
  /// @{
  [[nodiscard]] HANDLE readHandle() const noexcept { return readHandle_; }
  [[nodiscard]] HANDLE writeHandle() const noexcept { return writeHandle_; }
  /// @}

 private:
  HANDLE readHandle_ = -1;
  HANDLE writeHandle_ = -1;
  [[maybe_unused]] int reserved_ = 0;  // read by nobody; kept (docs/contract.md)
};
