#include "Engine/utilities/DebuggerParameters.h"

#include <algorithm>
#include <cstdlib>
#include <sstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/settings/ParameterSupport.h"
#include "tests/support/Child.h"
#include "tests/support/TracedChild.h"

namespace {

using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

using P = DebuggerParameters;

// The option table once more, typed apart from the library's.
struct Row {
  std::string name;
  int type;
  unsigned minimum;
  bool equals;
  unsigned mask;
  bool further;
};

const std::vector<Row> table = {
    {"--", 1, 2, false, 0x02, false},
    {"-?", 2, 2, false, 0x7f, false},
    {"-a", 3, 2, false, 0x02, false},
    {"-help", 2, 2, false, 0x7f, false},
    {"-i", 4, 2, false, 0x02, true},
    {"-p-", 5, 3, false, 0x7f, true},
    {"-qcache", 6, 4, true, 0x01, false},
    {"-qconsole", 7, 4, true, 0x02, false},
    {"-qdaemon", 30, 5, true, 0x01, false},
    {"-qdepth", 18, 5, true, 0x7f, false},
    {"-qdisplay", 8, 3, true, 0x06, false},
    {"-qdxpllevel", 9, 11, true, 0x7f, false},
    {"-qdxpldump", 10, 10, true, 0x7f, false},
    {"-qExecBy", 31, 8, true, 0x7f, false},
    {"-qhost", 11, 3, true, 0x7f, false},
    {"-qlang", 13, 6, true, 0x7f, false},
    {"-qpid", 3, 5, true, 0x7f, false},
    {"-qquiet", 15, 3, false, 0x7f, false},
    {"-qrunTo", 16, 7, true, 0x06, false},
    {"-qteamuser", 17, 6, true, 0x7f, true},
    {"-qtrace", 19, 7, true, 0x7f, false},
    {"-startupKey", 21, 3, true, 0x7f, true},
    {"-s", 22, 2, false, 0x7f, true},
    {"-qsci", 24, 5, false, 0x02, false},
    {"-qserial", 12, 8, true, 0x02, false},
    {"-qdebugloc", 29, 3, true, 0x02, false},
    {"-qhport", 28, 4, true, 0x01, false},
    {"-qhrdmport", 26, 10, true, 0x01, false},
    {"-qhrdmhost", 25, 10, true, 0x01, false},
    {"-qhrdmkey", 27, 9, true, 0x01, false},
    {"-qsecure", 32, 8, true, 0x01, false},
    {"-qkeystoreloc", 33, 13, true, 0x01, false},
    {"-qkeystorepass", 34, 14, true, 0x01, false},
    {"-qCheckAllCerts", 35, 15, true, 0x01, false},
    {"-qsocketfd", 36, 1, true, 0x01, false},
    {"-qprobepid", 37, 1, true, 0x01, false},
    {"-qdownloadzip", 38, 1, true, 0x01, false},
    {"-qhprotocol", 39, 1, true, 0x01, false},
    {"-qFallbackUnencrypted", 40, 21, true, 0x01, false},
};

// What an argument must be recorded as: "name=value", or empty when no row matches.
std::string expectedPair(const std::string& arg) {
  if (arg == "--") {
    return "--=";
  }
  if (arg.size() >= 3 && arg.starts_with("-a")) {
    return "-qpid=" + arg.substr(2);
  }
  for (const Row& row : table) {
    const size_t separator = arg.find(row.equals ? '=' : ' ');
    const std::string word = arg.substr(0, separator);
    if (row.mask % 2 == 1 && word.size() >= row.minimum && row.name.starts_with(word)) {
      return row.name + '=' + (separator == std::string::npos ? "" : arg.substr(separator + 1));
    }
  }
  return {};
}

// What an argument without a next one is recorded as, checked against the invalid arguments.
std::string recordedPair(const std::string& arg) {
  NoParameters parameters;
  EXPECT_EQ(parameters.add(arg), 1U);
  const std::vector<std::string> pairs = pairsOf(parameters.debuggerArguments());
  if (pairs.empty()) {
    EXPECT_THAT(invalidOf(parameters), ElementsAre(arg));
    return {};
  }
  EXPECT_EQ(pairs.size(), 1U);
  return pairs[0];
}

// The full name that an argument selects.
std::string selected(const std::string& arg) {
  const std::string pair = recordedPair(arg);
  return pair.substr(0, pair.find('='));
}

int yesNo(const char* text) {
  CharString word = wide(text);
  const int result = P::yesNo(word);
  EXPECT_EQ(plain(word), text);
  return result;
}

std::string unquoted(const char* text) { return plain(P::unquote(wide(text))); }

}  // namespace

// The option table

TEST(DebuggerParameters, HasTheTableOfOptionsToTheLetter) {
  const auto options = P::options();
  ASSERT_EQ(options.size(), table.size());
  for (size_t i = 0; i < table.size(); ++i) {
    SCOPED_TRACE(table[i].name);
    EXPECT_EQ(plain(CharString(options[i].name)), table[i].name);
    EXPECT_EQ(static_cast<int>(options[i].type), table[i].type);
    EXPECT_EQ(options[i].minimum, table[i].minimum);
    EXPECT_EQ(options[i].valueWithEquals, table[i].equals);
    EXPECT_EQ(options[i].programs, table[i].mask);
    EXPECT_EQ(options[i].further, table[i].further);
    EXPECT_EQ(options[i].isRecognised(), table[i].mask % 2 == 1);
  }
}

