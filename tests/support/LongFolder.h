#pragma once

#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

/// Makes folders in the working directory, whose path is `start`, one in another, and enters
/// them, until the path of the working directory has `length` bytes. For child cases.
inline void enterFolders(const std::string& start, size_t length) {
  constexpr size_t longest = 200;
  for (size_t now = start.size(); now < length;) {
    const size_t left = length - now - 1;
    // What is left needs room for a "/" and a name.
    const size_t step = left <= longest ? left : left == longest + 1 ? left - 2 : longest;
    const std::string name(step, 'd');
    ASSERT_EQ(mkdir(name.c_str(), 0755), 0);
    ASSERT_EQ(chdir(name.c_str()), 0);
    now += step + 1;
  }
}
