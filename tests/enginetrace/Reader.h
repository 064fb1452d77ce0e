#pragma once

#include <csignal>
#include <ctime>
#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <string>
#include <sys/stat.h>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/Child.h"
#include "tests/support/TemporaryFolder.h"
#include "tests/support/Terminal.h"
#include "tests/support/WaitUntil.h"

/// \file
/// The reader of traces that was built with the tests.

/// Its path.
extern const char* const reader;

/// Runs it with these arguments.
inline ChildResult runReader(std::vector<std::string> words, const ChildOptions& options = {}) {
  words.insert(words.begin(), reader);
  return runProgram(words, options);
}

/// What it says on standard error.
inline std::string said(const std::string& text, const std::string& end = "\n") {
  return "enginetrace: " + text + end;
}

/// Says that a file was written last at some time of this day.
inline void setWritten(const std::string& file, int hour, int minute, int second) {
  const std::time_t now = std::time(nullptr);
  std::tm parts = {};
  localtime_r(&now, &parts);
  parts.tm_hour = hour;
  parts.tm_min = minute;
  parts.tm_sec = second;
  const timespec times[2] = {{std::mktime(&parts), 1}, {std::mktime(&parts), 1}};
  EXPECT_EQ(utimensat(AT_FDCWD, file.c_str(), times, 0), 0);
}

/// Whether a file ends in a text. Fast, however long the file is.
inline bool endsWith(const std::string& file, const std::string& end) {
  std::ifstream stream(file, std::ios::binary);
  stream.seekg(-static_cast<std::streamoff>(end.size()), std::ios::end);
  return std::string(std::istreambuf_iterator<char>(stream), {}) == end;
}

/// A reader that goes on, whose output is a file.
class RunningReader {
 public:
  explicit RunningReader(std::vector<std::string> words) {
    words.insert(words.begin(), reader);
    const int out = open(output().c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    terminal_.startProgram(words, {.out = out});
    close(out);
  }

  /// The file with all that it has written to standard output.
  [[nodiscard]] std::string output() const { return folder_.file("output"); }
  [[nodiscard]] std::string written() const { return contentsOf(output()); }

  /// Waits until its output ends in a text.
  void waitFor(const std::string& end) const {
    EXPECT_TRUE(waitUntil([&] { return endsWith(output(), end); })) << written().substr(0, 2000);
  }

  /// Interrupts it, or what it is ended by.
  /// \return what it has said on standard error.
  std::string end(int signal = SIGINT) {
    terminal_.send(signal);
    EXPECT_EQ(terminal_.wait(), 128 + signal);
    return terminal_.readToTheEnd();
  }

  Terminal& terminal() { return terminal_; }

 private:
  TemporaryFolder folder_;
  Terminal terminal_;
};
