// Calendar times: texts read into stamps, stamps written as texts, any time and any fields.

#include <array>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "Engine/utilities/TimeDateStamp.h"

#include "fuzz/Fuzz.h"

namespace {

bool isDigit(char c) { return c >= '0' && c <= '9'; }

// The time of 14 digits in a zone without summer time `offset` seconds behind UTC.
time_t timeOfDigits(const std::string& digits, long offset) {
  const auto number = [&](size_t from, size_t count) {
    return std::atoi(digits.substr(from, count).c_str());
  };
  struct tm fields = {};
  const int year = number(0, 4);
  fields.tm_year = year < 201 ? year : year - 1900;
  fields.tm_mon = number(4, 2) - 1;
  fields.tm_mday = number(6, 2);
  fields.tm_hour = number(8, 2);
  fields.tm_min = number(10, 2);
  fields.tm_sec = number(12, 2);
  return timegm(&fields) + offset;
}

// The layout of a text, with 9 in place of each digit.
std::string layoutOf(std::string text) {
  for (char& c : text) {
    c = isDigit(c) ? '9' : c;
  }
  return text;
}

void checkTexts(const TimeDateStamp& stamp) {
  const std::string compact = bytesOf(stamp.asString(true));
  const std::string spaced = bytesOf(stamp.asString(false));
  struct tm fields = {};
  if (localtime_r(&stamp.time, &fields) == nullptr) {
    FUZZ_CHECK(compact == "00000000000000");
    FUZZ_CHECK(spaced == "0000/00/00 00:00:00");
    return;
  }
  const long year = long{fields.tm_year} + 1900;
  if (year < 0 || year > 9999) {
    return;
  }
  FUZZ_CHECK(layoutOf(compact) == "99999999999999");
  FUZZ_CHECK(layoutOf(spaced) == "9999/99/99 99:99:99");
  std::array<char, 32> expected = {};
  FUZZ_CHECK(std::strftime(expected.data(), expected.size(), "/%m/%d %H:%M:%S", &fields) == 15);
  FUZZ_CHECK(spaced.substr(4) == expected.data());
  FUZZ_CHECK(std::atol(spaced.substr(0, 4).c_str()) == year);
  // Years below 201 count from 1900, and summer times are read an hour later.
  if (year < 1000 || fields.tm_isdst != 0) {
    return;
  }
  FUZZ_CHECK(TimeDateStamp(compact.c_str()).time == stamp.time);
  std::array<char, 64> text = {};
  FUZZ_CHECK(ctime_r(&stamp.time, text.data()) != nullptr);
  FUZZ_CHECK(TimeDateStamp(text.data()).time == stamp.time);
}

void checkComparisons(const TimeDateStamp& a, const TimeDateStamp& b) {
  const bool bothSet = a.time != 0 && b.time != 0;
  FUZZ_CHECK((a == b) == (bothSet && a.time == b.time));
  FUZZ_CHECK((a != b) == (bothSet && a.time != b.time));
  FUZZ_CHECK((a < b) == (bothSet && a.time < b.time));
  FUZZ_CHECK((a <= b) == (bothSet && a.time <= b.time));
  FUZZ_CHECK((a > b) == (b < a));
  FUZZ_CHECK((a >= b) == (b <= a));
  const double difference = a.difference(b);
  FUZZ_CHECK(std::isinf(difference) == !bothSet);
  FUZZ_CHECK(!bothSet || (difference > 0) == (a.time > b.time));
}

}  // namespace

void setUpFuzzing() {}

void fuzz(FuzzInput& input) {
  struct Zone {
    const char* name;
    long offset;  // seconds behind UTC; only where there is no summer time
  };
  constexpr std::array<Zone, 4> zones = {
      {{"UTC0", 0}, {"AAA3:30", 12600}, {"BBB-14", -50400}, {"CET-1CEST,M3.5.0,M10.5.0/3", 0}}};
  const unsigned zone = input.choice(zones.size());
  setenv("TZ", zones[zone].name, 1);
  tzset();

  const unsigned kind = input.choice(3);
  if (kind == 1) {
    std::array<unsigned, 6> fields = {};
    for (unsigned& field : fields) {
      field = input.choice(2) == 0 ? input.byte() : input.word();
    }
    const TimeDateStamp stamp(fields[0], fields[1], fields[2], fields[3], fields[4], fields[5]);
    checkTexts(stamp);
    checkComparisons(stamp, TimeDateStamp());
    return;
  }
  if (kind == 2) {
    TimeDateStamp one;
    TimeDateStamp other;
    for (TimeDateStamp* stamp : {&one, &other}) {
      stamp->time = input.choice(2) == 0
                        ? static_cast<int>(input.word())
                        : static_cast<time_t>((std::uint64_t{input.word()} << 32) | input.word());
      checkTexts(*stamp);
    }
    checkComparisons(one, other);
    return;
  }
  const std::string text = input.rest();
  const std::string whole = upToZero(text);
  const TimeDateStamp stamp(ExactBytes(std::string_view(whole.c_str(), whole.size() + 1)).data());
  FUZZ_CHECK(TimeDateStamp(whole.c_str()).time == stamp.time);
  checkTexts(stamp);
  checkComparisons(stamp, stamp);
  if (layoutOf(whole) == "99999999999999" && zone != 3) {
    FUZZ_CHECK(stamp.time == timeOfDigits(whole, zones[zone].offset));
  }
  if (whole.find_first_of("0123456789") == std::string::npos) {
    FUZZ_CHECK(stamp.time == -1);
  }
}
