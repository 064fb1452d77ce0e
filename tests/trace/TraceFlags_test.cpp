#include "Engine/utilities/TraceFlags.h"

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include <gmock/gmock.h>

#include "tests/support/Child.h"
#include "tests/trace/TraceSupport.h"

using testing::ElementsAre;

TEST(TraceFlags, TagsAreTheNamesOfTheTypesInTheOrderOfTheirBytes) {
  const std::vector<std::string> names = {
      "**",  "ERROR", "WARNING", "ALL",   "AGENT", "AGTT", "CLI",    "CONNECTION", "CUL",  "DBX",
      "MFI", "DSL",   "CLIP",    "WZ4",   "GDE",   "GDET", "GMH",    "GMHT",       "GMHS", "ISD",
      "LCC", "PMD",   "TLS",     "ENTRY", "DXPL",  "EXPR", "EXCPTN", "RDR"};
  ASSERT_EQ(names.size(), TraceFlags::size);
  for (unsigned i = 0; i < TraceFlags::size; ++i) {
    EXPECT_EQ(traceTag(static_cast<TraceType>(i)), names[i]);
  }
}

TEST(TraceFlags, AreARowOfOneByteForEachType) { EXPECT_EQ(sizeof(TraceFlags), 28U); }

TEST(TraceFlags, StartSwitchedOff) {
  const TraceFlags flags;
  for (const unsigned char byte : flags.bytes) {
    EXPECT_EQ(byte, 0);
  }
}

TEST(TraceFlags, ClearSwitchesEverythingOff) {
  TraceFlags flags;
  std::memset(flags.bytes, 1, sizeof flags.bytes);
  flags.clear();
  for (const unsigned char byte : flags.bytes) {
    EXPECT_EQ(byte, 0);
  }
}

CUL_CHILD(DecideTheSwitches) {
  for (const unsigned char byte : traceFlags.bytes) {
    EXPECT_EQ(byte, undecidedTrace);
  }
  EXPECT_TRUE(isTraced(TraceType::cli));
  for (const unsigned char byte : traceFlags.bytes) {
    EXPECT_LE(byte, 1);
  }
  EXPECT_FALSE(isTraced(TraceType::agent));
}

TEST(TraceFlags, OfTheProcessAreDecidedByTheFirstTest) {
  const ChildResult r =
      runChild("DecideTheSwitches", childWith({{"GDIA_ID", "root"}, {"QVX_DBG_TRACE", ",CLI"}}));
  EXPECT_EQ(r.status, 0) << r.out;
}

CUL_CHILD(TraceByMacro) {
  int evaluations = 0;
  CUL_TRACE(TraceType::agent, "f()", 1, "%d", ++evaluations);
  EXPECT_EQ(evaluations, 0);
  CUL_TRACE(TraceType::cli, "f()", 2, "%d", ++evaluations);
  EXPECT_EQ(evaluations, 1);
  CUL_TRACE(TraceType::active, "f()", 3, "no arguments");
}

TEST(TraceFlags, KeepTheArgumentsOfAMacroFromBeingEvaluatedWhenOff) {
  const ChildResult r =
      runChild("TraceByMacro", childWith({{"GDIA_ID", "root"}, {"QVX_DBG_TRACE", ",CLI"}}));
  EXPECT_EQ(r.status, 0) << r.out;
  EXPECT_THAT(bodyOf(r.err), ElementsAre("**CLI: f(2): 1", "****: f(3): no arguments"));
}

// The first call of all: nothing has tested a switch before.
CUL_CHILD(TraceWithoutATest) { taggedTrace("f()", 1, "CLI", "made by the first line"); }

TEST(TraceFlags, NeedNoTestBeforeTheFirstLine) {
  const ChildResult r = runChild("TraceWithoutATest", childWith({{"QVX_DBG_TRACE", "stderr"}}));
  EXPECT_THAT(bodyOf(r.err), ElementsAre("**CLI: f(1): made by the first line"));
}
