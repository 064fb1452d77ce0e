#pragma once

#include <termios.h>

/// \file
/// The terminal at which the user sits.

/// The modes of the terminal on a descriptor. Made raw, every key is handed on as it is
/// typed; the original modes are put back by the destructor, and also when the process
/// ends by exit() or by a signal that has its default action when the object is made, and while
/// such a signal stops the process; when it is continued it gets a SIGCONT, and is to make the
/// terminal raw again. One at a time.
class UserTerminal {
 public:
  /// Reads the modes that restore() puts back. In the background they are the shell's own:
  /// there the process is stopped first until it comes to the foreground.
  explicit UserTerminal(int handle);
  UserTerminal(const UserTerminal&) = delete;
  UserTerminal& operator=(const UserTerminal&) = delete;
  ~UserTerminal();

  /// Does nothing in the background: the terminal is somebody else's then. The same holds for
  /// the others.
  void makeRaw();

  void restore() noexcept;

  /// The process is ending: from now on makeRaw() does nothing. Any thread, and signal handlers
  /// too.
  void restoreForGood() noexcept;

  /// Stops the process, as the system does with one that changes a terminal from the
  /// background. Returns at once when nobody could continue it.
  static void stopInBackground() noexcept;

  /// Whether another process group has the terminal.
  [[nodiscard]] bool isInBackground() const noexcept;

  /// Whether the terminal echoes, in its original modes.
  [[nodiscard]] bool echoes() const noexcept { return (original_.c_lflag & ECHO) != 0; }

 private:
  int handle_;
  bool isRaw_ = false;
  bool isForGood_ = false;
  termios original_ = {};
};
