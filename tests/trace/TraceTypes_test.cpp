#include <cstdio>
#include <map>
#include <set>
#include <string>

#include <gmock/gmock.h>

#include "Engine/utilities/ByteString.h"
#include "Engine/utilities/TraceImplementation.h"

#include "tests/support/Child.h"
#include "tests/trace/TraceSupport.h"

using testing::ElementsAre;

namespace {

// The switches as the child prints them: the names of the types that are on.
std::set<std::string> switchesWith(const Environment& environment) {
  const ChildResult r = runWith("PrintSwitches", environment);
  const Strings names = linesOf(r.out);
  return {names.begin(), names.end()};
}

}  // namespace

CUL_CHILD(PrintSwitches) {
  for (unsigned i = 0; i < TraceFlags::size; ++i) {
    const auto type = static_cast<TraceType>(i);
    const bool isOn = isTraced(type);
    EXPECT_EQ(traceImplementation()->flags.bytes[i], isOn ? 1 : 0) << i;
    EXPECT_EQ(traceFlags.bytes[i], isOn ? 1 : 0) << i;
    if (isOn) {
      std::printf("%s\n", traceTag(type));
    }
  }
}

namespace {

Header headerWith(const std::string& configuration) {
  return headerOf(
      runWith("TraceNothing", {{"GDIA_ID", "root"}, {"QVX_DBG_TRACE", configuration}}).err);
}

std::set<std::string> switchesOf(const std::string& configuration) {
  return switchesWith({{"GDIA_ID", "root"}, {"QVX_DBG_TRACE", configuration}});
}

std::set<std::string> all27() {
  std::set<std::string> names;
  for (unsigned i = 0; i < TraceFlags::size; ++i) {
    names.insert(traceTag(static_cast<TraceType>(i)));
  }
  return names;
}

std::set<std::string> allBut(const Strings& some) {
  std::set<std::string> names = all27();
  for (const std::string& name : some) {
    EXPECT_EQ(names.erase(name), 1U) << name;
  }
  return names;
}

}  // namespace

TEST(TraceTypes, AreAllOnButChildWhenNoneIsNamed) {
  // Between commas and behind the last there is no token.
  for (const char* configuration :
       {"stderr", ",", ",,", ",64", ",,64", "stderr,", "stderr,,", ","}) {
    const Header header = headerWith(configuration);
    EXPECT_EQ(header.included, knownTypesBut({"CHILD"})) << configuration;
    EXPECT_EQ(header.excluded, Strings{"CHILD"}) << configuration;
  }
  EXPECT_EQ(switchesOf("stderr"), all27());
}

TEST(TraceTypes, AreTheOthersButChildAndTlsWhenSomeAreSwitchedOff) {
  for (const char* configuration : {",!GMH", ",~GMH", ", ~gmh ,64"}) {
    const Header header = headerWith(configuration);
    EXPECT_EQ(header.included, knownTypesBut({"CHILD", "GMH"})) << configuration;
    EXPECT_EQ(header.excluded, (Strings{"CHILD", "GMH"})) << configuration;
  }
  EXPECT_EQ(switchesOf(",~GMH"), allBut({"GMH", "TLS"}));
  EXPECT_EQ(switchesOf(",~MFI"), allBut({"MFI", "TLS"}));
}

TEST(TraceTypes, AreAllButChildTlsAndIsdWithAll) {
  EXPECT_EQ(headerWith(",ALL").included, knownTypesBut({"CHILD", "ISD"}));
  EXPECT_EQ(headerWith(",ALL").excluded, (Strings{"CHILD", "ISD"}));
  EXPECT_EQ(switchesOf(",all"), allBut({"TLS", "ISD"}));
}

TEST(TraceTypes, ThatAllLeavesOutCanBeNamedBesideIt) {
  const Header header = headerWith(",ISD,ALL,CHILD,~CLI,TLS");
  EXPECT_EQ(header.included, knownTypesBut({"CLI"}));
  EXPECT_EQ(header.excluded, Strings{"CLI"});
  EXPECT_EQ(switchesOf(",ISD,ALL,CHILD,~CLI,TLS"), allBut({"CLI"}));
  EXPECT_EQ(headerWith(",ALL,~ISD").excluded, (Strings{"CHILD", "ISD"}));
}

TEST(TraceTypes, AreOnlyTheNamedOnesErrorAndWarning) {
  const Header header = headerWith(",agent");
  EXPECT_EQ(header.included, (Strings{"AGENT", "ERROR", "WARNING"}));
  EXPECT_EQ(header.excluded, knownTypesBut({"AGENT", "ERROR", "WARNING"}));
}

TEST(TraceTypes, OutsideTheTableAreOnUnlessSwitchedOff) {
  EXPECT_EQ(switchesOf(",AGENT"), (std::set<std::string>{"**", "AGENT", "ERROR", "WARNING", "ALL",
                                                         "TLS", "MFI", "CLIP"}));
  EXPECT_EQ(switchesOf(",AGENT,~TLS,~CLIP"),
            (std::set<std::string>{"**", "AGENT", "ERROR", "WARNING", "ALL", "MFI"}));
  EXPECT_EQ(switchesOf(",AGENT,~ALL"),
            (std::set<std::string>{"**", "AGENT", "ERROR", "WARNING", "TLS", "MFI", "CLIP"}));
}

