#pragma once

#include <dirent.h>
#include <set>
#include <string>

/// The open descriptors of this process.
inline std::set<int> openDescriptors() {
  std::set<int> result;
  DIR* const folder = opendir("/proc/self/fd");
  while (const dirent* const entry = readdir(folder)) {
    if (entry->d_name[0] != '.') {
      result.insert(std::stoi(entry->d_name));
    }
  }
  result.erase(dirfd(folder));
  closedir(folder);
  return result;
}
