#include "Engine/utilities/InstallPath.h"

#include <atomic>

#include "Engine/utilities/UNIX/LINUX_Installpath.h"

InstallPath* InstallPath::instance() {
  static std::atomic<InstallPath*> location = nullptr;
  InstallPath* made = location.load(std::memory_order_acquire);
  if (made == nullptr) {
    made = new LINUX_Installpath;
    location.store(made, std::memory_order_release);
  }
  return made;
}
