#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "Engine/utilities/TraceImplementation.h"

#include "tests/support/Child.h"
#include "tests/support/StandIn.h"
#include "tests/trace/TraceSupport.h"

CUL_STAND_IN(int, gethostname, (char* name, size_t length), noexcept, name, length)

namespace {

// Where the configuration was taken from: the test gives each variable a type of its own.
Strings typesChosenBy(const Environment& environment) {
  const ChildResult r = runWith("TraceNothing", environment);
  return headerOf(r.err).included;
}

}  // namespace

TEST(TraceConfiguration, ComesFromTheVariableOfTheRoleThatGdiaIdStartsWith) {
  const Environment all = {{"QVX_DBG_TRACE_ROOT", ",AGENT"},
                           {"QVX_DBG_TRACE_MIDDLE", ",CLI"},
                           {"QVX_DBG_TRACE_LEAF", ",DBX"},
                           {"QVX_DBG_TRACE", ",CUL,PMD"},
                           {"WZ4_DBG_TRACE", ",RDR,PMD"}};
  const std::map<std::string, std::string> chosen = {
      {"root", "AGENT"}, {"ROOT.1", "AGENT"}, {"RoOtless", "AGENT"},
      {"middle", "CLI"}, {"MIDDLE7", "CLI"},  {"leaf", "DBX"},
      {"Leaf.x", "DBX"}, {"roo", "CUL"},      {" root", "CUL"},
      {"other", "CUL"},  {"", "CUL"}};
  for (const auto& [id, type] : chosen) {
    Environment environment = all;
    environment["GDIA_ID"] = id;
    EXPECT_EQ(typesChosenBy(environment).front(), type) << id;
  }
  EXPECT_EQ(typesChosenBy(all).front(), "CUL") << "without GDIA_ID";
}

TEST(TraceConfiguration, ComesFromTheCommonVariableWhenThatOfTheRoleIsUnset) {
  EXPECT_EQ(typesChosenBy({{"GDIA_ID", "middle.3"},
                           {"QVX_DBG_TRACE_ROOT", ",AGENT"},
                           {"QVX_DBG_TRACE_LEAF", ",DBX"},
                           {"QVX_DBG_TRACE", ",CUL"}})
                .front(),
            "CUL");
}

TEST(TraceConfiguration, ComesFromTheLastVariableWhenTheChosenOneIsBlank) {
  const Environment last = {{"GDIA_ID", "root"}, {"WZ4_DBG_TRACE", "  ,RDR  "}};
  EXPECT_EQ(typesChosenBy(last).front(), "RDR");

  Environment environment = last;
  environment["QVX_DBG_TRACE"] = "   ";
  EXPECT_EQ(typesChosenBy(environment).front(), "RDR");

  // A variable of the role that is set to nothing still hides the common one.
  environment["QVX_DBG_TRACE"] = ",CUL";
  environment["QVX_DBG_TRACE_ROOT"] = "";
  EXPECT_EQ(typesChosenBy(environment).front(), "RDR");
}

TEST(TraceConfiguration, IsStrippedOfBlanksAtBothEnds) {
  EXPECT_EQ(typesChosenBy({{"GDIA_ID", "root"}, {"QVX_DBG_TRACE", "   ,CUL  "}}),
            (Strings{"CUL", "ERROR", "WARNING"}));
}

TEST(TraceConfiguration, LeavesTracingOffWhenThereIsNone) {
  expectOff({{"GDIA_ID", "root"}});
  expectOff({{"GDIA_ID", "root"}, {"QVX_DBG_TRACE", " "}, {"WZ4_DBG_TRACE", "  "}});
}

CUL_CHILD(ConfigureByArgument) {
  TraceImplementation* trace = TraceImplementation::instance(L",AGENT,64");
  EXPECT_EQ(TraceImplementation::instance(L"stdout,CLI"), trace);
  EXPECT_EQ(traceImplementation(), trace);
  EXPECT_TRUE(isTraced(TraceType::agent));
  EXPECT_FALSE(isTraced(TraceType::cli));
}

TEST(TraceConfiguration, GivenToTheFirstCallOfInstanceWinsOverTheEnvironment) {
  const ChildResult r =
      runWith("ConfigureByArgument", {{"GDIA_ID", "root"}, {"QVX_DBG_TRACE", ",CLI"}});
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(headerOf(r.err).included, (Strings{"AGENT", "ERROR", "WARNING"}));
  EXPECT_EQ(headerOf(r.err).size, "64Mb");
}

CUL_CHILD(ConfigureByArgumentAmidBlanks) { TraceImplementation::instance(L"   ,AGENT  "); }

