#include "programs/enginetrace/TimeLimit.h"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cstddef>

namespace {

// Takes a number of `least` to `most` digits from the front of a text. Nothing, and the text as it
// was, when there is none.
std::optional<unsigned> takeNumber(std::string_view& text, std::size_t least, std::size_t most) {
  const std::size_t digits = text.substr(0, most).find_first_not_of("0123456789");
  const std::size_t length = std::min({digits, most, text.size()});
  unsigned number = 0;
  if (length < least ||
      std::from_chars(text.data(), text.data() + length, number).ec != std::errc()) {
    return std::nullopt;
  }
  text.remove_prefix(length);
  return number;
}

bool take(std::string_view& text, char c) {
  const bool isThere = text.starts_with(c);
  text.remove_prefix(isThere ? 1 : 0);
  return isThere;
}

// Behind the point of a second.
std::optional<WallTime> takeFraction(std::string_view& text) {
  const std::size_t before = text.size();
  std::optional<WallTime> result = takeNumber(text, 1, 6);
  for (std::size_t digits = before - text.size(); result && digits < 6; ++digits) {
    *result *= 10;
  }
  return result;
}

// "12:23", "12:23:41" or "12:23:41.5" to the end of the text.
std::optional<WallTime> timeOfDay(std::string_view text) {
  const std::optional<unsigned> hours = takeNumber(text, 1, 2);
  if (!hours || *hours > 23 || !take(text, ':')) {
    return std::nullopt;
  }
  const std::optional<unsigned> minutes = takeNumber(text, 2, 2);
  if (!minutes || *minutes > 59) {
    return std::nullopt;
  }
  std::optional<unsigned> seconds = 0;
  std::optional<WallTime> fraction = 0;
  if (take(text, ':')) {
    seconds = takeNumber(text, 2, 2);
    fraction = take(text, '.') ? takeFraction(text) : 0;
  }
  // A second that is put in is the sixtieth.
  if (!seconds || *seconds > 60 || !fraction || !text.empty()) {
    return std::nullopt;
  }
  return ((*hours * 60 + *minutes) * 60 + *seconds) * microsecondsPerSecond + *fraction;
}

// "2026-11-22" at the front of the text.
std::optional<WallTime> takeDate(std::string_view& text) {
  const std::optional<unsigned> year = takeNumber(text, 4, 4);
  if (!year || !take(text, '-')) {
    return std::nullopt;
  }
  const std::optional<unsigned> month = takeNumber(text, 1, 2);
  if (!month || !take(text, '-')) {
    return std::nullopt;
  }
  const std::optional<unsigned> day = takeNumber(text, 1, 2);
  if (!day) {
    return std::nullopt;
  }
  const std::chrono::year_month_day date{std::chrono::year(static_cast<int>(*year)),
                                         std::chrono::month(*month), std::chrono::day(*day)};
  if (!date.ok()) {
    return std::nullopt;
  }
  return std::chrono::sys_days(date).time_since_epoch().count() * microsecondsPerDay;
}

// "2026-11-22" or "2026-11-22 12:23" as a whole.
std::optional<WallTime> moment(std::string_view text) {
  const std::optional<WallTime> date = takeDate(text);
  if (!date || text.empty()) {
    return date;
  }
  if (!take(text, ' ') && !take(text, 'T')) {
    return std::nullopt;
  }
  const std::optional<WallTime> time = timeOfDay(text);
  return time ? std::optional(*date + *time) : std::nullopt;
}

std::optional<WallTime> unitOf(char c) {
  switch (c) {
    case 's':
      return microsecondsPerSecond;
    case 'm':
      return 60 * microsecondsPerSecond;
    case 'h':
      return microsecondsPerHour;
    case 'd':
      return microsecondsPerDay;
    default:
      return std::nullopt;
  }
}

// "5m", "1h30m" as a whole.
std::optional<WallTime> duration(std::string_view text) {
  constexpr WallTime longest = 1'000'000 * microsecondsPerDay;
  WallTime result = 0;
  do {
    const std::optional<unsigned> number = takeNumber(text, 1, 6);
    const std::optional<WallTime> unit = text.empty() ? std::nullopt : unitOf(text.front());
    if (!number || !unit || result > longest) {
      return std::nullopt;
    }
    text.remove_prefix(1);
    result += *number * *unit;
  } while (!text.empty());
  return result;
}

// Of the day of a moment, also before 1970.
WallTime midnightOf(WallTime time) noexcept {
  const WallTime rest = time % microsecondsPerDay;
  return time - (rest < 0 ? rest + microsecondsPerDay : rest);
}

}  // namespace

std::optional<TimeLimit> TimeLimit::parse(std::string_view text) {
  if (const std::optional<WallTime> time = timeOfDay(text)) {
    return TimeLimit(Kind::ofDay, *time);
  }
  if (const std::optional<WallTime> time = moment(text)) {
    return TimeLimit(Kind::moment, *time);
  }
  if (const std::optional<WallTime> time = duration(text)) {
    return TimeLimit(Kind::beforeTheEnd, *time);
  }
  return std::nullopt;
}

WallTime TimeLimit::within(const TimeSpan& span) const noexcept {
  switch (kind_) {
    case Kind::ofDay: {
      const WallTime onTheLastDay = midnightOf(span.last) + value_;
      const WallTime theDayBefore = onTheLastDay - microsecondsPerDay;
      return onTheLastDay > span.last && theDayBefore >= span.first ? theDayBefore : onTheLastDay;
    }
    case Kind::beforeTheEnd:
      return span.last - value_;
    case Kind::moment:
      break;
  }
  return value_;
}