TEST(TraceTypes, AgentAloneTracesAgentErrorAndWarningAndWhatIsOutsideTheTable) {
  const Strings types = {"AGENT", "ERROR", "WARNING", "TLS", "MFI", "CLIP", "CLI", "agent"};
  const ChildResult r = runWith("TraceTypesNamedByArguments",
                                {{"GDIA_ID", "root"}, {"QVX_DBG_TRACE", ",AGENT"}}, types);
  EXPECT_THAT(
      bodyOf(r.err),
      ElementsAre("**AGENT: void f(12): line of AGENT", "**ERROR: void f(12): line of ERROR",
                  "**WARNING: void f(12): line of WARNING", "**TLS: void f(12): line of TLS",
                  "**MFI: void f(12): line of MFI", "**CLIP: void f(12): line of CLIP",
                  // Not a name of the table: names are told apart by case.
                  "**agent: void f(12): line of agent"));
  EXPECT_EQ(r.out, "");
}

TEST(TraceTypes, FollowTheLastTokenThatNamesThem) {
  EXPECT_EQ(headerWith(",AGENT,CLI,~AGENT").included, (Strings{"CLI", "ERROR", "WARNING"}));
  EXPECT_EQ(headerWith(",~AGENT,AGENT,CLI").included,
            (Strings{"AGENT", "CLI", "ERROR", "WARNING"}));
  EXPECT_EQ(headerWith(",AGENT,!AGENT,AGENT").included, (Strings{"AGENT", "ERROR", "WARNING"}));
  // The only name taken back again leaves the list of the excluded.
  EXPECT_EQ(headerWith(",AGENT,~AGENT").included, knownTypesBut({"AGENT", "CHILD"}));
}

TEST(TraceTypes, ErrorAndWarningCannotBeSwitchedOff) {
  const Header header = headerWith(",~ERROR,!WARNING");
  EXPECT_EQ(header.included, knownTypesBut({"CHILD"}));
  EXPECT_EQ(header.excluded, Strings{"CHILD"});
  EXPECT_EQ(headerWith(",CLI,~ERROR").included, (Strings{"CLI", "ERROR", "WARNING"}));
  EXPECT_TRUE(switchesOf(",~ERROR").contains("ERROR"));
}

CUL_CHILD(ExcludeEveryType) {
  std::wstring configuration = L"stderr";
  for (const std::string& type : knownTypes) {
    configuration += L",~" + std::wstring(type.begin(), type.end());
  }
  const TraceImplementation* trace = TraceImplementation::instance(configuration.c_str());
  for (const char* type : {"ERROR", "WARNING"}) {
    EXPECT_TRUE(trace->isTraceBitSet(type));
    EXPECT_FALSE(trace->isExcluded(ByteString(type)));
    // Without any other type the list of the included stays empty.
    EXPECT_FALSE(trace->isIncluded(ByteString(type)));
  }
}

TEST(TraceTypes, ErrorAndWarningAreOnWhenEveryTypeIsSwitchedOff) {
  const ChildResult r = runWith("ExcludeEveryType", {{"GDIA_ID", "root"}});
  EXPECT_EQ(headerOf(r.err).included, (Strings{"ERROR", "WARNING"}));
  EXPECT_EQ(headerOf(r.err).excluded, knownTypesBut({"ERROR", "WARNING"}));
}

TEST(TraceTypes, BehindTheExclusionMarkAreTakenAsTheyStand) {
  // The blank belongs to the name, and so no type of the table is switched off.
  EXPECT_EQ(headerWith(",~ GMH").excluded, Strings{"CHILD"});
}

TEST(TraceTypes, OfNothingButBlanksAreTheEmptyNameAndSwitchTheOthersOff) {
  for (const char* configuration :
       {"stderr, ,", "stderr,  ,", ",  ,!GMH", ", ,,64", ",~, ,", ",!, ,3"}) {
    EXPECT_EQ(headerWith(configuration).included, (Strings{"ERROR", "WARNING"})) << configuration;
  }
}

TEST(TraceTypes, OfAnExclusionMarkAloneAreTheEmptyNameSwitchedOff) {
  for (const char* configuration : {"stderr,~", ",!", ", ~ ,", ",~,!,64", ", ,~"}) {
    EXPECT_EQ(headerWith(configuration).included, knownTypesBut({"CHILD"})) << configuration;
    EXPECT_EQ(switchesOf(configuration), allBut({"TLS"})) << configuration;
  }
}

