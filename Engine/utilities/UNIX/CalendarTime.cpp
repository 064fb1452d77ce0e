#include "Engine/utilities/UNIX/CalendarTime.h"

#include <mutex>

#include "Engine/utilities/AcrossFork.h"
#include "Engine/utilities/UNIX/HoldRequests.h"

namespace {

constinit std::mutex localTimeMutex;

}  // namespace

bool toLocalTime(std::time_t time, std::tm& fields) noexcept {
  const HoldRequests hold;
  const std::lock_guard lock(localTimeMutex);
  return localtime_r(&time, &fields) != nullptr;
}

std::time_t fromLocalTime(std::tm& fields) noexcept {
  const HoldRequests hold;
  const std::lock_guard lock(localTimeMutex);
  return mktime(&fields);
}

bool AcrossFork::holdLocalTime() noexcept {
  localTimeMutex.lock();
  return true;
}

void AcrossFork::releaseLocalTime() noexcept { localTimeMutex.unlock(); }
