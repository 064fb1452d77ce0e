#include "Engine/utilities/InstallPath.h"

#include "Engine/internal/ProcessWide.h"
#include "Engine/utilities/UNIX/LINUX_Installpath.h"

InstallPath* InstallPath::instance() {
  static constinit ProcessWide<InstallPath> location;
  return &location.get([] { return new LINUX_Installpath; });
}
