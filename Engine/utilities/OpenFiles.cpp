#include "Engine/utilities/OpenFiles.h"

#include <atomic>
#include <sys/stat.h>

#include "Engine/internal/FixedLayout.h"
#include "Engine/utilities/KeepErrno.h"

// The engine knows this layout: docs/contract.md.
CUL_FIXED_SIZE(OpenFiles, 32);

namespace {

constexpr unsigned int initialCapacity = 16;
constexpr unsigned short growth = 8;
constexpr int lastDescriptor = 16;

constinit std::atomic<const OpenFiles*> theInitialFiles = nullptr;

}  // namespace

OpenFiles::OpenFiles() : List<bool>(initialCapacity, nullptr, growth) {
  const KeepErrno kept;
  for (int descriptor = 0; descriptor <= lastDescriptor; ++descriptor) {
    struct stat status = {};
    add(fstat(descriptor, &status) == 0);
  }
}

const OpenFiles& OpenFiles::initialOpenFiles() {
  const OpenFiles* files = theInitialFiles.load(std::memory_order_acquire);
  if (files == nullptr) [[unlikely]] {
    files = new OpenFiles;
    theInitialFiles.store(files, std::memory_order_release);
  }
  return *files;
}
