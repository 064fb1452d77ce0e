#pragma once

#include "Engine/utilities/ByteString.h"
#include "Engine/utilities/Export.h"
#include "Engine/utilities/StdioPipes.h"

/// \file
/// The debuggee's console on a pseudo-terminal.
///
/// When a standard stream of the debugger is a terminal, the debugger opens a pseudo-terminal
/// and keeps its master side; the slave side becomes the controlling terminal and the standard
/// streams of the debuggee, with echo off and with the debugger's window size. A standard
/// stream of the debugger that is no terminal, but a file or a pipe, is handed to the debuggee
/// as a duplicate instead. Without any terminal there is no console, only duplicates.
///
/// **Starting a debuggee.** The console is made in the debugger. The forked child then asks
/// for its three descriptors, puts them in the place of its standard streams and starts the
/// program:
/// \code
///   if (fork() == 0) {
///     const HANDLE in = console.childReadHandle();
///     const HANDLE out = console.childWriteHandle(StdioPipes::StdOutput);
///     const HANDLE error = console.childWriteHandle(StdioPipes::StdError);
///     dup2(in, 0);
///     dup2(out, 1);
///     dup2(error, 2);
///     execv(path, arguments);
///     _exit(1);
///   }
/// \endcode
/// The child must not lead a process group: it is to become the leader of a session. Every
/// descriptor of the console is close-on-exec, so that no program inherits it unasked; `dup2`
/// clears that for the standard stream. The debugger's own three standard streams must be open
/// when the console is made, else the master takes the number of one of them. What is typed
/// before the child has set its side up is echoed.
///
/// **Ownership.** The object owns its descriptors: master, slave and one duplicate per
/// redirected stream. The debuggee's terminal hangs up when the master is closed. The
/// attributes and the window size that are handed on are records of the process, shared by all
/// its consoles.
///
/// **Failure.** No failing system call throws: it is traced under "ERROR" and leaves the object
/// without a console, and the debuggee with the streams it was given.

struct termios;
struct winsize;

class CUL_EXPORT UNIXStdioPipes : public StdioPipes {
 public:
  /// Opens the pseudo-terminal, when one of the three standard streams is a terminal. Attributes
  /// and window size are those of the first stream that can tell both.
  UNIXStdioPipes();

  /// closePipes(), and closes the duplicates.
  ~UNIXStdioPipes() override;

  /// Drops what waits in the pseudo-terminal in either direction and closes it. The
  /// duplicates of redirected streams stay.
  void closePipes() override;

  /// Makes the pseudo-terminal the controlling terminal of the calling process, which becomes
  /// the leader of a session. For the forked child only: it gives up the master.
  /// \return the slave's descriptor, the same for every call; -1 without a console, and when
  ///         it could not be set up, for which there is no second attempt.
  int slaveHandle();

  /// For the forked child.
  /// \return when the debugger's input is a terminal, slaveHandle(), or 0 when that failed;
  ///         else a duplicate of the debugger's input, rewound to its start. Rewinding moves
  ///         the debugger's own position, too. -1 when there is no input to duplicate.
  [[nodiscard]] HANDLE childReadHandle() override;

  /// For the forked child.
  /// \return when the debugger's `stream` is a terminal, slaveHandle(), or the stream's own
  ///         number when that failed; else a duplicate of the stream, with the file behind it
  ///         emptied and rewound. -1 for StdInput and for what is no stream, and when there is
  ///         nothing to duplicate.
  [[nodiscard]] HANDLE childWriteHandle(StdFileHandle stream) override;

  /// \return the master when the debugger's `stream` is a terminal, else the duplicate that
  ///         childWriteHandle() made in this process; -1 when there is none.
  /// \throws StdException "invalid call", status -1, for StdInput and for what is no stream.
  [[nodiscard]] HANDLE readHandle(StdFileHandle stream) const override;

  /// \return the master when the debugger's input is a terminal, else the duplicate that
  ///         childReadHandle() made in this process; -1 when there is none.
  [[nodiscard]] HANDLE writeHandle() const override;

  /// One `write` to the master, which waits when the debuggee does not read and may take
  /// less than `length` bytes.
  /// \return the bytes taken; 0 without a console and on any failure.
  int write(const void* data, unsigned int length) const override;

  /// Takes what waits in the master. Never waits. Zero bytes are dropped and do not count.
  /// Output and error that go to the terminal are one stream: either name reads it.
  /// \return the length of `out`; 0 when `stream` is redirected, is StdInput or no stream.
  int read(StdFileHandle stream, ByteString& out, unsigned int maximum) const override;

  using StdioPipes::read;
  using StdioPipes::write;

  /// Closes `copy` unless it is negative and replaces it by a duplicate of `fd`, close-on-exec
  /// and, where `fd` can be positioned, at its start.
  /// \return `copy`: -1 when `fd` cannot be duplicated.
  static int dupAndRewind(int& copy, int fd);

  /// dupAndRewind(), and empties the file.
  static int dupAndTruncate(int& copy, int fd);

 private:
  ByteString slaveName_;
  // Not owned: records that all consoles share; null while they are not read.
  termios* savedAttributes_ = nullptr;
  winsize* savedWindowSize_ = nullptr;
  int masterHandle_ = -1;
  int slaveHandle_ = -1;
  int inputCopy_ = -1;
  int outputCopy_ = -1;
  int errorCopy_ = -1;
  unsigned char noConsole_ = 1;
  unsigned char inputIsTerminal_;
  unsigned char outputIsTerminal_;
  unsigned char errorIsTerminal_;

  void saveTerminal();
  void openConsole();
};
