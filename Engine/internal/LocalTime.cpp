#include "Engine/internal/LocalTime.h"

#include <algorithm>
#include <limits>
#include <unistd.h>

namespace {

constexpr std::time_t day = 86400;
constexpr std::time_t ahead = 400 * day;
constexpr unsigned long farthest = 100 * ahead;
constexpr std::time_t reserve = 366 * day;  // learnt anew when less is left

constexpr std::time_t floorDivide(std::time_t number, std::time_t divisor) {
  return number / divisor - (number % divisor < 0 ? 1 : 0);
}

// Days are counted from 1 March of the year 0, in which a leap day is the last of its year.
constexpr std::time_t daysOf400Years = 146097;
constexpr std::time_t daysToTheEpoch = 719468;

// Days since 1970 of a day of the calendar.
std::time_t dayNumber(std::time_t year, int month, int dayOfMonth) noexcept {
  const std::time_t marchYear = year - (month < 2 ? 1 : 0);
  const std::time_t marchMonth = (month + 10) % 12;
  const std::time_t era = floorDivide(marchYear, 400);
  const std::time_t yearOfEra = marchYear - era * 400;
  return era * daysOf400Years + yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100 +
         (153 * marchMonth + 2) / 5 + dayOfMonth - 1 - daysToTheEpoch;
}

// The calendar's day of a number of days since 1970, in `parts`.
bool setDate(std::time_t number, std::tm& parts) noexcept {
  const std::time_t shifted = number + daysToTheEpoch;
  const std::time_t era = floorDivide(shifted, daysOf400Years);
  const std::time_t dayOfEra = shifted - era * daysOf400Years;
  const std::time_t yearOfEra =
      (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
  const std::time_t dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
  const std::time_t marchMonth = (5 * dayOfYear + 2) / 153;
  parts.tm_mday = static_cast<int>(dayOfYear - (153 * marchMonth + 2) / 5 + 1);
  parts.tm_mon = static_cast<int>((marchMonth + 2) % 12);
  const std::time_t year = era * 400 + yearOfEra + (parts.tm_mon < 2 ? 1 : 0);
  parts.tm_year = static_cast<int>(year - 1900);
  parts.tm_wday = static_cast<int>(number + 4 - floorDivide(number + 4, 7) * 7);
  parts.tm_yday = static_cast<int>(number - dayNumber(year, 0, 1));
  return parts.tm_year == year - 1900;
}

// What localtime_r() adds to `second`. Not tm_gmtoff: zones that count leap seconds add those.
bool offsetOf(std::time_t second, std::time_t& offset) noexcept {
  std::tm parts = {};
  if (localtime_r(&second, &parts) == nullptr) {
    return false;
  }
  const std::time_t days =
      dayNumber(std::time_t{parts.tm_year} + 1900, parts.tm_mon, parts.tm_mday);
  const std::time_t minutes = std::time_t{parts.tm_hour} * 60 + parts.tm_min;
  offset = days * day + minutes * 60 + parts.tm_sec - second;
  return true;
}

}  // namespace

LocalTime::Zone LocalTime::Zone::current() noexcept {
  return {__atomic_load_n(&::timezone, __ATOMIC_RELAXED),
          __atomic_load_n(&::daylight, __ATOMIC_RELAXED),
          {__atomic_load_n(&::tzname[0], __ATOMIC_RELAXED),
           __atomic_load_n(&::tzname[1], __ATOMIC_RELAXED)}};
}

bool LocalTime::breakDown(std::time_t second, std::tm& parts) noexcept {
  parts = {};
  if (!goesByHeart()) {
    keepUp(second);
    const bool isTold = localtime_r(&second, &parts) != nullptr;
    zone_ = Zone::current();
    return isTold;
  }
  if (count_ == 0) {
    return false;
  }
  const std::time_t local = second + offsetAt(second);
  const std::time_t days = floorDivide(local, day);
  if (!setDate(days, parts)) {
    parts = {};
    return false;
  }
  const auto secondOfDay = static_cast<int>(local - days * day);
  parts.tm_hour = secondOfDay / 3600;
  parts.tm_min = secondOfDay / 60 % 60;
  parts.tm_sec = secondOfDay % 60;
  return true;
}

void LocalTime::prepareFork(std::time_t now) noexcept {
  if (count_ != 0 && !goesByHeart()) {
    keepUp(now);
  }
}

// Whether this process is a child that has not had the lock since its fork.
bool LocalTime::goesByHeart() noexcept {
  const pid_t self = getpid();
  if (owner_ == 0) {
    owner_ = self;
  }
  if (self == owner_) {
    return false;
  }
  const Zone zone = Zone::current();
  if (child_ != self) {
    child_ = self;
    zone_ = zone;
  }
  if (zone == zone_) {
    return true;
  }
  owner_ = self;
  return false;
}

void LocalTime::keepUp(std::time_t second) noexcept {
  if (count_ != 0 && second >= first_ && second <= end_ - reserve && Zone::current() == zone_) {
    return;
  }
  // A clock that leaps is not followed day by day.
  const bool leaps =
      second > end_ &&
      static_cast<unsigned long>(second) - static_cast<unsigned long>(end_) > farthest;
  const std::time_t first = count_ == 0 || leaps ? second : std::min(second, first_);
  constexpr std::time_t latest = std::numeric_limits<std::time_t>::max();
  learn(first, second > latest - ahead ? latest : second + ahead);
  // The variables are left as a call for the present leaves them.
  std::tm parts;
  localtime_r(&second, &parts);
  zone_ = Zone::current();
}

// Looks at each day, and for the very second within a day whose two ends differ.
void LocalTime::learn(std::time_t first, std::time_t last) noexcept {
  count_ = 0;
  first_ = first;
  end_ = first;
  std::time_t offset = 0;
  if (!offsetOf(first, offset)) {
    return;
  }
  spans_[count_++] = {first, offset};
  while (end_ < last) {
    std::time_t next = end_ + day;
    std::time_t nextOffset = 0;
    if (!offsetOf(next, nextOffset)) {
      return;
    }
    if (nextOffset != offset) {
      if (count_ == spans_.size()) {
        return;
      }
      for (std::time_t before = end_; next - before > 1;) {
        const std::time_t middle = before + (next - before) / 2;
        std::time_t middleOffset = offset;
        static_cast<void>(offsetOf(middle, middleOffset));
        (middleOffset == offset ? before : next) = middle;
      }
      static_cast<void>(offsetOf(next, offset));
      spans_[count_++] = {next, offset};
    }
    end_ = next;
  }
}

std::time_t LocalTime::offsetAt(std::time_t second) const noexcept {
  unsigned span = count_ - 1;
  while (span > 0 && second < spans_[span].start) {
    --span;
  }
  return spans_[span].offset;
}
