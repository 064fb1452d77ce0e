#include "tests/processes/SpawnedProcessSupport.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <sys/wait.h>

bool hasNoChildren() {
  siginfo_t ignored;
  return waitid(P_ALL, 0, &ignored, WEXITED | WNOHANG | WNOWAIT) == -1 && errno == ECHILD;
}

std::vector<std::string> targetsOfDescriptors() {
  std::vector<std::string> result;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code gone;
    const std::string target = std::filesystem::read_symlink(entry.path(), gone).string();
    // The folder's own descriptor is one, too.
    if (target.find("/proc/") != 0) {
      result.push_back(entry.path().filename().string() + " " + target);
    }
  }
  std::sort(result.begin(), result.end());
  return result;
}

size_t threadCount() {
  const std::filesystem::directory_iterator threads("/proc/self/task");
  return static_cast<size_t>(std::distance(begin(threads), end(threads)));
}
