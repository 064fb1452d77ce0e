#include "Engine/internal/CalendarTime.h"

#include "Engine/internal/AcrossFork.h"
#include "Engine/internal/LeafLock.h"

namespace {

constinit std::mutex localTimeMutex;

}  // namespace

bool toLocalTime(std::time_t time, std::tm& fields) noexcept {
  const LeafLock lock(localTimeMutex);
  return localtime_r(&time, &fields) != nullptr;
}

std::time_t fromLocalTime(std::tm& fields) noexcept {
  const LeafLock lock(localTimeMutex);
  return mktime(&fields);
}

bool AcrossFork::holdLocalTime() noexcept {
  localTimeMutex.lock();
  return true;
}

void AcrossFork::releaseLocalTime() noexcept { localTimeMutex.unlock(); }
