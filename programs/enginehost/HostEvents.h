#pragma once

#include <csignal>
#include <initializer_list>
#include <vector>

#include "Engine/utilities/Descriptor.h"

/// \file
/// What the host waits for: signals, and the end of the debuggee.

/// A queue of events that can be polled for. While it lives, the given signals are events
/// of the queue instead of doing what they did before. One at a time.
class HostEvents {
 public:
  /// The event that post() is given when the debuggee has ended. All others are signals.
  static constexpr int debuggeeEnded = 0;
  /// Added to a signal that the kernel has sent to the whole process group, as for a key.
  static constexpr int toGroup = 0x80;

  /// \throws StdException when there is no descriptor left.
  HostEvents(std::initializer_list<int> signals);
  HostEvents(const HostEvents&) = delete;
  HostEvents& operator=(const HostEvents&) = delete;
  /// Puts the signals' former actions back.
  ~HostEvents();

  /// A descriptor that is readable while there is an event.
  [[nodiscard]] int handle() const noexcept { return readEnd_.get(); }

  /// Whether there is no event.
  [[nodiscard]] bool isEmpty() const;

  /// The oldest event; waits for one.
  [[nodiscard]] int next() const;

  /// Adds an event. Any thread, and signal handlers too.
  static void post(int event) noexcept;

 private:
  struct Former {
    int signal;
    struct sigaction action;
  };

  Descriptor readEnd_;
  Descriptor writeEnd_;
  std::vector<Former> former_;
};

/// Ends this process with a signal's default action, so that its starter sees the signal.
[[noreturn]] void endBySignal(int signal);
