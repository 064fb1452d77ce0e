#include "Engine/utilities/TimeDateStamp.h"

#include <cstdio>
#include <cstring>
#include <iterator>
#include <limits>

#include "Engine/internal/CalendarTime.h"
#include "Engine/internal/FixedLayout.h"
#include "Engine/utilities/EncodedString.h"

// The engine knows this layout: docs/contract.md.
CUL_FIXED_SIZE(TimeDateStamp, 8);
CUL_FIXED_FIELD(TimeDateStamp, time, 0);

namespace {

constexpr unsigned firstYear = 1900;
constexpr unsigned lastOffsetYear = 200;
constexpr time_t unreadable = -1;

constexpr unsigned wordSize = 20;

constexpr const char* monthNames[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                      "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

bool areSet(const TimeDateStamp& a, const TimeDateStamp& b) noexcept {
  return a.time != 0 && b.time != 0;
}

// The number of the month that ctime() calls `name`, or 0.
unsigned monthNamed(const char* name) noexcept {
  for (unsigned index = 0; index < std::size(monthNames); ++index) {
    if (std::strcmp(monthNames[index], name) == 0) {
      return index + 1;
    }
  }
  return 0;
}

bool readDigits(const char* text, TimeDateStamp& stamp) noexcept {
  unsigned year = 0;
  unsigned month = 0;
  unsigned day = 0;
  unsigned hour = 0;
  unsigned minute = 0;
  unsigned second = 0;
  char rest = 0;
  const int items = std::sscanf(text, "%4u%2u%2u%2u%2u%2u%c", &year, &month, &day, &hour, &minute,
                                &second, &rest);
  if (items != 6) {
    return false;
  }
  stamp = TimeDateStamp(year, month, day, hour, minute, second);
  return true;
}

bool readCtimeText(const char* text, TimeDateStamp& stamp) noexcept {
  char weekday[wordSize];
  char monthName[wordSize];
  int day = 0;
  int hour = 0;
  int minute = 0;
  int second = 0;
  int year = 0;
  const int items = std::sscanf(text, "%19s%19s%d%d:%d:%d %d", weekday, monthName, &day, &hour,
                                &minute, &second, &year);
  const unsigned month = items == 7 ? monthNamed(monthName) : 0;
  if (month == 0) {
    return false;
  }
  stamp = TimeDateStamp(static_cast<unsigned>(year), month, static_cast<unsigned>(day),
                        static_cast<unsigned>(hour), static_cast<unsigned>(minute),
                        static_cast<unsigned>(second));
  return true;
}

}  // namespace

TimeDateStamp::TimeDateStamp(unsigned year, unsigned month, unsigned day, unsigned hour,
                             unsigned minute, unsigned second) noexcept {
  struct tm fields = {};
  fields.tm_year = static_cast<int>(year <= lastOffsetYear ? year : year - firstYear);
  fields.tm_mon = static_cast<int>(month - 1);
  fields.tm_mday = static_cast<int>(day);
  fields.tm_hour = static_cast<int>(hour);
  fields.tm_min = static_cast<int>(minute);
  fields.tm_sec = static_cast<int>(second);
  fields.tm_isdst = 0;  // Kept, also for dates in summer: docs/contract.md.
  time = fromLocalTime(fields);
}

TimeDateStamp::TimeDateStamp(const char* text) noexcept {
  if (text == nullptr || !(readDigits(text, *this) || readCtimeText(text, *this))) {
    time = unreadable;
  }
}

EncodedString TimeDateStamp::asString(bool compact) const {
  long year = 0;
  int month = 0;
  struct tm fields = {};
  if (toLocalTime(time, fields)) {
    year = long{fields.tm_year} + firstYear;
    month = fields.tm_mon + 1;
  } else {
    fields = {};
  }
  const char* format =
      compact ? "%4.4ld%2.2d%2.2d%2.2d%2.2d%2.2d" : "%4.4ld/%2.2d/%2.2d %2.2d:%2.2d:%2.2d";
  char text[96];
  std::snprintf(text, sizeof text, format, year, month, fields.tm_mday, fields.tm_hour,
                fields.tm_min, fields.tm_sec);
  return {text, EncodedString::native};
}

bool TimeDateStamp::operator==(const TimeDateStamp& other) const noexcept {
  return areSet(*this, other) && time == other.time;
}

bool TimeDateStamp::operator!=(const TimeDateStamp& other) const noexcept {
  return areSet(*this, other) && time != other.time;
}

bool TimeDateStamp::operator<(const TimeDateStamp& other) const noexcept {
  return areSet(*this, other) && time < other.time;
}

bool TimeDateStamp::operator<=(const TimeDateStamp& other) const noexcept {
  return areSet(*this, other) && time <= other.time;
}

bool TimeDateStamp::operator>(const TimeDateStamp& other) const noexcept {
  return areSet(*this, other) && time > other.time;
}

bool TimeDateStamp::operator>=(const TimeDateStamp& other) const noexcept {
  return areSet(*this, other) && time >= other.time;
}

double TimeDateStamp::difference(const TimeDateStamp& other) const noexcept {
  return areSet(*this, other) ? difftime(time, other.time)
                              : std::numeric_limits<double>::infinity();
}
