#pragma once

#include "Engine/utilities/ByteString.h"

#include "HostEvents.h"
#include "UserTerminal.h"

class StdioPipes;

/// \file
/// A user at a terminal and a program on a console, brought together.

/// Hands on what the user types and what the program prints, and the size of the window.
/// Meanwhile the user's terminal is raw: keys such as interrupt and stop act at the console,
/// on the program.
class ConsoleSession {
 public:
  /// The program has been started on the console.
  ConsoleSession(const StdioPipes& console, UserTerminal& terminal, const HostEvents& events);
  ConsoleSession(const ConsoleSession&) = delete;
  ConsoleSession& operator=(const ConsoleSession&) = delete;
  ~ConsoleSession();

  /// Goes on until the program has ended or the host has to.
  /// \return 0, or the signal by which the host has to end.
  int run();

  /// The number of bytes that the program has printed so far.
  [[nodiscard]] unsigned long relayed() const noexcept { return relayed_; }

 private:
  int handle(int signal);
  bool takeInput();
  void giveInput();
  bool relayOutput();
  void relayRest();
  void resize() const;
  void comeBack();

  const StdioPipes& console_;
  UserTerminal& terminal_;
  const HostEvents& events_;
  int master_;
  int slave_;
  ByteString typed_;         // not yet taken by the console
  bool wasStopped_ = false;  // in the background, and not continued since
  unsigned long relayed_ = 0;
};
