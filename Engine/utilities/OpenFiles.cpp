#include "Engine/utilities/OpenFiles.h"

#include <sys/stat.h>

#include "Engine/internal/FixedLayout.h"
#include "Engine/internal/ProcessWide.h"
#include "Engine/utilities/KeepErrno.h"

// The engine knows this layout: docs/contract.md.
CUL_FIXED_SIZE(OpenFiles, 32);

namespace {

constexpr unsigned int initialCapacity = 16;
constexpr unsigned short growth = 8;
constexpr int lastDescriptor = 16;

constinit ProcessWide<const OpenFiles> theInitialFiles;

}  // namespace

OpenFiles::OpenFiles() : List<bool>(initialCapacity, nullptr, growth) {
  const KeepErrno kept;
  for (int descriptor = 0; descriptor <= lastDescriptor; ++descriptor) {
    struct stat status = {};
    add(fstat(descriptor, &status) == 0);
  }
}

const OpenFiles& OpenFiles::initialOpenFiles() {
  return theInitialFiles.get([] { return new OpenFiles; });
}
