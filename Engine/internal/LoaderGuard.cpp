#include "Engine/internal/LoaderGuard.h"

#include "Engine/internal/AcrossFork.h"
#include "Engine/internal/ProcessLock.h"

namespace {

constinit ProcessLock loaderLock;

}  // namespace

LoaderGuard::LoaderGuard(const char* function, unsigned int line)
    : guard_(loaderLock.get(), function, line) {}

bool AcrossFork::holdLoader() noexcept {
  // Made now if it was not there, or another thread might make and take it before the fork.
  loaderLock.get().request("bool AcrossFork::holdLoader()", __LINE__);
  return true;
}

void AcrossFork::releaseLoader() noexcept {
  loaderLock.get().release("void AcrossFork::releaseLoader()", __LINE__);
}
