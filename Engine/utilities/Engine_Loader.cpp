#include "Engine/utilities/Engine_Loader.h"

#include <atomic>

#include "Engine/utilities/UNIX/UNIX_Engine_Loader.h"

Engine_Loader* Engine_Loader::instance() {
  static std::atomic<Engine_Loader*> loader = nullptr;
  Engine_Loader* made = loader.load(std::memory_order_acquire);
  if (made == nullptr) {
    made = new UNIX_Engine_Loader;
    loader.store(made, std::memory_order_release);
  }
  return made;
}
