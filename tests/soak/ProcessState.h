#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <vector>

/// \file
/// What a process uses, looked at from inside once a second, and whether that grows.

/// What this process uses now.
struct Usage {
  double seconds = 0;           ///< Since the beginning of the soak.
  unsigned long resident = 0;   ///< Memory, in kilobytes.
  std::size_t descriptors = 0;  ///< Open ones, without those that the look itself takes.
  std::size_t threads = 0;
  std::size_t children = 0;  ///< With zombies.
  std::size_t zombies = 0;
};

/// \throws std::filesystem::filesystem_error when "/proc" cannot be read, as below.
[[nodiscard]] Usage usageNow();

/// What a process has open, by descriptor; how its threads and its children are called, by id.
struct Belongings {
  std::map<int, std::string> descriptors;
  std::map<int, std::string> threads;
  std::map<int, std::string> children;
};

[[nodiscard]] Belongings belongingsNow();

/// What is there now and was not before, one line for each; empty when nothing is left.
[[nodiscard]] std::string leftovers(const Belongings& before, const Belongings& now);

/// How much more the last third of a soak may use than the middle one, each as its median. The
/// first third is the time to warm up.
struct Margin {
  unsigned long resident = 256;  ///< Kilobytes.
  std::size_t descriptors = 4;
  // Each program, debuggee and forked child that is alive at the moment, and its thread.
  std::size_t threads = 20;
  std::size_t children = 20;
};

/// The two medians of one kind of usage.
struct Thirds {
  const char* name;
  unsigned long middle;
  unsigned long last;
  unsigned long margin;
  [[nodiscard]] bool isFlat() const { return last <= middle + margin; }
};

/// One entry for each kind, under sanitizers without the memory; empty when there are fewer than
/// nine looks.
[[nodiscard]] std::vector<Thirds> thirdsOf(const std::vector<Usage>& looks,
                                           const Margin& margin = {});
