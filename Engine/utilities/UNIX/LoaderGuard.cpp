#include "Engine/utilities/UNIX/LoaderGuard.h"

#include "Engine/utilities/AcrossFork.h"
#include "Engine/utilities/UNIX/ProcessLock.h"

namespace {

constinit ProcessLock loaderLock;

}  // namespace

LoaderGuard::LoaderGuard(const char* function, unsigned int line)
    : guard_(loaderLock.get(), function, line) {}

bool AcrossFork::holdLoader() noexcept {
  UNIX_Critical_Section* const lock = loaderLock.present();
  if (lock != nullptr) {
    lock->request("bool AcrossFork::holdLoader()", __LINE__);
  }
  return lock != nullptr;
}

void AcrossFork::releaseLoader() noexcept {
  loaderLock.get().release("void AcrossFork::releaseLoader()", __LINE__);
}
