#include "programs/enginetrace/LastChange.h"

#include <ctime>

namespace {

// A trace counts from the whole second in which it began: its lines lag by up to a second.
constexpr WallTime usualLag = 1'500'000;
// The clock by which the kernel dates changes goes in steps.
constexpr WallTime usualLead = 20'000;
// Programs that copy or pack files cut the time of the change to a second, or to two.
constexpr WallTime roundedLead = 2'000'000;

constexpr WallTime justNow = 10 * microsecondsPerSecond;

// Time zones differ by multiples of this.
constexpr WallTime zoneStep = 900 * microsecondsPerSecond;
constexpr WallTime westernmost = -12 * microsecondsPerHour;
constexpr WallTime easternmost = 14 * microsecondsPerHour;

constexpr WallTime timeOfDayAt(WallTime time) noexcept {
  const WallTime rest = time % microsecondsPerDay;
  return rest < 0 ? rest + microsecondsPerDay : rest;
}

}  // namespace

std::int64_t now() noexcept {
  std::timespec time = {};
  clock_gettime(CLOCK_REALTIME, &time);
  return time.tv_sec * microsecondsPerSecond + time.tv_nsec / 1000;
}

LastChange::LastChange(std::int64_t change, std::int64_t now) noexcept
    : isKnown_(change >= 0), lag_(usualLag) {
  const std::time_t second = change / microsecondsPerSecond;
  std::tm parts = {};
  if (isKnown_ && localtime_r(&second, &parts) != nullptr) {
    offset_ = parts.tm_gmtoff * microsecondsPerSecond;
  }
  change_ = change + offset_;
  const bool isJust = now - change < justNow && change - now < justNow;
  lead_ = isJust ? justNow : change % microsecondsPerSecond == 0 ? roundedLead : usualLead;
}

// Counted from the latest that a line can be.
WallTime LastChange::lagOf(WallTime timeOfDay) const noexcept {
  return timeBetween(timeOfDay, timeOfDayAt(change_ + lead_));
}

LastChange::Fit LastChange::fit(WallTime timeOfDay) const noexcept {
  if (!isKnown_) {
    return Fit::none;
  }
  const WallTime lag = lagOf(timeOfDay);
  if (lag <= lead_ + lag_) {
    return Fit::inThisZone;
  }
  return lag % zoneStep <= lead_ + lag_ ? Fit::inOtherZone : Fit::none;
}

std::optional<WallTime> LastChange::dateOf(WallTime timeOfDay) const noexcept {
  const Fit fitting = fit(timeOfDay);
  if (fitting == Fit::none) {
    return std::nullopt;
  }
  const WallTime latest = change_ + lead_;
  const WallTime lag = lagOf(timeOfDay);
  // A zone to the west, unless that is further away than one to the east.
  const WallTime west = fitting == Fit::inThisZone ? 0 : lag - lag % zoneStep;
  const WallTime east = west - microsecondsPerDay;
  const bool isWest = offset_ - west >= westernmost &&
                      (offset_ - east > easternmost || west <= microsecondsPerDay / 2);
  return latest - lag + (isWest ? 0 : microsecondsPerDay);
}