TEST(DebuggerParameters, SelectsTheFirstRowThatEveryAbbreviationOfEveryOptionNames) {
  unsigned matched = 0;
  unsigned invalid = 0;
  for (const Row& row : table) {
    for (size_t n = 1; n <= row.name.size() + 1; ++n) {
      // The last round goes on behind the name.
      const std::string word = n <= row.name.size() ? row.name.substr(0, n) : row.name + 'x';
      for (const char* value : {"", "=", "=some value", " ", " some=value", "x=v"}) {
        const std::string arg = word + value;
        SCOPED_TRACE(arg);
        const std::string expected = expectedPair(arg);
        EXPECT_EQ(recordedPair(arg), expected);
        ++(expected.empty() ? invalid : matched);
      }
    }
  }
  // Both kinds are met.
  EXPECT_GT(matched, 400U);
  EXPECT_GT(invalid, 400U);
}

TEST(DebuggerParameters, LetsTheRowsWithAMinimumOfOneTakeWhatNoEarlierRowClaims) {
  EXPECT_EQ(selected("-"), "-qsocketfd");
  EXPECT_EQ(selected("-q"), "-qsocketfd");
  EXPECT_EQ(selected("-qs"), "-qsocketfd");
  EXPECT_EQ(selected("-qso"), "-qsocketfd");
  EXPECT_EQ(selected("-qp"), "-qprobepid");
  EXPECT_EQ(selected("-qd"), "-qdownloadzip");
  EXPECT_EQ(selected("-qdo"), "-qdownloadzip");
  EXPECT_EQ(selected("-qhpr"), "-qhprotocol");
  EXPECT_EQ(recordedPair("-q=5"), "-qsocketfd=5");
  EXPECT_EQ(recordedPair("-=5"), "-qsocketfd=5");
}

TEST(DebuggerParameters, PrefersAnEarlierRowWhereTheMinimumAllowsIt) {
  EXPECT_EQ(selected("-qh"), "-qhost");
  EXPECT_EQ(selected("-qq"), "-qquiet");
  EXPECT_EQ(selected("-qhp"), "-qhport");
  EXPECT_EQ(selected("-qhpo"), "-qhport");
  EXPECT_EQ(selected("-h"), "-help");
  EXPECT_EQ(selected("-s"), "-s");
  EXPECT_EQ(selected("-st"), "-startupKey");
}

TEST(DebuggerParameters, AsksForTheMinimumOfEachOption) {
  EXPECT_EQ(selected("-qdaem"), "-qdaemon");
  EXPECT_EQ(selected("-qdaemon"), "-qdaemon");
  EXPECT_EQ(selected("-qdae"), "-qdaemon");
  EXPECT_EQ(selected("-qda"), "");
  EXPECT_EQ(selected("-qpid"), "-qpid");
  EXPECT_EQ(selected("-qpi"), "");
  EXPECT_EQ(selected("-qkeystoreloc"), "-qkeystoreloc");
  EXPECT_EQ(selected("-qkeystorelo"), "");
  EXPECT_EQ(selected("-qFallbackUnencrypte"), "");
  EXPECT_EQ(selected("-qFallbackUnencrypted"), "-qFallbackUnencrypted");
}

TEST(DebuggerParameters, DoesNotKnowTheOptionsOfOtherPrograms) {
  for (const char* arg : {"-qconsole", "-qdisplay", "-i", "-qrunTo", "-qsci", "-qserial",
                          "-qdebugloc", "-a", "-qdi", "-qconsole=yes"}) {
    EXPECT_EQ(selected(arg), "") << arg;
  }
}

TEST(DebuggerParameters, KnowsOptionsByTheCaseOfTheirLetters) {
  EXPECT_EQ(selected("-QPID=1"), "");
  EXPECT_EQ(selected("-qexecby"), "");
  EXPECT_EQ(selected("-qExecBy"), "-qExecBy");
}

TEST(DebuggerParameters, NamesAnOptionByTheFirstRowOfItsType) {
  EXPECT_EQ(plain(P::parmName(P::parmEnd)), "--");
  EXPECT_EQ(plain(P::parmName(P::parmHelp)), "-?");
  EXPECT_EQ(plain(P::parmName(P::parmPid)), "-a");
  EXPECT_EQ(plain(P::parmName(P::parmHost)), "-qhost");
  for (const Row& row : table) {
    const auto first =
        std::find_if(table.begin(), table.end(), [&](const Row& r) { return r.type == row.type; });
    EXPECT_EQ(plain(P::parmName(static_cast<P::ParmType>(row.type))), first->name);
  }
  for (const int none : {0, 14, 20, 23, 41, -1}) {
    EXPECT_EQ(plain(P::parmName(static_cast<P::ParmType>(none))), "") << none;
  }
}

// Values

TEST(DebuggerParameters, TakesAnAttachedValue) {
  NoParameters parameters;
  EXPECT_EQ(parameters.add("-qhost=here", "there"), 1U);
  EXPECT_EQ(parameters.add("-qhpo=8001", "there"), 1U);
  EXPECT_EQ(parameters.add("-qlang=a=b c", "there"), 1U);
  EXPECT_THAT(pairsOf(parameters.debuggerArguments()),
              ElementsAre("-qhost=here", "-qhport=8001", "-qlang=a=b c"));
  EXPECT_EQ(plain(parameters.parm(P::parmHost)), "here");
  EXPECT_EQ(plain(parameters.parm(P::parmHPort)), "8001");
  EXPECT_EQ(plain(parameters.parm(P::parmCache)), "");
}

TEST(DebuggerParameters, TakesTheNextArgumentForAValueThatIsNotAttached) {
  for (const Row& row : table) {
    if (row.mask % 2 == 1) {
      NoParameters parameters;
      EXPECT_EQ(parameters.add(row.name, "yes"), row.equals ? 2U : 1U) << row.name;
      EXPECT_EQ(plain(parameters.parm(static_cast<P::ParmType>(row.type))),
                row.equals ? "yes" : "");
      EXPECT_THAT(invalidOf(parameters), IsEmpty());
    }
  }
}

