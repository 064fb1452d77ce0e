#include "Engine/utilities/TraceImplementation.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <iterator>
#include <map>
#include <printf.h>
#include <set>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include <gmock/gmock.h>

#include "Engine/utilities/ByteString.h"
#include "Engine/utilities/ProductData.h"
#include "Engine/utilities/StdThread.h"
#include "Engine/utilities/signals.h"

#include "tests/support/Child.h"
#include "tests/support/TemporaryFolder.h"
#include "tests/trace/TraceOutput.h"

using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::EndsWith;
using testing::Ge;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Le;
using testing::SizeIs;
using testing::StartsWith;

// What the library is told of the host, the time and memory; a case may change it.
namespace {

struct Host {
  std::string name;  // empty: ask the system
  int result = 0;
  int error = 0;
};

Host& host() {
  static Host theHost;
  return theHost;
}

constinit std::time_t toldTime = 0;  // 0: ask the system
constinit bool copiesFail = false;

}  // namespace

extern "C" std::time_t time(std::time_t* also) noexcept {
  timespec now = {};
  clock_gettime(CLOCK_REALTIME, &now);
  const std::time_t told = toldTime != 0 ? toldTime : now.tv_sec;
  if (also != nullptr) {
    *also = told;
  }
  return told;
}

extern "C" char* strndup(const char* text, size_t longest) noexcept {
  const size_t length = strnlen(text, longest);
  auto* const copy = copiesFail ? nullptr : static_cast<char*>(malloc(length + 1));
  if (copy != nullptr) {
    std::memcpy(copy, text, length);
    copy[length] = 0;
  }
  return copy;
}

extern "C" int gethostname(char* name, size_t length) noexcept {
  using Function = int (*)(char*, size_t);
  if (host().name.empty()) {
    static const auto original = reinterpret_cast<Function>(dlsym(RTLD_NEXT, "gethostname"));
    return original(name, length);
  }
  std::snprintf(name, length, "%s", host().name.c_str());
  if (host().error != 0) {
    errno = host().error;
  }
  return host().result;
}

