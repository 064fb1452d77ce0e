#include "programs/enginetrace/TimeText.h"

#include <array>
#include <chrono>

namespace {

void appendDigits(std::string& to, unsigned value, unsigned digits) {
  std::array<char, 10> text;
  for (unsigned i = digits; i-- > 0; value /= 10) {
    text[i] = static_cast<char>('0' + value % 10);
  }
  to.append(text.data(), digits);
}

void appendWithUnit(std::string& to, WallTime value, const char* unit) {
  to += std::to_string(value);
  to += unit;
}

/// "3.250 s": the whole in units, the rest in thousandths of them.
void appendThousandths(std::string& to, WallTime thousandths, const char* unit) {
  to += std::to_string(thousandths / 1000);
  to += '.';
  appendDigits(to, static_cast<unsigned>(thousandths % 1000), 3);
  to += unit;
}

}  // namespace

void appendTime(std::string& to, WallTime time, char separator) {
  using namespace std::chrono;
  const auto day = floor<days>(microseconds(time));
  const year_month_day date{sys_days(day)};
  const auto ofDay = static_cast<std::uint64_t>(time - day.count() * microsecondsPerDay);
  const unsigned second = static_cast<unsigned>(ofDay / microsecondsPerSecond);
  appendDigits(to, static_cast<unsigned>(static_cast<int>(date.year())), 4);
  to += '-';
  appendDigits(to, static_cast<unsigned>(date.month()), 2);
  to += '-';
  appendDigits(to, static_cast<unsigned>(date.day()), 2);
  to += separator;
  appendDigits(to, second / 3600, 2);
  to += ':';
  appendDigits(to, second / 60 % 60, 2);
  to += ':';
  appendDigits(to, second % 60, 2);
  to += '.';
  appendDigits(to, static_cast<unsigned>(ofDay % microsecondsPerSecond), 6);
}

void appendDuration(std::string& to, WallTime duration) {
  if (duration < 0) {
    to += '-';
    duration = duration == INT64_MIN ? INT64_MAX : -duration;
  }
  const WallTime seconds = duration / microsecondsPerSecond;
  if (seconds >= 86'400) {
    appendWithUnit(to, seconds / 86'400, " d ");
    appendWithUnit(to, seconds / 3600 % 24, " h");
  } else if (seconds >= 3600) {
    appendWithUnit(to, seconds / 3600, " h ");
    appendWithUnit(to, seconds / 60 % 60, " min");
  } else if (seconds >= 60) {
    appendWithUnit(to, seconds / 60, " min ");
    appendWithUnit(to, seconds % 60, " s");
  } else if (seconds >= 1) {
    appendThousandths(to, duration / 1000, " s");
  } else if (duration >= 1000) {
    appendThousandths(to, duration, " ms");
  } else {
    appendWithUnit(to, duration, " us");
  }
}
