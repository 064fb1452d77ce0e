#include "Engine/utilities/TraceFlags.h"

#include <cstring>

#include "tests/support/Child.h"

TEST(TraceFlags, TagsAreTheNamesOfTheTypesInTheOrderOfTheirBytes) {
  EXPECT_STREQ(traceTag(TraceType::active), "**");
  EXPECT_STREQ(traceTag(TraceType::error), "ERROR");
  EXPECT_STREQ(traceTag(TraceType::connection), "CONNECTION");
  EXPECT_STREQ(traceTag(TraceType::rdr), "RDR");
}

TEST(TraceFlags, ClearSwitchesEverythingOff) {
  TraceFlags flags;
  std::memset(flags.bytes, 1, sizeof flags.bytes);
  flags.clear();
  for (const unsigned char byte : flags.bytes) {
    EXPECT_EQ(byte, 0);
  }
}