TEST(DebuggerParameters, DoesNotTakeTheNextOptionForAValue) {
  NoParameters parameters;
  EXPECT_EQ(parameters.add("-qhost", "-qquiet"), 1U);
  EXPECT_EQ(parameters.add("-qcache", "-"), 1U);
  EXPECT_EQ(parameters.add("-qlang", ""), 1U);
  EXPECT_EQ(parameters.add("-qtrace=", "value"), 1U);
  EXPECT_THAT(pairsOf(parameters.debuggerArguments()),
              ElementsAre("-qhost=", "-qcache=", "-qlang=", "-qtrace="));
  EXPECT_FALSE(parameters.quiet());
}

TEST(DebuggerParameters, TakesAValueBehindABlankWhereThereCanBeNoEqualsSign) {
  NoParameters parameters;
  EXPECT_EQ(parameters.add("-p- some text", "next"), 1U);
  EXPECT_EQ(parameters.add("-help me", "next"), 1U);
  EXPECT_EQ(parameters.add("-qquiet "), 1U);
  EXPECT_THAT(pairsOf(parameters.debuggerArguments()),
              ElementsAre("-p-=some text", "-help=me", "-qquiet="));
  EXPECT_EQ(plain(parameters.parm(P::parmP)), "some text");
  EXPECT_TRUE(parameters.helpRequested());
  EXPECT_TRUE(parameters.quiet());
  EXPECT_EQ(selected("-qhost name"), "");
  EXPECT_EQ(selected("-qquiet=yes"), "");
}

TEST(DebuggerParameters, DoesNotTakeTheOtherSeparator) {
  EXPECT_EQ(recordedPair("-qquiet=1"), "");
  EXPECT_EQ(recordedPair("-help=1"), "");
  EXPECT_EQ(recordedPair("-qhost name"), "");
}

TEST(DebuggerParameters, RecordsOptionsUnderTheirFullNames) {
  NoParameters parameters;
  parameters.add("-qh=one");
  parameters.add("-qdownl=no");
  parameters.add("-h");
  EXPECT_THAT(pairsOf(parameters.debuggerArguments()),
              ElementsAre("-qhost=one", "-qdownloadzip=no", "-help="));
}

TEST(DebuggerParameters, GivesTheValueOfTheOptionGivenLast) {
  NoParameters parameters;
  parameters.add("-qhost=one");
  parameters.add("-qh=two");
  EXPECT_THAT(pairsOf(parameters.debuggerArguments()), ElementsAre("-qhost=one", "-qhost=two"));
  EXPECT_EQ(plain(parameters.parm(P::parmHost)), "two");
}

TEST(DebuggerParameters, FindsAValueUnderAnyNameOfItsType) {
  NoParameters parameters;
  parameters.add("-help text");
  EXPECT_EQ(plain(parameters.parm(P::parmHelp)), "text");
  parameters.add("-? other");
  EXPECT_EQ(plain(parameters.parm(P::parmHelp)), "other");
  EXPECT_EQ(plain(parameters.parm(static_cast<P::ParmType>(0))), "");
}

// Help and quiet

TEST(DebuggerParameters, RequestsHelpUnderBothNames) {
  for (const char* arg : {"-?", "-help", "-hel", "-h"}) {
    NoParameters parameters;
    EXPECT_FALSE(parameters.helpRequested());
    EXPECT_EQ(parameters.add(arg, "next"), 1U);
    EXPECT_TRUE(parameters.helpRequested()) << arg;
    EXPECT_FALSE(parameters.quiet());
  }
}

TEST(DebuggerParameters, IsQuietOnDemand) {
  NoParameters parameters;
  EXPECT_FALSE(parameters.quiet());
  EXPECT_EQ(parameters.add("-qquiet", "next"), 1U);
  EXPECT_TRUE(parameters.quiet());
  EXPECT_FALSE(parameters.helpRequested());
}

// Attaching

TEST(DebuggerParameters, DoesNotAttachUnasked) {
  NoParameters parameters;
  EXPECT_EQ(plain(parameters.attach()), "");
  parameters.add("-qprobepid=5");
  EXPECT_EQ(plain(parameters.attach()), "");
  parameters.add("prog");
  EXPECT_EQ(plain(parameters.attach()), "");
  EXPECT_EQ(plain(parameters.debuggeeName()), "prog");
}

TEST(DebuggerParameters, AttachesInThreeForms) {
  struct Form {
    const char* arg;
    const char* next;
    unsigned used;
  };
  for (const auto& [arg, next, used] :
       {Form{"-qpid=123", "456", 1}, {"-qpid", "123", 2}, {"-a123", "456", 1}}) {
    SCOPED_TRACE(arg);
    NoParameters parameters;
    EXPECT_EQ(parameters.add(arg, next), used);
    EXPECT_EQ(plain(parameters.attach()), "123");
    EXPECT_EQ(plain(parameters.debuggeeName()), "123");
    EXPECT_EQ(plain(parameters.parm(P::parmPid)), "123");
    EXPECT_THAT(pairsOf(parameters.debuggerArguments()), ElementsAre("-qpid=123"));
    EXPECT_THAT(invalidOf(parameters), IsEmpty());
    EXPECT_TRUE(parameters.isDebuggerArg(wide("-qquiet")));
  }
}