CUL_CHILD(AskForTheEmptyName) {
  const TraceImplementation* trace = TraceImplementation::instance(L",  ,!GMH");
  EXPECT_TRUE(trace->isIncluded(ByteString()));
  EXPECT_FALSE(trace->isExcluded(ByteString()));
  EXPECT_TRUE(trace->isTraceBitSet(""));
  EXPECT_TRUE(trace->isExcluded(ByteString("GMH")));
}

CUL_CHILD(AskForTheExcludedEmptyName) {
  const TraceImplementation* trace = TraceImplementation::instance(L", ,~");
  EXPECT_FALSE(trace->isIncluded(ByteString()));
  EXPECT_TRUE(trace->isExcluded(ByteString()));
  EXPECT_FALSE(trace->isTraceBitSet(""));
  EXPECT_TRUE(trace->isTraceBitSet("GMH"));
}

TEST(TraceTypes, CanBeAskedForByTheEmptyName) {
  runWith("AskForTheEmptyName", {{"GDIA_ID", "root"}});
  runWith("AskForTheExcludedEmptyName", {{"GDIA_ID", "root"}});
}

CUL_CHILD(AskForTypes) {
  const TraceImplementation* trace = TraceImplementation::instance(L",AGENT,NEW,~OLD");
  EXPECT_EQ(static_cast<const void*>(trace), trace->flags.bytes) << "the first member";
  EXPECT_TRUE(trace->isTraceBitSet(nullptr));
  EXPECT_TRUE(trace->isTraceBitSet("NEW"));
  EXPECT_FALSE(trace->isTraceBitSet("OLD"));
  EXPECT_TRUE(trace->isTraceBitSet("UNKNOWN"));
  EXPECT_TRUE(trace->isTraceBitSet(""));
  EXPECT_FALSE(trace->isTraceBitSet("CLI"));
  EXPECT_TRUE(trace->isTraceBitSet("cli"));
  EXPECT_TRUE(trace->isTraceBitSet("CLIX"));
  EXPECT_TRUE(trace->isTraceBitSet("CL"));
  EXPECT_TRUE(trace->isIncluded(ByteString("NEW")));
  EXPECT_FALSE(trace->isIncluded(ByteString("OLD")));
  EXPECT_FALSE(trace->isIncluded(ByteString("new")));
  EXPECT_TRUE(trace->isExcluded(ByteString("OLD")));
  EXPECT_TRUE(trace->isExcluded(ByteString("CLI")));
  EXPECT_FALSE(trace->isExcluded(ByteString("AGENT")));
  EXPECT_FALSE(trace->isExcluded(ByteString("UNKNOWN")));
}

TEST(TraceTypes, CanBeAskedForByName) { runWith("AskForTypes", {{"GDIA_ID", "root"}}); }

TEST(TraceTypes, AreKeptInListsWithoutDuplicates) {
  List<ByteString*> list;
  TraceImplementation::add(list, ByteString("A"));
  TraceImplementation::add(list, ByteString("B"));
  TraceImplementation::add(list, ByteString("A"));
  ASSERT_EQ(list.count(), 2U);
  EXPECT_EQ(*list[0], ByteString("A"));
  EXPECT_EQ(*list[1], ByteString("B"));
  TraceImplementation::remove(list, ByteString("C"));
  TraceImplementation::remove(list, ByteString("A"));
  ASSERT_EQ(list.count(), 1U);
  EXPECT_EQ(*list[0], ByteString("B"));
  TraceImplementation::remove(list, ByteString("B"));
  TraceImplementation::remove(list, ByteString("B"));
  EXPECT_TRUE(list.isEmpty());
}

TEST(TraceSize, Is16MegabytesUnlessANumberFrom2To511IsGiven) {
  const std::map<std::string, std::string> sizes = {{"", "16Mb"},
                                                    {"0", "16Mb"},
                                                    {"1", "16Mb"},
                                                    {"2", "2Mb"},
                                                    {"64", "64Mb"},
                                                    {"511", "511Mb"},
                                                    {"512", "16Mb"},
                                                    {"513", "16Mb"},
                                                    {"+5", "5Mb"},
                                                    {"-5", "16Mb"},
                                                    {"007", "7Mb"},
                                                    {" 8 ", "8Mb"},
                                                    {"7,9", "9Mb"},
                                                    {"9,512", "9Mb"},
                                                    {"4294967298", "16Mb"},
                                                    {"99999999999999999999999", "16Mb"},
                                                    {"18446744073709551618", "16Mb"}};
  for (const auto& [token, size] : sizes) {
    const Header header = headerWith("stderr," + token);
    EXPECT_EQ(header.size, size) << token;
    EXPECT_EQ(header.included, knownTypesBut({"CHILD"})) << token << " is taken for a type";
  }
}

TEST(TraceSize, IsATypeWhenAnythingFollowsTheNumber) {
  for (const char* token : {"64x", "6 4", "0x10", "4.5"}) {
    const Header header = headerWith(std::string("stderr,") + token);
    EXPECT_EQ(header.size, "16Mb") << token;
    EXPECT_EQ(header.included, (Strings{"ERROR", "WARNING"})) << token;
  }
}