TEST(TraceConfiguration, GivenToTheFirstCallOfInstanceIsStrippedOfBlanksToo) {
  const ChildResult r = runWith("ConfigureByArgumentAmidBlanks", {{"GDIA_ID", "root"}});
  EXPECT_EQ(headerOf(r.err).included, (Strings{"AGENT", "ERROR", "WARNING"}));
}

CUL_CHILD(ConfigureByABlankArgument) { TraceImplementation::instance(L"  "); }

TEST(TraceConfiguration, ComesFromTheLastVariableWhenTheArgumentIsBlank) {
  const ChildResult r =
      runWith("ConfigureByABlankArgument",
              {{"GDIA_ID", "root"}, {"QVX_DBG_TRACE", ",CLI"}, {"WZ4_DBG_TRACE", ",RDR"}});
  EXPECT_EQ(headerOf(r.err).included, (Strings{"RDR", "ERROR", "WARNING"}));
}

CUL_CHILD(ConfigureByAnEmptyArgument) {
  TraceImplementation* trace = TraceImplementation::instance(L"");
  EXPECT_FALSE(trace->isActive());
  EXPECT_FALSE(trace->isTraceBitSet(nullptr));
  EXPECT_FALSE(trace->isTraceBitSet("ERROR"));
  EXPECT_FALSE(isTraced(TraceType::error));
}

TEST(TraceConfiguration, GivenAsAnEmptyTextHidesTheCommonVariable) {
  EXPECT_EQ(
      runWith("ConfigureByAnEmptyArgument", {{"GDIA_ID", "root"}, {"QVX_DBG_TRACE", ",CLI"}}).err,
      "");
}

namespace {

Environment onHosts(const std::string& hosts) {
  return {{"GDIA_ID", "root"}, {"QVX_DBG_TRACE", ",ERROR"}, {"QVX_DBG_TRACEHOST", hosts}};
}

std::string thisHost() {
  char name[256] = {};
  gethostname(name, sizeof name);
  return name;
}

}  // namespace

TEST(TraceHost, MayBeAnyEntryOfTheList) {
  const std::string full = thisHost();
  expectOn(onHosts(full));
  expectOn(onHosts(full.substr(0, full.find('.'))));
  expectOn(onHosts("no.such.host:" + full));
  expectOn(onHosts("::" + full + ":no.such.host:"));
  expectOn(onHosts("  " + full + " "));
}

TEST(TraceHost, IsOfNoAccountWhenTheListIsBlank) {
  expectOn(onHosts(""));
  expectOn(onHosts("  "));
}

TEST(TraceHost, KeepsTracingOffWhenItIsNotInTheList) {
  const std::string full = thisHost();
  expectOff(onHosts("no.such.host"));
  expectOff(onHosts(full + "x"));
  expectOff(onHosts(full.substr(0, full.size() - 1)));
  expectOff(onHosts("::"));
  // Only the ends of the whole list are stripped of blanks.
  expectOff(onHosts("no.such.host: " + full));
}

// Arguments: the host's name, the result and the error of asking for it.
CUL_CHILD(TraceOneLineOnAHost) {
  const Instead host(gethostnameStandIn, [](char* name, size_t length) {
    const std::vector<std::string>& told = childArguments();
    std::snprintf(name, length, "%s", told[0].c_str());
    if (const int error = std::atoi(told[2].c_str()); error != 0) {
      errno = error;
    }
    return std::atoi(told[1].c_str());
  });
  errno = ENOENT;  // of a call before: of no account
  taggedTrace("void f(int)", 12, "ERROR", "a line");
  std::printf("%d", isTraced(TraceType::active) ? 1 : 0);
}

TEST(TraceHost, MatchesByItsFullNameAndByTheFirstPart) {
  const Strings host = {"node.example.org", "0", "0"};
  EXPECT_EQ(runWith("TraceOneLineOnAHost", onHosts("node.example.org"), host).out, "1");
  EXPECT_EQ(runWith("TraceOneLineOnAHost", onHosts("node"), host).out, "1");
  EXPECT_EQ(runWith("TraceOneLineOnAHost", onHosts("example"), host).out, "0");
  EXPECT_EQ(runWith("TraceOneLineOnAHost", onHosts("node.example"), host).out, "0");
  EXPECT_EQ(runWith("TraceOneLineOnAHost", onHosts("NODE"), host).out, "0");
}

TEST(TraceHost, ThatCannotBeAskedKeepsTracingOff) {
  EXPECT_EQ(runWith("TraceOneLineOnAHost", onHosts("node"), {"node", "-1", "0"}).out, "0");
  EXPECT_EQ(runWith("TraceOneLineOnAHost", onHosts("node"), {"node", "0", "22"}).out, "0");
  EXPECT_EQ(runWith("TraceOneLineOnAHost", onHosts(""), {"node", "-1", "22"}).out, "1");
}