TEST(DebuggerParameters, TakesTheShortFormOfAttachOnlyOnce) {
  NoParameters parameters;
  EXPECT_EQ(parameters.add("-a", "123"), 1U);
  EXPECT_EQ(plain(parameters.attach()), "");
  EXPECT_EQ(parameters.add("-ax"), 1U);
  EXPECT_EQ(plain(parameters.attach()), "x");
  EXPECT_EQ(parameters.add("-ay"), 1U);
  EXPECT_EQ(plain(parameters.attach()), "x");
  EXPECT_THAT(invalidOf(parameters), ElementsAre("-a", "-ay"));
  EXPECT_EQ(parameters.add("-qpid=z"), 1U);
  EXPECT_EQ(plain(parameters.attach()), "z");
  EXPECT_EQ(plain(parameters.parm(P::parmPid)), "z");
}

TEST(DebuggerParameters, DoesNotAttachToNothing) {
  for (const char* arg : {"-qpid", "-qpid="}) {
    NoParameters parameters;
    EXPECT_EQ(parameters.add(arg, arg[5] == '=' ? "123" : "-qquiet"), 1U);
    EXPECT_EQ(plain(parameters.attach()), "");
    EXPECT_EQ(plain(parameters.debuggeeName()), "");
    EXPECT_THAT(pairsOf(parameters.debuggerArguments()), ElementsAre("-qpid="));
    EXPECT_THAT(invalidOf(parameters), ElementsAre(arg));
  }
}

// Daemon and download

TEST(DebuggerParameters, IsADaemonWhenToldYes) {
  NoParameters parameters;
  EXPECT_FALSE(parameters.daemon());
  EXPECT_EQ(parameters.add("-qdaemon=y"), 1U);
  EXPECT_TRUE(parameters.daemon());
  EXPECT_EQ(parameters.add("-qdaemon=no"), 1U);
  EXPECT_FALSE(parameters.daemon());
  EXPECT_EQ(parameters.add("-qdaem", "YES"), 2U);
  EXPECT_TRUE(parameters.daemon());
  EXPECT_EQ(parameters.add("-qdaemon", "N"), 2U);
  EXPECT_FALSE(parameters.daemon());
  EXPECT_THAT(invalidOf(parameters), IsEmpty());
}

TEST(DebuggerParameters, CollectsADaemonThatIsNeitherYesNorNo) {
  NoParameters parameters;
  parameters.add("-qdaemon=yes");
  EXPECT_EQ(parameters.add("-qdaemon=maybe"), 1U);
  EXPECT_EQ(parameters.add("-qdae", "maybe"), 2U);
  EXPECT_EQ(parameters.add("-qdaemon"), 1U);
  EXPECT_TRUE(parameters.daemon());
  EXPECT_THAT(invalidOf(parameters), ElementsAre("-qdaemon=maybe", "-qdae maybe", "-qdaemon"));
  EXPECT_THAT(pairsOf(parameters.debuggerArguments()),
              ElementsAre("-qdaemon=yes", "-qdaemon=maybe", "-qdaemon=maybe", "-qdaemon="));
}

TEST(DebuggerParameters, DownloadsOnDemand) {
  struct Case {
    const char* arg;
    bool wanted;
    bool forced;
  };
  for (const auto& [arg, wanted, forced] : {Case{"-qdownloadzip=no", false, false},
                                            {"-qdownloadzip=force", true, true},
                                            {"-qdownloadzip=yes", true, false},
                                            {"-qdownloadzip=NO", true, false},
                                            {"-qdownloadzip=Force", true, false},
                                            {"-qdownloadzip=n", true, false},
                                            {"-qdownloadzip=", true, false},
                                            {"-qdownloadzip", true, false},
                                            {"-qd=force", true, true}}) {
    NoParameters parameters;
    EXPECT_FALSE(parameters.downloadWanted());
    EXPECT_FALSE(parameters.downloadForced());
    parameters.add(arg);
    EXPECT_EQ(parameters.downloadWanted(), wanted) << arg;
    EXPECT_EQ(parameters.downloadForced(), forced) << arg;
  }
}

TEST(DebuggerParameters, NoLongerWantsADownloadThatIsTakenBack) {
  NoParameters parameters;
  parameters.add("-qdownloadzip", "force");
  parameters.add("-qdownloadzip", "no");
  EXPECT_FALSE(parameters.downloadWanted());
  EXPECT_TRUE(parameters.downloadForced());
}

// Start-up key

TEST(DebuggerParameters, HasNoStartUpKeyUnlessGiven) {
  NoParameters parameters;
  EXPECT_EQ(plain(parameters.startupKey()), "");
  EXPECT_EQ(plain(parameters.startupKeyArg()), "");
  parameters.add("-startupKey=");
  EXPECT_EQ(plain(parameters.startupKey()), "");
  EXPECT_EQ(plain(parameters.startupKeyArg()), "");
}

TEST(DebuggerParameters, PartsTheStartUpKeyFromItsArgument) {
  struct Case {
    const char* given;
    const char* key;
    const char* argument;
  };
  for (const auto& [given, key, argument] : {Case{"CLIP", "CLIP", "JETCLIP"},
                                             {"CLIP ", "CLIP", "JETCLIP"},
                                             {"CLIP other", "CLIP", "other"},
                                             {"CLIP two words", "CLIP", "two words"},
                                             {"CLIPS", "CLIPS", ""},
                                             {"clip", "clip", ""},
                                             {"KEY", "KEY", ""},
                                             {"KEY argument", "KEY", "argument"},
                                             {"k=e=y", "k=e=y", ""}}) {
    NoParameters attached;
    EXPECT_EQ(attached.add(std::string("-startupKey=") + given), 1U);
    NoParameters following;
    EXPECT_EQ(following.add("-st", given), 2U);
    for (const P* parameters : {&attached, &following}) {
      EXPECT_EQ(plain(parameters->startupKey()), key) << given;
      EXPECT_EQ(plain(parameters->startupKeyArg()), argument) << given;
      EXPECT_EQ(plain(parameters->parm(P::parmStartupKey)), given);
    }
  }
}

