#pragma once

#include <optional>
#include <string>
#include <sys/types.h>
#include <termios.h>
#include <vector>

#include "tests/support/Child.h"

/// \file
/// A real pseudo-terminal for what behaves differently on a terminal.
///
/// The process started on it is the leader of a session of its own, in the foreground, with
/// this terminal as its controlling terminal and, where the test says nothing else, as its
/// three standard streams:
/// \code
///   Terminal terminal({.rows = 30, .columns = 100});
///   terminal.startProgram({"/bin/sh", "-c", "read line; echo \"got $line\""});
///   terminal.type("hello\n");
///   EXPECT_THAT(terminal.readUntil("got "), HasSubstr("got hello"));
///   EXPECT_EQ(terminal.wait(), 0);
/// \endcode
/// A terminal translates: what a program prints with "\n" is seen with "\r\n", and what is
/// typed is seen as well while echo is on. No other descriptor is inherited. Failures of the
/// terminal itself fail the test.

struct TerminalSize {
  unsigned short rows = 24;
  unsigned short columns = 80;

  bool operator==(const TerminalSize&) const = default;
};

/// How a process is started on a terminal.
struct TerminalOptions {
  /// Descriptors of this process in place of the terminal for single streams; -1 closes the
  /// stream.
  std::optional<int> in = {};
  std::optional<int> out = {};
  std::optional<int> error = {};
  /// On top of the minimal environment of Child.h; TERM is not set.
  std::map<std::string, std::string> environment = {};
  /// Working directory; empty: the parent's.
  std::string directory = {};
  /// Passed to a child case, see childArguments().
  std::vector<std::string> arguments = {};
};

class Terminal {
 public:
  explicit Terminal(TerminalSize size = {});
  Terminal(const Terminal&) = delete;
  Terminal& operator=(const Terminal&) = delete;
  /// Kills the process if it still runs, with its process group, and reaps it.
  ~Terminal();

  /// Starts the child case `name`, see Child.h. One process per terminal.
  void startChild(const std::string& name, const TerminalOptions& options = {});

  /// Starts a program by its path; `command[0]` is the program.
  void startProgram(const std::vector<std::string>& command, const TerminalOptions& options = {});

  /// The started process, which is also the leader of its session.
  [[nodiscard]] pid_t process() const { return process_; }

  /// The path of the slave side.
  [[nodiscard]] const std::string& name() const { return name_; }

  /// Types at the keyboard.
  void type(const std::string& text);

  /// Reads until `text` stands in what came since the end of the previous match.
  /// \return everything seen since the start. When the text does not appear before the
  ///         terminal hangs up or the limit passes, the test fails.
  std::string readUntil(const std::string& text, unsigned limitInSeconds = 60);

  /// Reads until the last process has let go of the terminal.
  /// \return everything seen since the start.
  std::string readToTheEnd(unsigned limitInSeconds = 60);

  /// Everything seen up to now, without reading.
  [[nodiscard]] const std::string& seen() const { return seen_; }

  /// Changes the size; processes in the foreground get SIGWINCH when it differs.
  void resize(TerminalSize size);
  [[nodiscard]] TerminalSize size() const;

  [[nodiscard]] termios modes() const;
  void setModes(const termios& modes);
  [[nodiscard]] bool echoes() const { return (modes().c_lflag & tcflag_t{ECHO}) != 0; }

  /// The foreground process group, 0 when there is none.
  [[nodiscard]] pid_t foregroundGroup() const;

  /// Sends a signal to the process.
  void send(int signal) const;

  /// Waits for the end of the process, reading meanwhile what it prints.
  /// \return its exit status, or 128 + the signal that killed it.
  int wait(unsigned limitInSeconds = 60);

  /// Pulls the plug: closes the master, so that the session gets SIGHUP and reads the end of
  /// the file. What waits to be read is read before.
  void hangUp();

 private:
  bool readMore(int limitInMilliseconds);
  bool reap(int options);

  int master_ = -1;
  // Held until the process has the slave: a slave that was never open looks like hung up.
  int slave_ = -1;
  bool hasEnded_ = false;
  pid_t process_ = -1;
  std::optional<int> status_;
  std::string name_;
  std::string seen_;
  size_t matched_ = 0;
};

/// What a terminal shows when a program prints `text`: each "\n" becomes "\r\n".
std::string asShown(const std::string& text);
