#pragma once

#include <string>

#include "Engine/utilities/ByteString.h"
#include "Engine/utilities/Descriptor.h"

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
  /// Made before the program is started on the console.
  /// \throws StdException when there is no descriptor left.
  ConsoleSession(const StdioPipes& console, UserTerminal& terminal, const HostEvents& events);
  ConsoleSession(const ConsoleSession&) = delete;
  ConsoleSession& operator=(const ConsoleSession&) = delete;

  /// Goes on until the program has ended, and what it has printed has been shown, or the
  /// host has to end.
  /// \return 0, or the signal by which the host has to end.
  int run();

  /// The number of bytes that the program has printed so far.
  [[nodiscard]] unsigned long relayed() const noexcept { return relayed_; }

 private:
  int handle(int signal);
  void comeBack();
  void resize() const;
  bool takeInput();
  void giveInput();
  bool takeOutput();
  bool showOutput();

  const StdioPipes& console_;
  UserTerminal& terminal_;
  const HostEvents& events_;
  int master_;
  Descriptor slave_;
  Descriptor screen_;
  ByteString typed_;         // not yet taken by the console
  std::string printed_;      // not yet taken by the user's terminal
  bool isAway_ = true;       // the terminal is still to be taken
  bool wasStopped_ = false;  // in the background, and not continued since
  bool hasEnded_ = false;    // the program
  unsigned long relayed_ = 0;
  unsigned long mostRelayed_ = ~0UL;
};