// The end of the debugger's arguments

TEST(DebuggerParameters, TellsItsOwnOptionsByTheirFirstCharacter) {
  NoParameters parameters;
  EXPECT_FALSE(parameters.isDebuggerArg(wide("")));
  EXPECT_TRUE(parameters.isDebuggerArg(wide("-")));
  EXPECT_TRUE(parameters.isDebuggerArg(wide("--")));
  EXPECT_TRUE(parameters.isDebuggerArg(wide("-unknown")));
  EXPECT_FALSE(parameters.isDebuggerArg(wide("prog")));
  EXPECT_FALSE(parameters.isDebuggerArg(wide("p-")));
  EXPECT_FALSE(parameters.isDebuggerArg(wide("/bin/prog")));
}

TEST(DebuggerParameters, HasNoOptionsBehindTheirEnd) {
  for (const char* end : {"--", "-s", "-s value", "prog", ""}) {
    NoParameters parameters;
    EXPECT_EQ(parameters.add(end, "next"), 1U);
    EXPECT_FALSE(parameters.isDebuggerArg(wide("-qquiet"))) << end;
    EXPECT_FALSE(parameters.isDebuggerArg(wide("--"))) << end;
    EXPECT_THAT(invalidOf(parameters), IsEmpty());
  }
}

TEST(DebuggerParameters, RecordsTheOptionThatEndsTheOptions) {
  NoParameters parameters;
  parameters.add("--");
  EXPECT_THAT(pairsOf(parameters.debuggerArguments()), ElementsAre("--="));
  NoParameters other;
  other.add("-s value");
  EXPECT_THAT(pairsOf(other.debuggerArguments()), ElementsAre("-s=value"));
}

TEST(DebuggerParameters, TakesTwoDashesForAnEndOnlyAlone) {
  EXPECT_EQ(selected("--x"), "");
  EXPECT_EQ(selected("-- x"), "");
  EXPECT_EQ(selected("---"), "");
}

TEST(DebuggerParameters, GivesTheDebuggeeAllThatFollowsItsName) {
  NoParameters parameters;
  EXPECT_EQ(parameters.add("prog", "-qquiet"), 1U);
  EXPECT_EQ(parameters.add("-qquiet", "a b"), 1U);
  EXPECT_EQ(parameters.add("a b", "--"), 1U);
  EXPECT_EQ(parameters.add("--"), 1U);
  EXPECT_EQ(plain(parameters.debuggeeName()), "prog");
  EXPECT_EQ(plain(parameters.debuggeeArguments()), "-qquiet \"a b\" --");
  EXPECT_FALSE(parameters.quiet());
  EXPECT_THAT(pairsOf(parameters.debuggerArguments()), IsEmpty());
}

TEST(DebuggerParameters, HasNoDebuggeeWhenAttached) {
  NoParameters parameters;
  parameters.add("-qpid=12");
  parameters.add("prog");
  parameters.add("-qquiet");
  EXPECT_EQ(plain(parameters.attach()), "12");
  EXPECT_EQ(plain(parameters.debuggeeName()), "12");
  EXPECT_EQ(plain(parameters.debuggeeArguments()), "");
  EXPECT_FALSE(parameters.quiet());
  EXPECT_THAT(invalidOf(parameters), ElementsAre("prog", "-qquiet"));
}

TEST(DebuggerParameters, CollectsOptionsThatItDoesNotKnow) {
  NoParameters parameters;
  EXPECT_EQ(parameters.add("-unknown", "value"), 1U);
  EXPECT_EQ(parameters.add("-qconsole=1", "value"), 1U);
  EXPECT_EQ(parameters.add("-qquietly", "value"), 1U);
  EXPECT_THAT(invalidOf(parameters), ElementsAre("-unknown", "-qconsole=1", "-qquietly"));
  EXPECT_THAT(pairsOf(parameters.debuggerArguments()), IsEmpty());
  EXPECT_TRUE(parameters.isDebuggerArg(wide("-qquiet")));
}

// Words

TEST(DebuggerParameters, KnowsYesAndNoAndTheirBeginnings) {
  for (const char* yes : {"y", "ye", "yes", "Y", "Ye", "Yes", "YE", "YES"}) {
    EXPECT_EQ(yesNo(yes), 1) << yes;
  }
  for (const char* no : {"n", "no", "N", "No", "NO"}) {
    EXPECT_EQ(yesNo(no), 0) << no;
  }
  for (const char* neither : {"", "yES", "yess", "yesno", "YeS", "yE", "nO", "non", "x", "maybe",
                              " y", "y ", "1", "0", "true", "es"}) {
    EXPECT_EQ(yesNo(neither), 2) << neither;
  }
}

TEST(DebuggerParameters, TakesDoubleQuotesOff) {
  EXPECT_EQ(unquoted(""), "");
  EXPECT_EQ(unquoted("plain text"), "plain text");
  EXPECT_EQ(unquoted("\"\""), "");
  EXPECT_EQ(unquoted("\"in quotes\""), "in quotes");
  EXPECT_EQ(unquoted("a\"b c\"d\"e\""), "ab cde");
  EXPECT_EQ(unquoted("\"never closed"), "never closed");
  EXPECT_EQ(unquoted("'single'"), "'single'");
}

