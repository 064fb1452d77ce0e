#pragma once

#include "Engine/utilities/Export.h"
#include "Engine/utilities/UNIX/UNIX_Installpath.h"

/// \file
/// Finds the executable of this process through the process file system.

class CUL_EXPORT LINUX_Installpath : public UNIX_Installpath {
 public:
  /// Follows "/proc/<process>/exe". Without /proc the location stays empty.
  LINUX_Installpath();
};
