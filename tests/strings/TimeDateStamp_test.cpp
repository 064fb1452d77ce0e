#include "Engine/utilities/TimeDateStamp.h"

#include <limits>
#include <string>
#include <time.h>
#include <type_traits>
#include <utility>

#include <gtest/gtest.h>

#include "Engine/utilities/EncodedString.h"

#include "tests/support/Child.h"
#include "tests/support/EnvironmentGuard.h"

namespace {

// The process lives in a time zone until the end of the scope.
class ZoneGuard {
 public:
  explicit ZoneGuard(const char* zone) : zone_("TZ", zone) { tzset(); }
  ZoneGuard(const ZoneGuard&) = delete;
  ZoneGuard& operator=(const ZoneGuard&) = delete;
  ~ZoneGuard() = default;

 private:
  // Destroyed after `zone_` has put the variable back.
  struct Reset {
    ~Reset() { tzset(); }
  } reset_;
  EnvironmentGuard zone_;
};

constexpr const char* centralEurope = "CET-1CEST,M3.5.0,M10.5.0/3";

// 2024-01-31 23:59:59 UTC is 54 years with 13 leap days and 30 days behind the epoch.
constexpr time_t lastOfJanuary = (54 * 365 + 13 + 30) * 86400L + 86399;
// 2024-07-01 12:00:00 UTC.
constexpr time_t firstOfJuly = (54 * 365 + 13 + 182) * 86400L + 43200;

TimeDateStamp stampAt(time_t time) {
  TimeDateStamp stamp;
  stamp.time = time;
  return stamp;
}

std::string textOf(const TimeDateStamp& stamp, bool compact) {
  const EncodedString text = stamp.asString(compact);
  return std::string(static_cast<const char*>(text), text.length());
}

std::string ctimeText(time_t time) {
  char text[26];
  return ctime_r(&time, text);
}

TEST(TimeDateStamp, IsASignedCountOf64Bits) {
  static_assert(sizeof(TimeDateStamp) == 8);
  static_assert(std::is_same_v<decltype(TimeDateStamp::time), time_t>);
  EXPECT_EQ(TimeDateStamp().time, 0);
}

TEST(TimeDateStamp, IsMadeFromLocalCalendarFields) {
  {
    const ZoneGuard zone("UTC0");
    EXPECT_EQ(TimeDateStamp(2024, 1, 31, 23, 59, 59).time, lastOfJanuary);
    EXPECT_EQ(TimeDateStamp(2024, 7, 1, 12, 0, 0).time, firstOfJuly);
    EXPECT_EQ(TimeDateStamp(1970, 1, 1, 0, 0, 1).time, 1);
    EXPECT_EQ(TimeDateStamp(1969, 12, 31, 23, 59, 58).time, -2);
  }
  const ZoneGuard zone("EST5");
  EXPECT_EQ(TimeDateStamp(2024, 1, 31, 18, 59, 59).time, lastOfJanuary);
}

TEST(TimeDateStamp, CountsYearsBelow201From1900) {
  const ZoneGuard zone("UTC0");
  EXPECT_EQ(TimeDateStamp(124, 1, 31, 23, 59, 59).time, lastOfJanuary);
  EXPECT_EQ(TimeDateStamp(99, 5, 6, 7, 8, 9).time, TimeDateStamp(1999, 5, 6, 7, 8, 9).time);
  EXPECT_EQ(TimeDateStamp(200, 5, 6, 7, 8, 9).time, TimeDateStamp(2100, 5, 6, 7, 8, 9).time);
  EXPECT_EQ(textOf(TimeDateStamp(201, 5, 6, 7, 8, 9), true), "02010506070809");
  EXPECT_EQ(textOf(TimeDateStamp(0, 5, 6, 7, 8, 9), true), "19000506070809");
}

TEST(TimeDateStamp, CarriesFieldsOutOfRangeOver) {
  const ZoneGuard zone("UTC0");
  EXPECT_EQ(TimeDateStamp(2023, 13, 31, 23, 59, 59).time, lastOfJanuary);
  EXPECT_EQ(TimeDateStamp(2024, 2, 0, 23, 59, 59).time, lastOfJanuary);
}

TEST(TimeDateStamp, TakesDaylightSavingAsNotInEffect) {
  const ZoneGuard zone(centralEurope);
  EXPECT_EQ(TimeDateStamp(2024, 2, 1, 0, 59, 59).time, lastOfJanuary);
  // Twelve o'clock UTC is 14:00 in summer time, but 13:00 as winter reckons.
  EXPECT_EQ(TimeDateStamp(2024, 7, 1, 13, 0, 0).time, firstOfJuly);
  EXPECT_EQ(textOf(stampAt(firstOfJuly), false), "2024/07/01 14:00:00");
}

TEST(TimeDateStamp, ReadsFourteenDigits) {
  const ZoneGuard zone("UTC0");
  EXPECT_EQ(TimeDateStamp("20240131235959").time, lastOfJanuary);
  EXPECT_EQ(TimeDateStamp("19990101010101").time, TimeDateStamp(1999, 1, 1, 1, 1, 1).time);
}

TEST(TimeDateStamp, ReadsFourteenDigitsAsLocalTime) {
  const ZoneGuard zone("EST5");
  EXPECT_EQ(TimeDateStamp("20240131185959").time, lastOfJanuary);
}

TEST(TimeDateStamp, RefusesAnythingBehindFourteenDigits) {
  const ZoneGuard zone("UTC0");
  for (const char* text :
       {"202401312359590", "20240131235959 ", "20240131235959\n", "20240131235959x"}) {
    EXPECT_EQ(TimeDateStamp(text).time, -1) << text;
  }
}

TEST(TimeDateStamp, RefusesWhatIsNeitherFourteenDigitsNorTheTextOfCtime) {
  const ZoneGuard zone("UTC0");
  for (const char* text :
       {"", " ", "2024", "202401312359", "2024013123595x5", "2024/01/31 23:59:59", "today",
        "Wed Jan 31 23:59:59", "Wed Jan 31 23:59 2024", "Wed 31 Jan 23:59:59 2024",
        "Wed Jan 31 23-59-59 2024"}) {
    EXPECT_EQ(TimeDateStamp(text).time, -1) << text;
  }
  const char* const none = nullptr;
  EXPECT_EQ(TimeDateStamp(none).time, -1);
}

TEST(TimeDateStamp, TakesFewerDigitsOnlyWhereEveryFieldIsThere) {
  const ZoneGuard zone("UTC0");
  // Thirteen digits still fill six fields, the last with one digit.
  EXPECT_EQ(TimeDateStamp("2024013123595").time, lastOfJanuary - 54);
  EXPECT_EQ(TimeDateStamp("202401312359").time, -1);
}

TEST(TimeDateStamp, TakesWhiteSpaceAndSignsInFrontOfEachNumber) {
  const ZoneGuard zone("UTC0");
  EXPECT_EQ(TimeDateStamp(" \n20240131235959").time, lastOfJanuary);
  EXPECT_EQ(TimeDateStamp("2024 1 31 23 59 59").time, lastOfJanuary);
  EXPECT_EQ(TimeDateStamp("2024 1\t31 235959").time, lastOfJanuary);
  EXPECT_EQ(TimeDateStamp("2024+131235959").time, lastOfJanuary) << "two characters for the month";
  EXPECT_EQ(TimeDateStamp("+20240131235959").time, -1) << "four characters for the year";
  EXPECT_EQ(TimeDateStamp("2024-131235959").time, TimeDateStamp(2023, 11, 31, 23, 59, 59).time);
  EXPECT_EQ(TimeDateStamp("2024 1 31 23 59 59 ").time, -1);
}

TEST(TimeDateStamp, CarriesNumbersOfATextThatAreOutOfRangeOver) {
  const ZoneGuard zone("UTC0");
  EXPECT_EQ(TimeDateStamp("20240131235999").time, lastOfJanuary + 40);
  EXPECT_EQ(TimeDateStamp("20240200235959").time, lastOfJanuary);
  EXPECT_EQ(TimeDateStamp("Wed Feb 0 23:59:59 2024").time, lastOfJanuary);
}

TEST(TimeDateStamp, CannotTellTwoMomentsFromUnsetAndUnreadable) {
  const ZoneGuard zone("UTC0");
  EXPECT_EQ(TimeDateStamp("19700101000000").time, 0);
  EXPECT_EQ(TimeDateStamp("19691231235959").time, -1);
}

TEST(TimeDateStamp, ReadsTheTextOfCtime) {
  const ZoneGuard zone("UTC0");
  EXPECT_EQ(TimeDateStamp("Wed Jan 31 23:59:59 2024\n").time, lastOfJanuary);
  EXPECT_EQ(TimeDateStamp("Wed Jan 31 23:59:59 2024 and more").time, lastOfJanuary);
  EXPECT_EQ(TimeDateStamp("any Jan 31 23:59:59 2024").time, lastOfJanuary)
      << "the weekday is not looked at";
  for (unsigned month = 1; month <= 12; ++month) {
    const TimeDateStamp stamp(2001, month, 9, 3, 4, 5);
    EXPECT_EQ(TimeDateStamp(ctimeText(stamp.time).c_str()).time, stamp.time) << month;
  }
}

TEST(TimeDateStamp, ReadsBackTheTextOfCtimeInEveryZone) {
  for (const char* name : {"UTC0", "EST5", "XXX-14", "YYY12", centralEurope,
                           "NZST-12NZDT,M9.5.0,M4.1.0/3", "IST-1GMT0,M10.5.0,M3.5.0/1"}) {
    const ZoneGuard zone(name);
    for (time_t time = 86400; time < 2000000000; time += 10000000 + 12345) {
      struct tm fields;
      ASSERT_NE(localtime_r(&time, &fields), nullptr);
      if (fields.tm_isdst == 0) {
        EXPECT_EQ(TimeDateStamp(ctimeText(time).c_str()).time, time) << name;
      }
    }
  }
}

TEST(TimeDateStamp, ReadsSummerTimeAnHourLater) {
  const ZoneGuard zone(centralEurope);
  EXPECT_EQ(TimeDateStamp(ctimeText(firstOfJuly).c_str()).time, firstOfJuly + 3600);
  EXPECT_EQ(TimeDateStamp(textOf(stampAt(firstOfJuly), true).c_str()).time, firstOfJuly + 3600);
}

TEST(TimeDateStamp, KnowsMonthsByTheirExactNamesOnly) {
  const ZoneGuard zone("UTC0");
  for (const char* month : {"jan", "JAN", "January", "Ja", "Xxx", "1", "Wed"}) {
    EXPECT_EQ(TimeDateStamp((std::string("Wed ") + month + " 31 23:59:59 2024").c_str()).time, -1)
        << month;
  }
}

TEST(TimeDateStamp, CutsWordsAtNineteenCharacters) {
  const ZoneGuard zone("UTC0");
  const std::string longest(19, 'w');
  EXPECT_EQ(TimeDateStamp((longest + " Jan 31 23:59:59 2024").c_str()).time, lastOfJanuary);
  // One character more becomes the month's name, and what follows is no day.
  EXPECT_EQ(TimeDateStamp((longest + "w Jan 31 23:59:59 2024").c_str()).time, -1);
  EXPECT_EQ(TimeDateStamp(std::string(100000, 'w').c_str()).time, -1);
}

TEST(TimeDateStamp, WritesLocalTimeInTwoForms) {
  const ZoneGuard zone("EST5");
  const TimeDateStamp stamp = stampAt(lastOfJanuary);
  EXPECT_EQ(textOf(stamp, true), "20240131185959");
  EXPECT_EQ(textOf(stamp, false), "2024/01/31 18:59:59");
}

CUL_CHILD(TimeDateStampNative) {
  const ZoneGuard zone("UTC0");
  const EncodedString text = TimeDateStamp(2001, 2, 3, 4, 5, 6).asString(true);
  EXPECT_TRUE(text == EncodedString("20010203040506", EncodedString::native));
  EXPECT_FALSE(text == EncodedString("20010203040506", EncodedString::utf8));
}

TEST(TimeDateStamp, TextIsReadInTheNativeCodePage) {
  ChildOptions options;
  options.environment["QVX_DBG_CODEPAGE"] = "IBM1047";
  const ChildResult r = runChild("TimeDateStampNative", options);
  EXPECT_EQ(r.status, 0) << r.out << r.err;
}

TEST(TimeDateStamp, FillsFieldsWithZeros) {
  const ZoneGuard zone("UTC0");
  EXPECT_EQ(textOf(TimeDateStamp(2001, 2, 3, 4, 5, 6), true), "20010203040506");
  EXPECT_EQ(textOf(TimeDateStamp(2001, 2, 3, 4, 5, 6), false), "2001/02/03 04:05:06");
  EXPECT_EQ(textOf(TimeDateStamp(), false), "1970/01/01 00:00:00");
}

TEST(TimeDateStamp, WritesAllZerosWhenThereIsNoDate) {
  const ZoneGuard zone("UTC0");
  for (const time_t time :
       {std::numeric_limits<time_t>::max(), std::numeric_limits<time_t>::min()}) {
    EXPECT_EQ(textOf(stampAt(time), true), "00000000000000");
    EXPECT_EQ(textOf(stampAt(time), false), "0000/00/00 00:00:00");
  }
}

TEST(TimeDateStamp, WritesYearsOfManyDigits) {
  const ZoneGuard zone("UTC0");
  // The last second that has a calendar date: its year counts 2^31 - 1 from 1900.
  const time_t last = 67768036191676799;
  EXPECT_EQ(textOf(stampAt(last), false), "2147485547/12/31 23:59:59");
  EXPECT_EQ(textOf(stampAt(last + 1), false), "0000/00/00 00:00:00");
}

TEST(TimeDateStamp, ReadsBackItsCompactText) {
  const ZoneGuard zone("UTC0");
  EXPECT_EQ(TimeDateStamp(textOf(stampAt(firstOfJuly), true).c_str()).time, firstOfJuly);
}

TEST(TimeDateStamp, ComparesTimes) {
  const TimeDateStamp early = stampAt(1000);
  const TimeDateStamp late = stampAt(2000);
  EXPECT_TRUE(early == stampAt(1000));
  EXPECT_FALSE(early == late);
  EXPECT_TRUE(early != late);
  EXPECT_FALSE(early != stampAt(1000));
  EXPECT_TRUE(early < late);
  EXPECT_FALSE(late < early);
  EXPECT_FALSE(early < stampAt(1000));
  EXPECT_TRUE(early <= late);
  EXPECT_TRUE(early <= stampAt(1000));
  EXPECT_FALSE(late <= early);
  EXPECT_TRUE(late > early);
  EXPECT_FALSE(early > late);
  EXPECT_FALSE(early > stampAt(1000));
  EXPECT_TRUE(late >= early);
  EXPECT_TRUE(early >= stampAt(1000));
  EXPECT_FALSE(early >= late);
  EXPECT_TRUE(stampAt(-5) < early);
}

TEST(TimeDateStamp, UnsetComparesFalseWithEverything) {
  const TimeDateStamp unset;
  for (const time_t time : {time_t{0}, time_t{-1}, time_t{1000}}) {
    const TimeDateStamp other = stampAt(time);
    for (const auto& [a, b] : {std::pair(unset, other), std::pair(other, unset)}) {
      EXPECT_FALSE(a == b);
      EXPECT_FALSE(a != b);
      EXPECT_FALSE(a < b);
      EXPECT_FALSE(a <= b);
      EXPECT_FALSE(a > b);
      EXPECT_FALSE(a >= b);
    }
  }
}

TEST(TimeDateStamp, DifferenceIsInSecondsAndInfiniteWhenEitherIsUnset) {
  constexpr double infinity = std::numeric_limits<double>::infinity();
  EXPECT_EQ(stampAt(2000).difference(stampAt(500)), 1500.0);
  EXPECT_EQ(stampAt(500).difference(stampAt(2000)), -1500.0);
  EXPECT_EQ(stampAt(500).difference(stampAt(500)), 0.0);
  EXPECT_EQ(stampAt(500).difference(TimeDateStamp()), infinity);
  EXPECT_EQ(TimeDateStamp().difference(stampAt(500)), infinity);
  EXPECT_EQ(TimeDateStamp().difference(TimeDateStamp()), infinity);
}

}  // namespace