TEST(DebuggerParameters, DropsABackslashInFrontOfADoubleQuote) {
  EXPECT_EQ(unquoted(R"(a\"b)"), "a\"b");
  EXPECT_EQ(unquoted(R"("a\"b")"), "a\"b");
  EXPECT_EQ(unquoted(R"(a\")"), "a\"");
  // The quote behind a backslash opens nothing, so the pair below stays as it is.
  EXPECT_EQ(unquoted(R"(\"a\\b)"), R"("a\\b)");
  EXPECT_EQ(unquoted(R"("\"a\\b")"), R"("a\b)");
}

TEST(DebuggerParameters, DropsABackslashInFrontOfAnotherOnlyInsideQuotes) {
  EXPECT_EQ(unquoted(R"(a\\b)"), R"(a\\b)");
  EXPECT_EQ(unquoted(R"("a\\b")"), R"(a\b)");
  // Outside, the first of two backslashes is copied and the second one hides the quote.
  EXPECT_EQ(unquoted(R"("a"\\"b\\c")"), R"(a\"b\\c)");
}

TEST(DebuggerParameters, KeepsOtherBackslashes) {
  EXPECT_EQ(unquoted(R"(C:\new\)"), R"(C:\new\)");
  EXPECT_EQ(unquoted(R"("C:\new)"), R"(C:\new)");
  EXPECT_EQ(unquoted("\\"), "\\");
  EXPECT_EQ(unquoted("\"\\"), "\\");
}

TEST(DebuggerParameters, UnquotesWhatMakeQuotedTokenQuotes) {
  for (const char* text : {"", "a b", "\"", "\\", "\\\"", "a\"b\\c\\\\d\"\"", "'*?<>|"}) {
    EXPECT_EQ(plain(P::unquote(wide(text).makeQuotedToken())), text);
  }
}

// The process's object

CUL_CHILD(ParametersInstance) {
  EXPECT_EQ(P::instancePointer(), nullptr);
  ArgumentVector first({"/bin/debugger", "-qhost=one", "prog", "x"});
  P* const made = P::instance(first.argc(), first.argv());
  ASSERT_NE(made, nullptr);
  EXPECT_NE(dynamic_cast<UNIXDebuggerParameters*>(made), nullptr);
  EXPECT_EQ(P::instance(), made);
  EXPECT_EQ(P::instancePointer(), made);

  ArgumentVector second({"/bin/other", "-qhost=two"});
  EXPECT_EQ(P::instance(second.argc(), second.argv()), made);
  EXPECT_EQ(P::instance(second.argc(), const_cast<char const**>(second.argv())), made);
  EXPECT_EQ(P::instance(0, static_cast<signed char**>(nullptr)), made);
  EXPECT_EQ(P::instance(0, static_cast<unsigned char**>(nullptr)), made);
  EXPECT_EQ(plain(made->parm(P::parmHost)), "one");
  EXPECT_EQ(plain(made->debuggerName()), "/bin/debugger");
  EXPECT_EQ(plain(made->debuggeeName()), "prog");
  EXPECT_EQ(plain(made->debuggeeArguments()), "x");
}

TEST(DebuggerParameters, AreMadeByTheFirstCallOnly) {
  const TracedChildResult r = runTracedChild("ParametersInstance");
  EXPECT_EQ(r.child.status, 0) << r.child.out << r.child.err;
  EXPECT_THAT(r.trace, Not(HasSubstr("**ERROR")));
}

CUL_CHILD(ParametersInstanceOfType) {
  const std::string& type = childArguments().at(0);
  std::string program = "/bin/debugger";
  std::string option = "-qhost=one";
  std::string debuggee = "prog";
  const P* made = nullptr;
  if (type == "const") {
    const char* argv[] = {program.c_str(), option.c_str(), debuggee.c_str(), nullptr};
    made = P::instance(3, argv);
  } else if (type == "signed") {
    const auto bytes = [](std::string& s) { return reinterpret_cast<signed char*>(s.data()); };
    signed char* argv[] = {bytes(program), bytes(option), bytes(debuggee), nullptr};
    made = P::instance(3, argv);
  } else if (type == "unsigned") {
    const auto bytes = [](std::string& s) { return reinterpret_cast<unsigned char*>(s.data()); };
    unsigned char* argv[] = {bytes(program), bytes(option), bytes(debuggee), nullptr};
    made = P::instance(3, argv);
  } else {
    unsigned char* argv[] = {nullptr};
    made = type == "null" ? P::instance(3, static_cast<unsigned char**>(nullptr))
                          : P::instance(-1, argv);
    ASSERT_NE(made, nullptr);
    EXPECT_EQ(P::instance(), made);
    EXPECT_EQ(plain(made->debuggerName()), "");
    return;
  }
  ASSERT_NE(made, nullptr);
  EXPECT_EQ(P::instance(), made);
  EXPECT_EQ(plain(made->debuggerName()), "/bin/debugger");
  EXPECT_EQ(plain(made->parm(P::parmHost)), "one");
  EXPECT_EQ(plain(made->debuggeeName()), "prog");
}

TEST(DebuggerParameters, AreMadeFromArgumentVectorsOfEveryType) {
  for (const char* type : {"const", "signed", "unsigned", "null", "negative"}) {
    const ChildResult r = runChild("ParametersInstanceOfType", {.arguments = {type}});
    EXPECT_EQ(r.status, 0) << type << r.out << r.err;
  }
}

CUL_CHILD(ParametersMissing) { EXPECT_EQ(P::instance(), nullptr); }

TEST(DebuggerParameters, ReportAFailedAssertionWhenTheyAreNotMadeYet) {
  const TracedChildResult r = runTracedChild("ParametersMissing");
  EXPECT_EQ(r.child.status, 0) << r.child.out << r.child.err;
  EXPECT_THAT(r.trace,
              HasSubstr("**ERROR: Engine/utilities/DebuggerParameters - static DebuggerParameters* "
                        "DebuggerParameters::instance("));
}

CUL_CHILD(ParametersBeforeMain) {
  ASSERT_NE(P::instancePointer(), nullptr);
  EXPECT_EQ(plain(P::instance()->debuggeeName()), "early");
}

namespace {

// Made in static construction, in the child of the test below alone.
const P* const madeEarly = [] {
  static const char* argv[] = {"/bin/debugger", "early", nullptr};
  return std::getenv("CUL_TEST_EARLY_PARAMETERS") == nullptr ? nullptr : P::instance(2, argv);
}();

}  // namespace

TEST(DebuggerParameters, CanBeMadeBeforeMain) {
  EXPECT_EQ(madeEarly, nullptr);
  const ChildResult r =
      runChild("ParametersBeforeMain", {.environment = {{"CUL_TEST_EARLY_PARAMETERS", "1"}}});
  EXPECT_EQ(r.status, 0) << r.out << r.err;
}

// The dump

namespace {

// The texts of the lines that the dump has traced.
std::vector<std::string> dumpedLines(const std::string& trace) {
  const std::string mark = ")****: void DebuggerParameters::diagnosticDump: ";
  std::vector<std::string> lines;
  std::istringstream in(trace);
  for (std::string line; std::getline(in, line);) {
    if (const size_t at = line.find(mark); at != std::string::npos) {
      lines.push_back(line.substr(at + mark.size()));
    }
  }
  return lines;
}

// What the dump of a command line writes.
std::vector<std::string> dumpOf(const std::vector<std::string>& arguments) {
  const TracedChildResult r = runTracedChild("DumpedParameters", {.arguments = arguments});
  EXPECT_EQ(r.child.status, 0) << r.child.out << r.child.err;
  return dumpedLines(r.trace);
}

}  // namespace

CUL_CHILD(DumpedParameters) {
  ArgumentVector arguments(childArguments());
  UNIXDebuggerParameters(arguments.argc(), arguments.argv()).diagnosticDump();
}

TEST(DebuggerParameters, DumpsNoneForEveryEmptyPart) {
  EXPECT_THAT(dumpOf({}), ElementsAre("Debugger Program Name: >none<", "Debugger Args:", "\t>none<",
                                      "--\tend --", "Start up Key: >none<",
                                      "Start up Key Arg: >none<", "Debuggee Name: >none<",
                                      "Debuggee Args: >none<", "Invalid Args:", "\t>none<"));
}

TEST(DebuggerParameters, DumpsEverything) {
  EXPECT_THAT(
      dumpOf({"/bin/debugger", "-qh=here", "-wrong", "-st", "CLIP", "-qcache=", "-other", "prog",
              "a b", "100%s"}),
      ElementsAre("Debugger Program Name: >/bin/debugger<", "Debugger Args:", "\t-qhost: >here<",
                  "\t-startupKey: >CLIP<", "\t-qcache: >none<", "--\tend --",
                  "Start up Key: >CLIP<", "Start up Key Arg: >JETCLIP<", "Debuggee Name: >prog<",
                  "Debuggee Args: >\"a b\" 100%s<", "Invalid Args:", "\t>-wrong<", "\t>-other<"));
}

TEST(DebuggerParameters, NeverDumpsASecret) {
  const std::vector<std::vector<std::string>> commandLines = {
      {"/d", "-qkeystorepass=SECRET"},
      {"/d", "-qkeystorepass", "SECRET"},
      {"/d", "-qhrdmkey=SECRET"},
      {"/d", "-qhrdmkey", "SECRET"},
      {"/d", "\"-qkeystorepass=SECRET\""},
      // Mistyped or misplaced.
      {"/d", "-qkeystorepas=SECRET"},
      {"/d", "-qhrdmke=SECRET"},
      {"/d", "-qKeyStorePass=SECRET"},
      {"/d", "-qkeystorepassword=SECRET"},
      {"/d", "-qhrdmk=SECRET", "-qhrdmkeys=SECRET"},
      {"/d", " -qhrdmkey=SECRET"},
      {"/d", "-qlang=-qkeystorepass=SECRET"},
      {"/d", "-startupKey", "KEY -qhrdmkey=SECRET"},
      {"/d", "-a-qhrdmkey=SECRET"},
      {"/d", "-qhrdmkey:SECRET", "-qkeystorepass2=SECRET"},
      {"/d", "-qkeystorepas", "SECRET"},
      {"/d", "-qhrdmk", "-qquiet", "SECRET", "argument"},
      {"/d", "-QHRDMKEY", "-SECRET", "prog"},
      {"/d", "-qhrdmke", "-qhrdmke", "SECRET"},
      {"/d", "-qkeystorepas=", "SECRET"},
      {"/d", "-qkeystorepass=", "SECRET"},
      {"/d", "-qhrdmkey", "-SECRET"},
      {"/d", "-qpid=1", "-qkeystorepas", "SECRET"},
      {"/d", "-bad", "-qpid=1", "-qkeystorepass=", "SECRET", "more"},
      {"/d", "-qpid=1", "x", "-qhrdmkey", "SECRET", "-qkeystorepass=SECRET"},
      {"/d", "prog", "-qkeystorepass=SECRET", "-qhrdmkey", "SECRET"}};
  for (const std::vector<std::string>& commandLine : commandLines) {
    const std::vector<std::string> lines = dumpOf(commandLine);
    ASSERT_GE(lines.size(), 10U);
    EXPECT_THAT(lines, testing::Each(Not(HasSubstr("SECRET")))) << commandLine[1];
    EXPECT_THAT(lines, Contains(HasSubstr("********<"))) << commandLine[1];
  }
  EXPECT_THAT(dumpOf(commandLines[0]), Contains("\t-qkeystorepass: >********<"));
  EXPECT_THAT(dumpOf(commandLines[3]), Contains("\t-qhrdmkey: >********<"));
  EXPECT_THAT(dumpOf(commandLines.end()[-2]), Contains("\t>x -qhrdmkey ********<"));
}

namespace {

// All that one slip makes of `name`.
std::vector<std::string> slipsOf(const std::string& name) {
  std::vector<std::string> result;
  for (size_t i = 0; i < name.size(); ++i) {
    for (const std::string& instead : {std::string(), std::string(2, name[i]), std::string("x")}) {
      result.push_back(std::string(name).replace(i, 1, instead));
    }
    if (i + 1 < name.size()) {
      result.push_back(name);
      std::swap(result.back()[i], result.back()[i + 1]);
    }
  }
  return result;
}

}  // namespace

TEST(DebuggerParameters, NeverDumpsASecretBehindAnOptionWithOneSlip) {
  for (const char* name : {"qkeystorepass", "keystorepass", "qhrdmkey", "hrdmkey", "QhrdmKey"}) {
    std::vector<std::string> commandLine = {"/d"};
    for (const std::string& slip : slipsOf(name)) {
      commandLine.push_back("-" + slip + "=SECRET");
      commandLine.push_back("-" + slip + ":SECRET");
    }
    commandLine.push_back(std::string("-") + name + "=SECRET");
    commandLine.push_back(std::string("--") + name + "=SECRET");
    commandLine.push_back(std::string("-") + name + "SECRET");
    commandLine.push_back(std::string("-") + name + "-SECRET");
    const std::vector<std::string> lines = dumpOf(commandLine);
    EXPECT_GT(lines.size(), commandLine.size());
    EXPECT_THAT(lines, testing::Each(Not(HasSubstr("SECRET"))));
  }
  for (const char* option :
       {"-keystorepass", "-qkeystroepass", "-qhdrmkey", "-keystorepas", "-wkeystorepass"}) {
    const std::vector<std::string> lines = dumpOf({"/d", option, "SECRET", "argument"});
    EXPECT_THAT(lines,
                AllOf(Contains("Debuggee Name: >********<"), Contains("Debuggee Args: >argument<"),
                      Contains(std::string("\t>") + option + "<")));
  }
}

TEST(DebuggerParameters, DumpsOptionsThatAreTwoSlipsFromASecret) {
  EXPECT_THAT(
      dumpOf({"/d", "-keystoreloc=1", "-qkesytroepass=2", "-hrdmport=3", "-qhkey=4", "-qkeystore=5",
              "-pass=6", "prog", "-q", "hrdmkey=7"}),
      AllOf(Contains("\t>-keystoreloc=1<"), Contains("\t>-qkesytroepass=2<"),
            Contains("\t>-hrdmport=3<"), Contains("\t>-qhkey=4<"), Contains("\t>-qkeystore=5<"),
            Contains("\t>-pass=6<"), Contains("Debuggee Args: >-q hrdmkey=7<")));
}

TEST(DebuggerParameters, DumpsWhatCannotBeASecret) {
  EXPECT_THAT(
      dumpOf({"/d", "-qkeystoreloc=/keys", "-qhrdmhost", "-qkeystorepass=SECRET", "-bad", "prog",
              "argument"}),
      ElementsAre("Debugger Program Name: >/d<", "Debugger Args:", "\t-qkeystoreloc: >/keys<",
                  "\t-qhrdmhost: >none<", "\t-qkeystorepass: >********<", "--\tend --",
                  "Start up Key: >none<", "Start up Key Arg: >none<", "Debuggee Name: >prog<",
                  "Debuggee Args: >argument<", "Invalid Args:", "\t>-bad<"));
  EXPECT_THAT(dumpOf({"/d", "-qkeystorepas=SECRET", "-bad", "prog"}),
              AllOf(Contains("Debuggee Name: >prog<"), Contains("\t>-qkeystorepas=********<"),
                    Contains("\t>-bad<")));
}

TEST(DebuggerParameters, DumpsAMistypedOptionWithoutItsSecretByItsName) {
  EXPECT_THAT(dumpOf({"/d", "-qcache=1", "-bad", "-qkeystorepas", "SECRET", "argument"}),
              AllOf(Contains("\t-qcache: >1<"), Contains("\t>-qkeystorepas<"),
                    Contains("Debuggee Name: >********<"), Contains("Debuggee Args: >argument<")));
  EXPECT_THAT(dumpOf({"/d", "-qpid=1", "-qhrdmke"}),
              AllOf(Contains("Debuggee Name: >1<"), Contains("\t>-qhrdmke<")));
  EXPECT_THAT(dumpOf({"/d", "-qhrdmkey"}),
              AllOf(Contains("\t-qhrdmkey: >********<"), Contains("Debuggee Name: >none<"),
                    Contains("\t>none<")));
}

TEST(DebuggerParameters, KeepsSecretsForWhoeverNeedsThem) {
  const ParametersOf parameters({"-qkeystorepass=SECRET", "-qhrdmkey", "OTHER"});
  EXPECT_EQ(plain(parameters.parm(P::parmKeystorePass)), "SECRET");
  EXPECT_EQ(plain(parameters.parm(P::parmHrdmKey)), "OTHER");
}

CUL_CHILD(DumpWithoutTrace) { ParametersOf({"prog"}).diagnosticDump(); }

TEST(DebuggerParameters, DumpNothingWithoutATrace) {
  const ChildResult r = runChild("DumpWithoutTrace");
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out + r.err, "");
}
