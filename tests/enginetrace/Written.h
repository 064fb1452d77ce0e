#pragma once

#include <functional>
#include <string>
#include <sys/mman.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "programs/enginetrace/Line.h"
#include "programs/enginetrace/Output.h"

/// \file
/// Lines that tests make, and what writers make of them.

/// What `write` puts out.
inline std::string written(const std::function<void(Output&)>& write) {
  const int descriptor = memfd_create("written", MFD_CLOEXEC);
  Output output(descriptor);
  write(output);
  output.flush();
  std::string text(static_cast<std::size_t>(lseek(descriptor, 0, SEEK_CUR)), '\0');
  EXPECT_EQ(pread(descriptor, text.data(), text.size(), 0), static_cast<ssize_t>(text.size()));
  close(descriptor);
  return text;
}

inline Process processOf(const std::string& role, unsigned id) {
  const std::string mark = role + '.' + std::to_string(id);
  return {"/traces/" + mark + ".trc", role, id, mark};
}

inline const Process root = processOf("root", 1234);
inline const Process leaf = processOf("leaf", 1300);

// 2026-11-22 12:23:41.000098
constexpr WallTime noon = 1'795'350'221 * microsecondsPerSecond + 98;

/// A line as a trace has it: its time in the file does not matter to writers.
inline std::string lineOf(std::string thread, const std::string& rest) {
  thread.resize(8, ' ');
  return "12:23:41.000098 (" + thread + ')' + rest;
}
