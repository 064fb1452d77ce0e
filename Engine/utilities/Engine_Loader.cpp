#include "Engine/utilities/Engine_Loader.h"

#include "Engine/internal/ProcessWide.h"
#include "Engine/utilities/UNIX/UNIX_Engine_Loader.h"

Engine_Loader* Engine_Loader::instance() {
  static constinit ProcessWide<Engine_Loader> loader;
  return &loader.get([] { return new UNIX_Engine_Loader; });
}