namespace {

using Environment = std::map<std::string, std::string>;
using Strings = std::vector<std::string>;

constexpr unsigned megabyte = 1048576;

// In the child: one line of the type's own, written when its switch is on.
void traceEach(const Strings& types) {
  for (const std::string& type : types) {
    if (traceImplementation()->isTraceBitSet(type.c_str())) {
      taggedTrace("void f(int)", 12, type.c_str(), "line of %s", type.c_str());
    }
  }
}

ChildResult runWith(const std::string& name, const Environment& environment,
                    const Strings& arguments = {}) {
  ChildResult r = runChild(name, childWith(environment, arguments));
  EXPECT_EQ(r.status, 0) << r.out << r.err;
  return r;
}

// The switches as the child prints them: the names of the types that are on.
std::set<std::string> switchesWith(const Environment& environment) {
  const ChildResult r = runWith("PrintSwitches", environment);
  const Strings names = linesOf(r.out);
  return {names.begin(), names.end()};
}

Strings filesIn(const std::string& folder) {
  Strings names;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    names.push_back(entry.path().filename().string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

// Waits for a child of the present process.
int statusOf(pid_t child) {
  int status = 0;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace

CUL_CHILD(TraceNothing) { static_cast<void>(isTraced(TraceType::error)); }

CUL_CHILD(TraceOneLine) { taggedTrace("void f(int)", 12, "ERROR", "a line"); }

CUL_CHILD(TraceTypesNamedByArguments) { traceEach(childArguments()); }

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

CUL_CHILD(ExpectTracingOff) {
  EXPECT_FALSE(isTraced(TraceType::active));
  TraceImplementation* trace = traceImplementation();
  EXPECT_FALSE(trace->isActive());
  trace->taggedTrace("f", 1, "ERROR", "dropped");
  taggedTrace("f", 1, "ERROR", "dropped");
  EXPECT_EQ(trace->wrap(), 0);
  EXPECT_EQ(trace->setRewindPoint(), 0U);
  EXPECT_TRUE(trace->pause(false));
  EXPECT_TRUE(trace->pause(true));
  EXPECT_TRUE(trace->pause(false));
  EXPECT_FALSE(trace->isActive());
  trace->processForked();
  trace->openFiles();
  EXPECT_FALSE(trace->isActive());
  trace->taggedTrace("f", 1, "ERROR", "dropped");
}

namespace {

void expectOff(const Environment& environment) {
  const ChildResult r = runWith("ExpectTracingOff", environment);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err, "");
}

void expectOn(const Environment& environment) {
  const ChildResult r = runWith("TraceOneLine", environment);
  EXPECT_THAT(bodyOf(r.err), ElementsAre("**ERROR: void f(12): a line"));
}

// Where the configuration was taken from: the test gives each variable a type of its own.
Strings typesChosenBy(const Environment& environment) {
  const ChildResult r = runWith("TraceNothing", environment);
  return headerOf(r.err).included;
}

}  // namespace

// ---------------------------------------------------------------------------------------
// Where the configuration comes from

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

// ---------------------------------------------------------------------------------------
// Hosts

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
  host() = {childArguments()[0], std::atoi(childArguments()[1].c_str()),
            std::atoi(childArguments()[2].c_str())};
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

// ---------------------------------------------------------------------------------------
// Types

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

// ---------------------------------------------------------------------------------------
// The size

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

// ---------------------------------------------------------------------------------------
// The output

TEST(TraceOutput, NeedsARoleWhenPmdIsOff) {
  for (const char* id : {"root", "Middle.2", "LEAF"}) {
    expectOn({{"GDIA_ID", id}, {"QVX_DBG_TRACE", ",AGENT"}});
  }
  expectOff({{"QVX_DBG_TRACE", ",AGENT"}});
  expectOff({{"QVX_DBG_TRACE", ",~PMD"}});
  expectOff({{"GDIA_ID", "other"}, {"QVX_DBG_TRACE", ",AGENT"}});
  expectOff({{"GDIA_ID", "roo"}, {"QVX_DBG_TRACE", ",AGENT"}});
}

TEST(TraceOutput, IsOpenedInAnyProcessWhenPmdIsOn) {
  expectOn({{"QVX_DBG_TRACE", "stderr"}});
  expectOn({{"QVX_DBG_TRACE", ",PMD"}});
  expectOn({{"QVX_DBG_TRACE", ",ALL"}, {"GDIA_ID", "other"}});
}

TEST(TraceOutput, CanBeStandardOutput) {
  const ChildResult r = runWith("TraceOneLine", {{"QVX_DBG_TRACE", " stdout "}});
  EXPECT_THAT(bodyOf(r.out), ElementsAre("**ERROR: void f(12): a line"));
  EXPECT_EQ(r.err, "");
}

TEST(TraceOutput, IsStandardErrorWhenTheConfigurationStartsWithAComma) {
  const ChildResult r = runWith("TraceOneLine", {{"QVX_DBG_TRACE", ",PMD"}});
  EXPECT_THAT(bodyOf(r.err), ElementsAre("**ERROR: void f(12): a line"));
  EXPECT_EQ(r.out, "");
}

TEST(TraceOutput, OtherwiseIsAFileThatIsTruncated) {
  const TemporaryFolder folder;
  const std::string file = folder.file("the trace");
  writeFile(file, std::string(100000, 'q'));
  const ChildResult r = runWith("TraceOneLine", {{"QVX_DBG_TRACE", " " + file + " , PMD"}});
  EXPECT_THAT(contentsOf(file), StartsWith(linesOf(contentsOf(file)).front()));
  EXPECT_EQ(headerOf(contentsOf(file)).included, (Strings{"PMD", "ERROR", "WARNING"}));
  EXPECT_THAT(bodyOf(contentsOf(file)), ElementsAre("**ERROR: void f(12): a line"));
  EXPECT_THAT(contentsOf(file), testing::Not(HasSubstr("qq")));
  EXPECT_EQ(r.out + r.err, "");
}

TEST(TraceOutput, NamedStdoutInAnotherCaseIsAFile) {
  const TemporaryFolder folder;
  ChildOptions options = childWith({{"QVX_DBG_TRACE", "STDOUT"}});
  options.directory = folder.path();
  const ChildResult r = runChild("TraceOneLine", options);
  EXPECT_EQ(r.out + r.err, "");
  EXPECT_THAT(bodyOf(contentsOf(folder.file("STDOUT"))), SizeIs(1));
}

TEST(TraceOutput, InADirectoryIsNamedByTheProcessId) {
  for (const char* end : {"", "/"}) {
    const TemporaryFolder folder;
    const ChildResult r =
        runWith("PrintProcessIdAndTrace", {{"QVX_DBG_TRACE", folder.path() + end + ",!GMH,64"}});
    EXPECT_THAT(filesIn(folder.path()), ElementsAre(r.out + ".trc"));
    const std::string output = contentsOf(folder.file(r.out + ".trc"));
    EXPECT_THAT(bodyOf(output), ElementsAre("**ERROR: void f(12): line of ERROR"));
    EXPECT_EQ(headerOf(output).size, "64Mb");
  }
}

CUL_CHILD(PrintProcessIdAndTrace) {
  std::printf("%d", static_cast<int>(getpid()));
  traceEach({"GMH", "ERROR"});
}

TEST(TraceOutput, InADirectoryIsNamedByGdiaIdAndTheProcessIdWhenThatIsSet) {
  const TemporaryFolder folder;
  const ChildResult r =
      runWith("PrintProcessIdAndTrace",
              {{"GDIA_ID", "Root.7"}, {"QVX_DBG_TRACE", folder.path() + ",ERROR"}});
  EXPECT_THAT(filesIn(folder.path()), ElementsAre("Root.7." + r.out + ".trc"));
}

TEST(TraceOutput, InADirectoryWhoseNameEndsInABackslashGetsNoSlash) {
  const TemporaryFolder folder;
  const std::string name = folder.file("odd\\");
  ASSERT_EQ(mkdir(name.c_str(), 0700), 0);
  const ChildResult r = runWith("PrintProcessIdAndTrace", {{"QVX_DBG_TRACE", name}});
  EXPECT_THAT(filesIn(folder.path()), ElementsAre("odd\\", "odd\\" + r.out + ".trc"));
}

TEST(TraceOutput, ThatCannotBeOpenedLeavesTracingOff) {
  const TemporaryFolder folder;
  expectOff({{"QVX_DBG_TRACE", folder.file("no such folder") + "/file"}});
  expectOff({{"QVX_DBG_TRACE", folder.file(std::string(300, 'q'))}});
  expectOff({{"QVX_DBG_TRACE", "/" + std::string(5000, 'q')}});
  expectOff({{"GDIA_ID", "no/such"}, {"QVX_DBG_TRACE", folder.path()}});
  expectOff({{"GDIA_ID", std::string(5000, 'q')}, {"QVX_DBG_TRACE", folder.path()}});
  EXPECT_THAT(filesIn(folder.path()), IsEmpty());
}

TEST(TraceOutput, WhoseWholeNameIsTooLongForAPathIsNotOpenedByAPartOfIt) {
  const TemporaryFolder folder;
  // The folder itself can be named in 4092 bytes; the name of the file in it would be cut.
  std::string name = folder.path();
  if (name.size() % 2 != 0) {
    name += '/';
  }
  while (name.size() < 4092) {
    name += "/.";
  }
  ASSERT_TRUE(std::filesystem::is_directory(name));
  expectOff({{"QVX_DBG_TRACE", name}});
  EXPECT_THAT(filesIn(folder.path()), IsEmpty());
}

CUL_CHILD(CountOwnDescriptors) {
  taggedTrace("f", 1, "ERROR", "open");
  unsigned traceFiles = 0;
  for (int fd = 3; fd < 64; ++fd) {
    const int flags = fcntl(fd, F_GETFD);
    char name[4096] = {};
    const std::string link = "/proc/self/fd/" + std::to_string(fd);
    if (flags >= 0 && readlink(link.c_str(), name, sizeof name - 1) > 0 &&
        childArguments()[0] == name) {
      ++traceFiles;
      EXPECT_NE(flags & FD_CLOEXEC, 0);
    }
  }
  EXPECT_EQ(traceFiles, 1U);
}

TEST(TraceOutput, IsNotInheritedByOtherPrograms) {
  const TemporaryFolder folder;
  const std::string file = std::filesystem::canonical(folder.path()).string() + "/trace";
  runWith("CountOwnDescriptors", {{"QVX_DBG_TRACE", file}}, {file});
}

CUL_CHILD(OpenTwice) {
  taggedTrace("f", 1, "ERROR", "open");
  traceImplementation()->openFiles();
  traceImplementation()->pause(true);
  traceImplementation()->openFiles();
}

TEST(TraceOutput, IsOpenedOnlyOnce) {
  const ChildResult r = runWith("OpenTwice", {{"QVX_DBG_TRACE", "stderr"}});
  EXPECT_THAT(bodyOf(r.err), ElementsAre("**ERROR: f(1): open"));
}

// ---------------------------------------------------------------------------------------
// Header and lines

TEST(TraceHeader, NamesStartProductBuildTypesAndSize) {
  const std::time_t before = std::time(nullptr);
  const ChildResult r =
      runWith("TraceNothing", {{"TZ", "XYZ-3:30"}, {"QVX_DBG_TRACE", "stderr,PMD,~TLS,7"}});
  const std::time_t after = std::time(nullptr);
  const ProductData& product = productData();

  Strings expected = {"",
                      "",
                      std::string("Debugger: ") + product.name + ";  Version: " + product.version,
                      std::string("Build Date: ") + product.buildDateAndTime,
                      "",
                      "Included Trace types:",
                      "  PMD",
                      "  ERROR",
                      "  WARNING",
                      "Excluded Trace types:"};
  for (const std::string& type : knownTypesBut({"PMD", "ERROR", "WARNING"})) {
    expected.push_back("  " + type);
  }
  expected.push_back("Trace size: 7Mb");
  expected.push_back(separator);

  const std::string own = "void TraceImplementation::traceInternal(718): ";
  const Strings lines = linesOf(r.err);
  ASSERT_EQ(lines.size(), expected.size()) << r.err;
  for (std::size_t i = 1; i < lines.size(); ++i) {
    const bool isPlain = expected[i].empty() || expected[i] == separator;
    EXPECT_EQ(isPlain ? lines[i] : withoutStamp(lines[i]), (isPlain ? "" : own) + expected[i]);
  }

  // "Trace start at " and what ctime() tells in that time zone, newline and all.
  const std::string start = withoutStamp(lines[0]);
  const std::string opening = own + "Trace start at ";
  ASSERT_THAT(start, StartsWith(opening));
  std::tm parts = {};
  ASSERT_EQ(strptime(start.c_str() + opening.size(), "%a %b %d %H:%M:%S %Y", &parts),
            start.c_str() + start.size());
  const std::time_t told = timegm(&parts) - (3 * 60 + 30) * 60;
  EXPECT_THAT(told, AllOf(Ge(before), Le(after)));
}

CUL_CHILD(LinesOfEveryForm) {
  taggedTrace("void A::f(int)", 12, "ERROR", "message %d %s", 7, "x");
  taggedTrace("(anonymous)::f(int)", 12, "CLI", "whole name");
  taggedTrace("plain name", 0, "CLI", "no line");
  taggedTrace("void A::f(int)", 0, nullptr, "no tag, no line");
  taggedTrace(nullptr, 12, "CLI", "no function");
  taggedTrace(nullptr, 12, nullptr, "only a message");
  taggedTrace("", 4294967295U, "", "empty texts");
  taggedTrace("f()", 1, "X", "\nafter an empty line");
  taggedTrace("f()", 1, "X", "%s", "\nnot at the start of the format");
  taggedTrace("f()", 1, "X", "ends in a newline\n");
  taggedTrace("f()", 1, "X", "100%%");
  const char* empty = "";
  taggedTrace("f()", 1, "X", "%s", empty);
}

TEST(TraceLine, HasTimeThreadTagFunctionLineAndMessage) {
  const ChildResult r = runWith("LinesOfEveryForm", {{"QVX_DBG_TRACE", "stderr"}});
  EXPECT_THAT(
      bodyOf(r.err),
      ElementsAre("**ERROR: void A::f(12): message 7 x",
                  "**CLI: (anonymous)::f(int)(12): whole name", "**CLI: plain name: no line",
                  "void A::f: no tag, no line", "**CLI: no function", "only a message",
                  "**: (-1): empty texts", "", "**X: f(1): after an empty line",
                  "**X: f(1): ", "not at the start of the format", "**X: f(1): ends in a newline",
                  "", "**X: f(1): 100%", "**X: f(1): "));
  const Strings lines = linesOf(r.err);
  EXPECT_EQ(std::count_if(lines.begin(), lines.end(),
                          [](const std::string& line) {
                            return hasStamp(line) &&
                                   line.ends_with(" (main    )**ERROR: void A::f(12): message 7 x");
                          }),
            1)
      << r.err;
}

CUL_CHILD(LineThatCannotBeFormatted) {
  taggedTrace("f()", 1, "X", "before %ls behind", L"\x20AC");
  taggedTrace("f()", 2, "X", "next");
}

TEST(TraceLine, EndsBeforeAConversionThatFails) {
  // The locale "C" has no such character.
  const ChildResult r = runWith("LineThatCannotBeFormatted", {{"QVX_DBG_TRACE", "stderr"}});
  EXPECT_THAT(bodyOf(r.err), ElementsAre("**X: f(1): before ", "**X: f(2): next"));
}

CUL_CHILD(LineWithItsSwitchCleared) {
  taggedTrace("f()", 1, "X", "first");
  TraceImplementation* trace = traceImplementation();
  trace->flags.clear();
  trace->taggedTrace("f()", 2, "X", "dropped");
  EXPECT_EQ(trace->wrap(), 0);
  EXPECT_TRUE(trace->pause(true));
  EXPECT_TRUE(trace->isActive());
  trace->flags.set(*trace);
  trace->taggedTrace("f()", 3, "X", "last");
}

TEST(TraceLine, IsNotWrittenWhileTheActiveSwitchIsCleared) {
  const ChildResult r = runWith("LineWithItsSwitchCleared", {{"QVX_DBG_TRACE", "stderr"}});
  EXPECT_THAT(bodyOf(r.err), ElementsAre("**X: f(1): first", "**X: f(3): last"));
}

namespace {

// Conversions that trace: "%Y" a line, "%W" one that contains a "%Y".
int convertByTracing(FILE* /*stream*/, const printf_info* info, const void* const* /*arguments*/) {
  const bool isInner = info->spec == L'Y';
  const std::string format = isInner ? "innermost" : "inner %Y";
  taggedTrace("f()", 2, "X", format.c_str(), 0);
  return 0;
}

int argumentsOfTracing(const printf_info* /*info*/, size_t n, int* types, int* sizes) {
  if (n > 0) {
    types[0] = PA_INT;
    sizes[0] = sizeof(int);
  }
  return 1;
}

}  // namespace

CUL_CHILD(LinesWithinLines) {
  for (const char conversion : {'Y', 'W'}) {
    ASSERT_EQ(register_printf_specifier(conversion, convertByTracing, argumentsOfTracing), 0);
  }
  for (const std::string format : {"outer %Y", "outer %W", "outer"}) {
    taggedTrace("f()", 1, "X", format.c_str(), 0);
  }
}

TEST(TraceLine, CanBeWrittenWhileTheSameThreadWritesOneButNotInsideThatAgain) {
  const ChildResult r = runWith("LinesWithinLines", {{"QVX_DBG_TRACE", "stdout"}});
  EXPECT_THAT(bodyOf(r.out),
              ElementsAre("**X: f(2): innermost", "**X: f(1): outer ", "**X: f(2): inner ",
                          "**X: f(1): outer ", "**X: f(1): outer"));
}

CUL_CHILD(LinesInAFarFuture) {
  toldTime = std::time_t{1} << 60;
  taggedTrace("f()", 1, "X", "far away");
}

TEST(TraceLine, IsWrittenInAYearThatCannotBeTold) {
  const ChildResult r = runWith("LinesInAFarFuture", {{"QVX_DBG_TRACE", "stderr"}});
  EXPECT_THAT(r.err, HasSubstr("traceInternal(718): Trace start at \n"));
  EXPECT_THAT(bodyOf(r.err), ElementsAre("**X: f(1): far away"));
}

CUL_CHILD(LinesOverMoreThanASecond) {
  const std::time_t start = std::time(nullptr);
  while (std::time(nullptr) < start + 2) {
    taggedTrace(nullptr, 0, nullptr, "%lld", static_cast<long long>(std::time(nullptr)));
    usleep(20000);
  }
}

TEST(TraceLine, TellsTheLocalTimeInRisingMicroseconds) {
  const ChildResult r =
      runWith("LinesOverMoreThanASecond", {{"TZ", "XYZ+5:30"}, {"QVX_DBG_TRACE", "stderr"}});
  long long last = 0;
  unsigned count = 0;
  for (const std::string& line : linesOf(r.err)) {
    const std::string told = withoutStamp(line);
    if (told == line || told.find_first_not_of("0123456789") != std::string::npos) {
      continue;
    }
    const auto number = [&](std::size_t at, std::size_t n) {
      return std::stoll(line.substr(at, n));
    };
    const long long second = number(0, 2) * 3600 + number(3, 2) * 60 + number(6, 2);
    const long long day = 24 * 3600;
    // The seconds of the trace begin with the trace: they lag behind by less than one.
    const long long lag = (std::stoll(told) + day - 5 * 3600 - 30 * 60 - second) % day;
    EXPECT_THAT(lag, AllOf(Ge(0), Le(1))) << line;
    const long long now = second * 1000000 + number(9, 6);
    EXPECT_TRUE(now > last || second == 0) << line;
    last = now;
    ++count;
  }
  EXPECT_GT(count, 20U);
}

CUL_CHILD(LongLines) {
  const std::string big(200000, 'q');
  TraceImplementation* trace = traceImplementation();
  trace->taggedTrace("f()", 1, "X", "%s", big.c_str());
  trace->taggedTrace("f()", 2, "X", "%s", "after");
  trace->taggedTrace(big.c_str(), 3, "X", "%s", "dropped");
  trace->taggedTrace("f()", 4, big.c_str(), "%s", "dropped");
  // Stamp, tag, function and line take 37 bytes and the newline 1: one below the limit, at
  // it and above it.
  for (const int length : {127962 - 1, 127962, 127962 + 1}) {
    trace->taggedTrace("f()", 5, "X", "%.*s", length, big.c_str());
  }
}

TEST(TraceLine, IsCutAt128000BytesWithItsNewline) {
  const TemporaryFolder folder;
  const std::string file = folder.file("trace");
  runWith("LongLines", {{"QVX_DBG_TRACE", file}});
  Strings body;
  for (const std::string& line : linesOf(contentsOf(file))) {
    if (line.size() > 1000 || line.ends_with("after")) {
      body.push_back(line);
    }
  }
  ASSERT_EQ(body.size(), 7U);
  const std::size_t limit = 128000 - 1;
  EXPECT_EQ(body[0].size(), limit);
  EXPECT_THAT(withoutStamp(body[0]), StartsWith("**X: f(1): qqq"));
  EXPECT_EQ(withoutStamp(body[1]), "**X: f(2): after");
  EXPECT_EQ(body[2].size(), limit);
  EXPECT_EQ(body[3].size(), limit);
  EXPECT_EQ(body[4].size(), limit - 1);
  EXPECT_EQ(body[5].size(), limit);
  EXPECT_EQ(body[6].size(), limit);
}

CUL_CHILD(TraceWithErrno) {
  errno = 77;
  EXPECT_TRUE(isTraced(TraceType::error));  // makes the trace
  EXPECT_EQ(errno, 77);
  taggedTrace("f()", 1, "ERROR", "errno is %d", errno);
  EXPECT_EQ(errno, 77);
  TraceImplementation* trace = traceImplementation();
  trace->setRewindPoint();
  EXPECT_EQ(errno, 77);
  trace->wrap();
  EXPECT_EQ(errno, 77);
  // Nobody reads standard output: every write fails.
  close(STDOUT_FILENO);
  trace->taggedTrace("f()", 1, "ERROR", "lost");
  EXPECT_EQ(errno, 77);
  trace->setRewindPoint();
  EXPECT_EQ(errno, 77);
  trace->processForked();
  EXPECT_EQ(errno, 77);
}

TEST(TraceLine, KeepsErrno) {
  const ChildResult r = runWith("TraceWithErrno", {{"QVX_DBG_TRACE", "stdout,ALL,CHILD"}});
  EXPECT_THAT(bodyOf(r.out), Contains("**ERROR: f(1): errno is 77"));
}

CUL_CHILD(TraceWithErrnoAndNoOutput) {
  errno = 78;
  EXPECT_FALSE(isTraced(TraceType::active));
  EXPECT_EQ(errno, 78);
}

TEST(TraceLine, KeepsErrnoWhenTheOutputCannotBeOpened) {
  runWith("TraceWithErrnoAndNoOutput", {{"QVX_DBG_TRACE", "/no/such/file"}});
}

CUL_CHILD(TraceFromNamedThreads) {
  class Named : public StdThread {
   public:
    Named(const char* name, Termination& termination) : StdThread(name, 0, &termination) {}
    void run() override { taggedTrace("f()", 1, "X", "from a thread"); }
  };
  for (const char* name : {"", "abcdefg", "abcdefgh", "abcdefghi"}) {
    StdThread::Termination termination;
    (new Named(name, termination))->start_thread(0);
    termination.wait(0);
  }
}

TEST(TraceLine, NamesTheThreadInEightCharacters) {
  const ChildResult r = runWith("TraceFromNamedThreads", {{"QVX_DBG_TRACE", "stderr"}});
  Strings names;
  for (const std::string& line : linesOf(r.err)) {
    if (line.ends_with("from a thread")) {
      names.push_back(line.substr(16, 10));
    }
  }
  EXPECT_THAT(names, ElementsAre("(        )", "(abcdefg )", "(abcdefgh)", "(abcdefgh)"));
}

namespace {

// NOLINTNEXTLINE(cppcoreguidelines-virtual-class-destructor): final, and never deleted.
struct Handler final : GMH_HandlerDiagnostic {
  const char* diagnosticText() const override {
    errno = EINVAL;
    return "handler 9";
  }
};

}  // namespace

CUL_CHILD(LinesWithComposedTags) {
  TraceImplementation* trace = traceImplementation();
  const Handler handler;
  errno = 77;
  trace->_traceGMH("f()", 1, "GMH", &handler, "with %s", "handler");
  EXPECT_EQ(errno, 77);
  trace->_traceGMH("f()", 2, "GMH", nullptr, "without %s", "handler");
  trace->_traceGMH("f()", 3, nullptr, nullptr, "without tag");
  trace->_traceGMH("f()", 3, nullptr, &handler, "without tag");
  trace->traceSession("f()", 3, nullptr, reinterpret_cast<void*>(0xABC0), "without tag");
  trace->traceSession("f()", 4, "AGENT", reinterpret_cast<void*>(0xABC0), "with %s", "session");
  trace->traceSession("f()", 5, "AGENT", nullptr, "without %s", "session");
  trace->traceInternal("internal %d", 6);
}

TEST(TraceLine, CanHaveATagWithAHandlerOrASession) {
  const ChildResult r = runWith("LinesWithComposedTags", {{"QVX_DBG_TRACE", "stderr"}});
  EXPECT_THAT(bodyOf(r.err),
              ElementsAre("**GMH/handler 9: f(1): with handler", "**GMH: f(2): without handler",
                          "f(3): without tag", "**(null)/handler 9: f(3): without tag",
                          "**(null) 0xabc0: f(3): without tag",
                          "**AGENT 0xabc0: f(4): with session", "**AGENT: f(5): without session",
                          "void TraceImplementation::traceInternal(718): internal 6"));
}

TEST(TraceHandlerDiagnostic, HasItsTextAsTheFirstVirtualOperation) {
  const Handler handler;
  const GMH_HandlerDiagnostic* diagnostic = &handler;
  using Operation = const char* (*)(const void*);
  Operation first = nullptr;
  std::memcpy(&first, *reinterpret_cast<void* const* const*>(diagnostic), sizeof first);
  EXPECT_STREQ(first(diagnostic), "handler 9");
}

CUL_CHILD(CountWritesPerLine) {
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
  const int next = dup(0);
  close(next);
  const std::wstring name = L"/proc/self/fd/" + std::to_wstring(ends[1]);
  TraceImplementation* trace = TraceImplementation::instance(name.c_str());
  ASSERT_TRUE(trace->isActive());
  char packet[8192];
  ASSERT_GT(read(ends[0], packet, sizeof packet), 0);
  // From here on the pipe keeps the writes apart.
  ASSERT_EQ(fcntl(next, F_SETFL, O_WRONLY | O_DIRECT), 0);
  ASSERT_EQ(fcntl(ends[0], F_SETFL, O_NONBLOCK), 0);
  for (const int length : {0, 10, 1000, 4000}) {
    trace->taggedTrace("f()", 1, "X", "%*s", length, "");
    trace->taggedTrace("f()", 1, "X", "next");
    EXPECT_EQ(read(ends[0], packet, sizeof packet), 26 + 11 + length + 1);
    EXPECT_EQ(read(ends[0], packet, sizeof packet), 26 + 11 + 4 + 1);
    EXPECT_LT(read(ends[0], packet, sizeof packet), 0);
  }
}

TEST(TraceLine, LeavesTheProcessInOneWrite) { runWith("CountWritesPerLine", {}); }

// ---------------------------------------------------------------------------------------
// The ring

CUL_CHILD(FillTheRing) {
  TraceImplementation* trace = traceImplementation();
  const unsigned lines = static_cast<unsigned>(std::stoul(childArguments()[0]));
  for (unsigned i = 1; i <= lines; ++i) {
    trace->taggedTrace("f()", 1, "X", "%08u %.*s", i, static_cast<int>(i % 401),
                       std::string(400, 'y').c_str());
  }
}

namespace {

// The size of line `i` of the ring, with its newline.
std::size_t sizeOfRingLine(unsigned i) { return 26 + 11 + 9 + i % 401 + 1; }

// Plays the ring by hand: what a file holds behind its header after `lines` lines.
std::string ringAfter(unsigned lines, std::size_t limit) {
  std::string ring;
  std::size_t position = 0;
  for (unsigned i = 1; i <= lines; ++i) {
    const std::size_t size = sizeOfRingLine(i);
    if (limit < position + size) {
      ring.resize(position);
      position = 0;
    }
    char text[32];
    std::snprintf(text, sizeof text, "**X: f(1): %08u ", i);
    const std::string line = std::string(26, '#') + text + std::string(i % 401, 'y') + "\n";
    EXPECT_EQ(line.size(), size);
    ring.replace(position, std::min(size, ring.size() - position), line);
    position += size;
  }
  return ring;
}

// Time stamps are not known beforehand.
void hideStamps(std::string& text) {
  for (std::size_t at = text.find("(main    )**X: f(1): "); at != std::string::npos;
       at = text.find("(main    )**X: f(1): ", at + 1)) {
    const std::size_t start = at - std::min<std::size_t>(at, 16);
    text.replace(start, at + 10 - start, at + 10 - start, '#');
  }
}

}  // namespace

TEST(TraceRing, GoesOnBehindTheHeaderAndLeavesNoStaleTail) {
  // Lines of 47 to 447 bytes in 2 Mb: just before the first wrap, just behind it, and after
  // several.
  std::size_t sum = 0;
  unsigned fitting = 0;
  while (sum + sizeOfRingLine(fitting + 1) <= 2 * megabyte) {
    sum += sizeOfRingLine(++fitting);
  }
  for (const unsigned lines : {fitting, fitting + 1, fitting + 2, fitting * 7 / 2}) {
    const TemporaryFolder folder;
    const std::string file = folder.file("trace");
    runWith("FillTheRing", {{"QVX_DBG_TRACE", file + ",PMD,2"}}, {std::to_string(lines)});
    std::string output = contentsOf(file);
    const std::size_t header = output.find(separator) + separator.size() + 1;
    ASSERT_GT(header, 73U);
    EXPECT_EQ(headerOf(output).included, (Strings{"PMD", "ERROR", "WARNING"}));
    EXPECT_THAT(output, HasSubstr("Trace start at "));
    std::string ring = output.substr(header);
    EXPECT_LE(ring.size(), 2 * megabyte);
    hideStamps(ring);
    std::string expected = ringAfter(lines, 2 * megabyte);
    // Where the newest line ends, the rest of an older one follows, perhaps with a part of
    // its stamp: compare what lies before and behind.
    char newest[16];
    std::snprintf(newest, sizeof newest, "%08u ", lines);
    const std::size_t seam = expected.find('\n', expected.find(newest)) + 1;
    EXPECT_TRUE(ring.substr(0, seam) == expected.substr(0, seam)) << lines;
    ASSERT_EQ(ring.size(), expected.size()) << lines;
    const std::size_t next = std::min(expected.find('\n', seam), expected.size());
    EXPECT_TRUE(ring.substr(next) == expected.substr(next)) << lines;
  }
}

CUL_CHILD(MarkARewindPoint) {
  TraceImplementation* trace = traceImplementation();
  struct stat info = {};
  const std::string& file = childArguments()[0];
  const auto size = [&] {
    EXPECT_EQ(stat(file.c_str(), &info), 0);
    return static_cast<unsigned>(info.st_size);
  };
  const unsigned header = size();
  trace->taggedTrace("f()", 1, "X", "kept for good");
  const unsigned withLine = size();
  EXPECT_GT(withLine, header);
  EXPECT_EQ(trace->setRewindPoint(), withLine + 73);
  EXPECT_EQ(size(), withLine + 73);
  EXPECT_EQ(trace->wrap(), static_cast<int>(withLine + 2 * 73));
  trace->pause(true);
  EXPECT_EQ(trace->wrap(), static_cast<int>(withLine + 3 * 73));
  trace->pause(false);
  const std::string text(1000, 'z');
  for (int i = 0; i < 5000; ++i) {
    trace->taggedTrace("f()", 1, "X", "%s", text.c_str());
  }
}

TEST(TraceRing, KeepsWhatStandsBeforeARewindPoint) {
  const TemporaryFolder folder;
  const std::string file = folder.file("trace");
  runWith("MarkARewindPoint", {{"QVX_DBG_TRACE", file + ",2"}}, {file});
  const Strings body = bodyOf(contentsOf(file));
  ASSERT_GT(body.size(), 4U);
  EXPECT_EQ(body[0], "**X: f(1): kept for good");
  EXPECT_EQ(body[1], separator);
  EXPECT_EQ(body[2], separator);
  EXPECT_EQ(body[3], separator);
  EXPECT_EQ(body[4], "**X: f(1): " + std::string(1000, 'z'));
  EXPECT_LE(std::filesystem::file_size(file), 2 * megabyte + 10000);
}

CUL_CHILD(FillTheRingToTheByte) {
  TraceImplementation* trace = traceImplementation();
  const auto size = [] {
    struct stat info = {};
    EXPECT_EQ(stat(childArguments()[0].c_str(), &info), 0);
    return static_cast<unsigned>(info.st_size);
  };
  constexpr unsigned lineSize = 1024;
  constexpr unsigned fitting = 2 * megabyte / lineSize;
  const auto write = [&](unsigned lines) {
    // Stamp, tag, function and line take 37 bytes and the newline 1.
    const std::string text(lineSize - 38, 'z');
    for (unsigned i = 0; i < lines; ++i) {
      trace->taggedTrace("f()", 1, "X", "%s", text.c_str());
    }
  };
  const unsigned first = trace->setRewindPoint();
  write(fitting);
  EXPECT_EQ(size(), first + 2 * megabyte) << "the last line still fits";
  write(1);
  EXPECT_EQ(size(), first + 2 * megabyte) << "one more does not";
  write(99);

  // A point in the second pass of the ring keeps what this pass has written, no more.
  const unsigned second = trace->setRewindPoint();
  EXPECT_EQ(second, first + 100 * lineSize + 73);
  EXPECT_EQ(size(), first + 2 * megabyte);
  write(fitting);
  EXPECT_EQ(size(), second + 2 * megabyte);
  write(2);
  EXPECT_EQ(size(), second + 2 * megabyte);
  EXPECT_EQ(trace->setRewindPoint(), second + 2 * lineSize + 73);
}

TEST(TraceRing, IsFullToTheByteBehindEachRewindPoint) {
  const TemporaryFolder folder;
  const std::string file = folder.file("trace");
  runWith("FillTheRingToTheByte", {{"QVX_DBG_TRACE", file + ",2"}}, {file});
}

// ---------------------------------------------------------------------------------------
// Pauses

CUL_CHILD(PauseAndResume) {
  TraceImplementation* trace = traceImplementation();
  const auto line = [&](const char* text) {
    taggedTrace("f()", 1, "X", "%s", text);
    trace->traceInternal("%s", text);
  };
  EXPECT_FALSE(trace->pause(false));  // not below 0
  line("1");
  EXPECT_TRUE(trace->pause(true));
  line("not 2");
  EXPECT_TRUE(trace->pause(true));
  line("not 3");
  EXPECT_TRUE(trace->pause(false));
  line("not 4");
  EXPECT_FALSE(trace->isActive());
  EXPECT_TRUE(isTraced(TraceType::active));
  EXPECT_FALSE(trace->pause(false));
  EXPECT_TRUE(trace->isActive());
  line("5");
  EXPECT_FALSE(trace->pause(false));
  line("6");
  EXPECT_TRUE(trace->pause(true));
  line("not 7");
}

TEST(TracePause, CountsAndKeepsEveryLineBack) {
  const ChildResult r = runWith("PauseAndResume", {{"QVX_DBG_TRACE", "stderr"}});
  const std::string own = "void TraceImplementation::traceInternal(718): ";
  EXPECT_THAT(bodyOf(r.err), ElementsAre("**X: f(1): 1", own + "1", "**X: f(1): 5", own + "5",
                                         "**X: f(1): 6", own + "6"));
}

// ---------------------------------------------------------------------------------------
// Forked children

// Writes a line, forks, lets the child write one before and one after processForked(), and
// writes another.
CUL_CHILD(ForkAndTrace) {
  TraceImplementation* trace = traceImplementation();
  taggedTrace("f()", 1, "X", "parent before");
  const pid_t child = fork();
  if (child == 0) {
    trace->processForked();
    const bool isOn = isTraced(TraceType::active);
    EXPECT_EQ(isOn, trace->isActive());
    EXPECT_EQ(isOn, trace->flags[TraceType::active]);
    if (!isOn) {
      EXPECT_TRUE(trace->pause(true));
      EXPECT_TRUE(trace->pause(false));
      EXPECT_FALSE(trace->isActive());
      trace->processForked();
      EXPECT_EQ(trace->wrap(), 0);
    }
    taggedTrace("f()", 2, "X", "child %d", static_cast<int>(getpid()));
    _exit(isOn ? 1 : 0);
  }
  const int status = statusOf(child);
  taggedTrace("f()", 3, "X", "parent %d: child %d has %s", static_cast<int>(getpid()),
              static_cast<int>(child), status == 1 ? "traced" : "not traced");
  EXPECT_LE(status, 1);
}

namespace {

// The numbers in the last line of ForkAndTrace.
struct Family {
  std::string parent;
  std::string child;
};

Family familyOf(const std::string& line) {
  int parent = 0;
  int child = 0;
  EXPECT_EQ(std::sscanf(line.c_str(), "**X: f(3): parent %d: child %d has ", &parent, &child), 2)
      << line;
  return {std::to_string(parent), std::to_string(child)};
}

}  // namespace

TEST(TraceAfterFork, ToAPlainFileStopsInTheChild) {
  const TemporaryFolder folder;
  const std::string file = folder.file("trace");
  runWith("ForkAndTrace", {{"QVX_DBG_TRACE", file + ",ALL,CHILD"}});
  EXPECT_THAT(bodyOf(contentsOf(file)),
              ElementsAre("**X: f(1): parent before", EndsWith("not traced")));
  EXPECT_THAT(filesIn(folder.path()), SizeIs(1));
}

TEST(TraceAfterFork, ToADirectoryGoesOnInANewFileWithChild) {
  const TemporaryFolder folder;
  runWith("ForkAndTrace", {{"GDIA_ID", "root"}, {"QVX_DBG_TRACE", folder.path() + ",CHILD,4"}});
  const Strings files = filesIn(folder.path());
  ASSERT_THAT(files, SizeIs(2));
  std::string parentsFile = contentsOf(folder.file(files[0]));
  std::string childsFile = contentsOf(folder.file(files[1]));
  if (!bodyOf(parentsFile).back().ends_with(" has traced")) {
    std::swap(parentsFile, childsFile);
  }
  const Strings parentsLines = bodyOf(parentsFile);
  ASSERT_THAT(parentsLines, ElementsAre("**X: f(1): parent before", EndsWith(" has traced")));
  const Family family = familyOf(parentsLines[1]);
  EXPECT_THAT(files, testing::UnorderedElementsAre("root." + family.parent + ".trc",
                                                   "root." + family.child + ".trc"));
  EXPECT_EQ(headerOf(childsFile).included, (Strings{"CHILD", "ERROR", "WARNING"}));
  EXPECT_EQ(headerOf(childsFile).size, "4Mb");
  EXPECT_THAT(bodyOf(childsFile), ElementsAre("**X: f(2): child " + family.child));
}

TEST(TraceAfterFork, ToADirectoryStopsInTheChildWithoutChild) {
  const TemporaryFolder folder;
  runWith("ForkAndTrace", {{"GDIA_ID", "root"}, {"QVX_DBG_TRACE", folder.path() + ",ALL"}});
  const Strings files = filesIn(folder.path());
  ASSERT_THAT(files, SizeIs(1));
  EXPECT_THAT(bodyOf(contentsOf(folder.file(files[0]))),
              ElementsAre("**X: f(1): parent before", EndsWith("not traced")));
}

TEST(TraceAfterFork, ToAStandardStreamStopsInTheChildWithoutChild) {
  const ChildResult r = runWith("ForkAndTrace", {{"QVX_DBG_TRACE", "stderr,ALL"}});
  EXPECT_THAT(bodyOf(r.err), ElementsAre("**X: f(1): parent before", EndsWith("not traced")));
}

TEST(TraceAfterFork, ToAStandardStreamGoesOnInTheChildWithChild) {
  for (const char* stream : {"stdout", "stderr"}) {
    const ChildResult r =
        runWith("ForkAndTrace", {{"QVX_DBG_TRACE", std::string(stream) + ",ALL,CHILD"}});
    const std::string& output = stream[3] == 'o' ? r.out : r.err;
    const Strings body = bodyOf(output);
    ASSERT_FALSE(body.empty()) << stream;
    const Family family = familyOf(body.back());
    EXPECT_THAT(body, AllOf(Contains("**X: f(1): parent before"),
                            Contains("**X: f(2): child " + family.child), Contains(separator)));
  }
}

CUL_CHILD(ForkAndLookAtDescriptors) {
  TraceImplementation* trace = traceImplementation();
  const int next = dup(STDERR_FILENO);
  close(next);
  const pid_t child = fork();
  if (child == 0) {
    trace->processForked();
    const bool isClosed = fcntl(STDERR_FILENO, F_GETFD) < 0 && errno == EBADF;
    const int copy = fcntl(next, F_GETFD);
    const bool goesOn = copy >= 0 && (copy & FD_CLOEXEC) != 0;
    _exit((isClosed ? 1 : 0) + (goesOn ? 2 : 0));
  }
  std::printf("%d", statusOf(child));
}

TEST(TraceAfterFork, ClosesTheStandardStreamAndGoesOnOnACopyOfItsDescriptor) {
  EXPECT_EQ(runWith("ForkAndLookAtDescriptors", {{"QVX_DBG_TRACE", ",ALL"}}).out, "1");
  EXPECT_EQ(runWith("ForkAndLookAtDescriptors", {{"QVX_DBG_TRACE", ",ALL,CHILD"}}).out, "3");
}

CUL_CHILD(ForkAndOpenAgain) {
  TraceImplementation* trace = traceImplementation();
  const pid_t child = fork();
  if (child == 0) {
    trace->processForked();
    trace->openFiles();
    taggedTrace("f()", 1, "X", "dropped");
    _exit(trace->isActive() ? 1 : 0);
  }
  EXPECT_EQ(statusOf(child), 0);
}

TEST(TraceAfterFork, DoesNotOpenAStandardStreamThatWasClosedForGood) {
  for (const char* stream : {"stdout", "stderr"}) {
    runWith("ForkAndOpenAgain", {{"QVX_DBG_TRACE", std::string(stream) + ",ALL"}});
  }
}

CUL_CHILD(ForkAGrandchild) {
  TraceImplementation* trace = traceImplementation();
  const pid_t child = fork();
  if (child == 0) {
    trace->processForked();
    const pid_t grandchild = fork();
    if (grandchild == 0) {
      trace->processForked();
      taggedTrace("f()", 1, "X", "grandchild");
      _exit(0);
    }
    const int status = statusOf(grandchild);
    taggedTrace("f()", 2, "X", "child");
    _exit(status);
  }
  EXPECT_EQ(statusOf(child), 0);
  taggedTrace("f()", 3, "X", "parent");
}

TEST(TraceAfterFork, GoesOnForGrandchildren) {
  const ChildResult r = runWith("ForkAGrandchild", {{"QVX_DBG_TRACE", "stderr,ALL,CHILD"}});
  EXPECT_THAT(bodyOf(r.err), AllOf(Contains("**X: f(1): grandchild"), Contains("**X: f(2): child"),
                                   Contains("**X: f(3): parent")));
}

CUL_CHILD(ForkAndFillTheRingOfTheChild) {
  TraceImplementation* trace = traceImplementation();
  const std::string text(1000, 'p');
  for (int i = 0; i < 1500; ++i) {
    trace->taggedTrace("f()", 1, "X", "%s", text.c_str());
  }
  const pid_t child = fork();
  if (child == 0) {
    trace->processForked();
    for (int i = 0; i < 5000; ++i) {
      trace->taggedTrace("f()", 1, "X", "%s", text.c_str());
    }
    _exit(0);
  }
  EXPECT_EQ(statusOf(child), 0);
  std::printf("%d", static_cast<int>(child));
}

TEST(TraceAfterFork, CountsTheChildsFileFromItsStart) {
  const TemporaryFolder folder;
  const ChildResult r =
      runWith("ForkAndFillTheRingOfTheChild", {{"QVX_DBG_TRACE", folder.path() + ",PMD,CHILD,2"}});
  const std::string output = contentsOf(folder.file(r.out + ".trc"));
  EXPECT_EQ(headerOf(output).included, (Strings{"CHILD", "PMD", "ERROR", "WARNING"}));
  EXPECT_LE(output.size(), 2 * megabyte + 4000);
  EXPECT_THAT(bodyOf(output), Contains("**X: f(1): " + std::string(1000, 'p')));
  EXPECT_EQ(output.find('\0'), std::string::npos);
}

// ---------------------------------------------------------------------------------------
// The end

CUL_CHILD(DestroyTheTrace) {
  TraceImplementation* trace = traceImplementation();
  EXPECT_TRUE(isTraced(TraceType::error));
  if (!childArguments().empty()) {
    trace->pause(true);
  }
  errno = 5;
  delete trace;
  EXPECT_EQ(errno, 5);
  for (const unsigned char flag : traceFlags.bytes) {
    EXPECT_EQ(flag, 0);
  }
  CUL_TRACE(TraceType::error, "f()", 1, "dropped");
  taggedTrace("f()", 2, "X", "dropped");
  std::printf("%d%d", fcntl(STDOUT_FILENO, F_GETFD) >= 0, fcntl(STDERR_FILENO, F_GETFD) >= 0);
}

TEST(TraceEnd, IsWrittenByTheDestructorWithTheTime) {
  const TemporaryFolder folder;
  const std::string file = folder.file("trace");
  const ChildResult r = runWith("DestroyTheTrace", {{"QVX_DBG_TRACE", file}});
  EXPECT_EQ(r.out, "11");
  const Strings body = bodyOf(contentsOf(file));
  ASSERT_THAT(body, SizeIs(2));
  EXPECT_THAT(body[0], testing::MatchesRegex(
                           "void TraceImplementation::traceInternal\\(718\\): Trace end at "
                           "(Mon|Tue|Wed|Thu|Fri|Sat|Sun) [A-Z][a-z][a-z] [ 0-9][0-9] "
                           "[0-9][0-9]:[0-9][0-9]:[0-9][0-9] [0-9][0-9][0-9][0-9]"));
  EXPECT_EQ(body[1], "");
}

TEST(TraceEnd, LeavesStandardStreamsOpen) {
  EXPECT_EQ(runWith("DestroyTheTrace", {{"QVX_DBG_TRACE", "stderr"}}).out, "11");
  EXPECT_THAT(runWith("DestroyTheTrace", {{"QVX_DBG_TRACE", "stdout"}}).out, EndsWith("\n11"));
}

TEST(TraceEnd, IsNotWrittenWhilePaused) {
  const ChildResult r = runWith("DestroyTheTrace", {{"QVX_DBG_TRACE", "stderr"}}, {"paused"});
  EXPECT_THAT(bodyOf(r.err), IsEmpty());
}

CUL_CHILD(DestroyATraceThatIsOff) { delete traceImplementation(); }

TEST(TraceEnd, IsSilentWhenTracingIsOff) {
  EXPECT_EQ(runWith("DestroyATraceThatIsOff", {}).err, "");
}

CUL_CHILD(BeginAgainAfterTheEnd) {
  delete traceImplementation();
  taggedTrace("f()", 1, "X", "dropped");
  TraceImplementation::instance(L"stdout,PMD,3");
  taggedTrace("f()", 2, "X", "begun again");
}

TEST(TraceEnd, IsFollowedByANewTraceOnlyWhenThatIsAskedFor) {
  const ChildResult r = runWith("BeginAgainAfterTheEnd", {{"QVX_DBG_TRACE", "stderr"}});
  EXPECT_THAT(bodyOf(r.err), ElementsAre(HasSubstr("Trace end at "), ""));
  EXPECT_EQ(headerOf(r.out).size, "3Mb");
  EXPECT_THAT(bodyOf(r.out), ElementsAre("**X: f(2): begun again"));
}

CUL_CHILD(ForkAfterTheEnd) {
  delete traceImplementation();
  const pid_t child = fork();
  if (child == 0) {
    taggedTrace("f()", 1, "X", "dropped");
    _exit(isTraced(TraceType::active) ? 1 : 0);
  }
  EXPECT_EQ(statusOf(child), 0);
}

TEST(TraceEnd, LeavesForksAlone) {
  const ChildResult r = runWith("ForkAfterTheEnd", {{"QVX_DBG_TRACE", "stderr"}});
  EXPECT_THAT(bodyOf(r.err), ElementsAre(HasSubstr("Trace end at "), ""));
}

namespace {

// Made before main and destroyed after exit, in the child case that switches it on.
struct EarlyAndLate {
  EarlyAndLate() {
    if (const char* value = getenv("TEST_TRACES_EARLY"); value != nullptr) {
      CUL_TRACE(TraceType::error, "f()", 1, "before main");
    }
  }
  ~EarlyAndLate() {
    if (getenv("TEST_TRACES_EARLY") != nullptr) {
      CUL_TRACE(TraceType::error, "f()", 3, "after exit");
    }
  }
};

const EarlyAndLate earlyAndLate;

}  // namespace

CUL_CHILD(TraceInMain) {
  std::atexit([] { taggedTrace("f()", 2, "ERROR", "at exit"); });
  taggedTrace("f()", 1, "ERROR", "in main");
  std::exit(0);
}

TEST(TraceEnd, ComesAfterStaticDestructorsAndTheStartBeforeStaticConstructors) {
  for (const char* stream : {"stdout", "stderr"}) {
    const ChildResult r =
        runWith("TraceInMain", {{"TEST_TRACES_EARLY", "1"}, {"QVX_DBG_TRACE", stream}});
    EXPECT_THAT(bodyOf(stream[3] == 'o' ? r.out : r.err),
                ElementsAre("**ERROR: f(1): before main", "**ERROR: f(1): in main",
                            "**ERROR: f(2): at exit", "**ERROR: f(3): after exit"));
  }
}

// ---------------------------------------------------------------------------------------
// Threads

CUL_CHILD(TraceFromManyThreads) {
  EXPECT_TRUE(isTraced(TraceType::error));
  std::vector<std::thread> threads;
  for (int thread = 0; thread < 4; ++thread) {
    threads.emplace_back([thread] {
      for (int i = 0; i < 500; ++i) {
        taggedTrace(
            "f()", 1, "X", "%d %03d %s", thread, i,
            std::string(static_cast<std::size_t>(i % 97), static_cast<char>('a' + thread)).c_str());
        if (i % 50 == 0) {
          traceImplementation()->setRewindPoint();
        }
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
}

TEST(TraceThreads, WriteWholeLines) {
  const TemporaryFolder folder;
  const std::string file = folder.file("trace");
  runWith("TraceFromManyThreads", {{"QVX_DBG_TRACE", file}});
  std::multiset<std::string> expected;
  for (int thread = 0; thread < 4; ++thread) {
    for (int i = 0; i < 500; ++i) {
      char text[160];
      std::snprintf(
          text, sizeof text, "**X: f(1): %d %03d %s", thread, i,
          std::string(static_cast<std::size_t>(i % 97), static_cast<char>('a' + thread)).c_str());
      expected.insert(text);
      if (i % 50 == 0) {
        expected.insert(separator);
      }
    }
  }
  const Strings body = bodyOf(contentsOf(file));
  EXPECT_TRUE(std::multiset<std::string>(body.begin(), body.end()) == expected);
}

CUL_CHILD(ForkWhileOthersTrace) {
  EXPECT_TRUE(isTraced(TraceType::error));
  std::atomic<bool> isDone = false;
  std::vector<std::thread> threads;
  for (int thread = 0; thread < 2; ++thread) {
    threads.emplace_back([&] {
      while (!isDone) {
        taggedTrace("f()", 1, "X", "busy");
      }
    });
  }
  // Nor must the child wait for the lock of the string pool.
  threads.emplace_back([&] {
    while (!isDone) {
      const ByteString text("short");
    }
  });
  for (int i = 0; i < 100; ++i) {
    const pid_t child = fork();
    if (child == 0) {
      alarm(60);
      taggedTrace("f()", 2, "X", "child before");
      traceImplementation()->processForked();
      taggedTrace("f()", 3, "X", "child after");
      _exit(isTraced(TraceType::active) ? 0 : 9);
    }
    EXPECT_EQ(statusOf(child), 0) << i;
  }
  isDone = true;
  for (std::thread& thread : threads) {
    thread.join();
  }
}

TEST(TraceThreads, DoNotHoldUpAForkedChild) {
  const TemporaryFolder folder;
  runWith("ForkWhileOthersTrace", {{"QVX_DBG_TRACE", folder.path() + ",PMD,CHILD,511"}});
  unsigned children = 0;
  for (const std::string& name : filesIn(folder.path())) {
    const Strings body = bodyOf(contentsOf(folder.file(name)));
    if (body == Strings{"**X: f(3): child after"}) {
      ++children;
      continue;
    }
    for (const std::string& line : body) {
      EXPECT_THAT(line, testing::AnyOf("**X: f(1): busy", "**X: f(2): child before"));
    }
  }
  EXPECT_EQ(children, 100U);
}

namespace {

// Under a sanitizer, too, faults are to reach the library's handlers, and the ends of
// threads and the reports that come out of a signal handler are meant.
Environment withSignalsLeftAlone(Environment environment) {
  for (const char* name : {"ASAN_OPTIONS", "TSAN_OPTIONS"}) {
    const char* options = getenv(name);
    environment[name] = (options != nullptr ? options + std::string(":") : "") +
                        "handle_segv=0:report_signal_unsafe=0";
  }
  return environment;
}

}  // namespace

CUL_CHILD(EndThreadsWhileTheyTrace) {
  class Busy : public StdThread {
   public:
    Busy(Termination& termination, std::atomic<unsigned>& lines)
        : StdThread("busy", 0, &termination), lines_(lines) {}
    void run() override {
      for (;;) {
        for (int i = 0; i < 20; ++i) {
          taggedTrace("f()", 1, "X", "busy");
        }
        lines_ += 20;
        StdThread::thread_yield();
      }
    }

   private:
    std::atomic<unsigned>& lines_;
  };
  EXPECT_TRUE(isTraced(TraceType::error));
  for (int i = 0; i < 20; ++i) {
    StdThread::Termination termination;
    std::atomic<unsigned> lines = 0;
    auto* thread = new Busy(termination, lines);
    thread->start_thread(0);
    while (lines < 10) {
      StdThread::thread_yield();
    }
    EXPECT_EQ(thread->requestTerminate(), 0);
    EXPECT_EQ(termination.wait(0), 0);
    taggedTrace("f()", 2, "X", "next");
  }
}

TEST(TraceThreads, AskedToEndWhileTheyTraceLeaveTheTraceUsable) {
  const TemporaryFolder folder;
  const std::string file = folder.file("trace");
  runWith("EndThreadsWhileTheyTrace", withSignalsLeftAlone({{"QVX_DBG_TRACE", file}}));
  unsigned next = 0;
  for (const std::string& line : bodyOf(contentsOf(file))) {
    next += line == "**X: f(2): next" ? 1 : 0;
    EXPECT_THAT(line, testing::AnyOf(EndsWith("**X: f(1): busy"), "**X: f(2): next",
                                     HasSubstr("Starting thread busy")));
  }
  EXPECT_EQ(next, 20U);
}

CUL_CHILD(RecoverFromATraceCall) {
  registerErrorHandlers();
  EXPECT_TRUE(isTraced(TraceType::error));
  StdThread* self = StdThread::currentThread();
  if (self->_setjmp() == 0) {
    const char* volatile text = reinterpret_cast<const char*>(8);
    taggedTrace("f()", 1, "X", "%s", text);
    ADD_FAILURE() << "came back";
  }
  self->clearjmp();
  std::thread([] { taggedTrace("f()", 2, "X", "from another thread"); }).join();
}

TEST(TraceThreads, ThatRecoverFromAFaultInATraceCallLeaveTheTraceUsable) {
  const ChildResult r =
      runWith("RecoverFromATraceCall", withSignalsLeftAlone({{"QVX_DBG_TRACE", "stdout,CLI,PMD"}}));
  EXPECT_THAT(bodyOf(r.out), Contains("**X: f(2): from another thread"));
}

// ---------------------------------------------------------------------------------------
// Lack of memory

CUL_CHILD(ConfigureWithoutMemory) {
  copiesFail = true;
  errno = 77;
  EXPECT_FALSE(isTraced(TraceType::error));
  EXPECT_EQ(errno, 77);
  copiesFail = false;
  TraceImplementation* trace = traceImplementation();
  EXPECT_FALSE(trace->isTraceBitSet(nullptr));
  trace->openFiles();
  EXPECT_FALSE(trace->isActive());
  taggedTrace("f()", 1, "ERROR", "dropped");
}

TEST(TraceWithoutMemory, IsOffWhenItCannotBeConfigured) {
  EXPECT_EQ(runWith("ConfigureWithoutMemory", {{"QVX_DBG_TRACE", "stderr"}}).err, "");
}

// The sanitizers' allocators do not live with a limit.

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)

CUL_CHILD(TraceWithoutMemory) {
  TraceImplementation::add(*new List<ByteString*>, ByteString("first use of the pools"));
  void* const reserve = malloc(100000);
  struct rlimit limit = {};
  ASSERT_EQ(getrlimit(RLIMIT_AS, &limit), 0);
  limit.rlim_cur = 0;
  ASSERT_EQ(setrlimit(RLIMIT_AS, &limit), 0);
  // Small blocks are left, one of the size of the line buffer is not.
  while (malloc(1000) != nullptr) {
  }
  free(reserve);
  const std::string text(10000, 'q');
  taggedTrace("f()", 1, "X", "%.3000s", text.c_str());
  taggedTrace("f()", 2, "X", "short");
}

TEST(TraceWithoutMemory, WritesShorterLines) {
  const ChildResult r = runWith("TraceWithoutMemory", {{"QVX_DBG_TRACE", "stderr"}});
  const Strings lines = linesOf(r.err);
  const Strings body = bodyOf(r.err);
  ASSERT_EQ(body.size(), 2U) << r.err;
  EXPECT_EQ(body[1], "**X: f(2): short");
  EXPECT_THAT(body[0], StartsWith("**X: f(1): qqq"));
  EXPECT_EQ(lines[lines.size() - 2].size(), 2048U - 1);
}

#endif
