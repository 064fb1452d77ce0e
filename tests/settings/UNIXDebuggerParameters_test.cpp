#include "Engine/utilities/UNIX/UNIXDebuggerParameters.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/settings/ParameterSupport.h"
#include "tests/support/Child.h"
#include "tests/support/TemporaryFolder.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace fs = std::filesystem;

// The program name that `name` leads to.
std::string debuggerNameOf(const std::string& name) {
  NoParameters parameters;
  parameters.setDebuggerName(encoded("/before"));
  parameters.setDebuggerName(encoded(name));
  return plain(parameters.debuggerName());
}

// Folds by cutting one occurrence after the other, as slowly as the rules read.
std::string foldedByCutting(std::string path) {
  for (;;) {
    size_t at = path.find("/./");
    if (at != std::string::npos) {
      path = path.substr(0, at + 1) + path.substr(at + 3);
      continue;
    }
    at = path.find("//");
    if (at != std::string::npos) {
      path = path.substr(0, at + 1) + path.substr(at + 2);
      continue;
    }
    at = path.find("/../");
    if (at == std::string::npos) {
      return path;
    }
    if (at == 0) {
      return {};
    }
    const size_t before = path.rfind('/', at - 1);
    std::string kept = before == std::string::npos ? "" : path.substr(0, before + 1);
    kept += path.substr(at + 4);
    path = kept;
  }
}

// Every text of up to `length` characters of `alphabet` behind `prefix`.
void addTexts(const std::string& prefix, const std::string& alphabet, unsigned length,
              std::vector<std::string>& texts) {
  texts.push_back(prefix);
  if (length != 0) {
    for (const char c : alphabet) {
      addTexts(prefix + c, alphabet, length - 1, texts);
    }
  }
}

void makeExecutable(const std::string& file) {
  writeFile(file, "");
  fs::permissions(file, fs::perms::owner_all | fs::perms::others_exec);
}

// A folder's path without links.
std::string realPathOf(const TemporaryFolder& folder) { return fs::canonical(folder.path()); }

// Runs a child case in `directory`.
void expectChild(const std::string& name, const ChildOptions& options) {
  const ChildResult r = runChild(name, options);
  EXPECT_EQ(r.status, 0) << r.out << r.err;
}

}  // namespace

// The program's own name

TEST(UNIXDebuggerParameters, FoldsTheProgramName) {
  EXPECT_EQ(debuggerNameOf("/opt/x/bin/../lib/dbg"), "/opt/x/lib/dbg");
  EXPECT_EQ(debuggerNameOf("/opt//x/./dbg"), "/opt/x/dbg");
  EXPECT_EQ(debuggerNameOf("/a/b/../c"), "/a/c");
  EXPECT_EQ(debuggerNameOf("/a/./././b"), "/a/b");
  EXPECT_EQ(debuggerNameOf("/a////b"), "/a/b");
  EXPECT_EQ(debuggerNameOf("/a/b/c/../../../d"), "/d");
  EXPECT_EQ(debuggerNameOf("/a/b/.././../c"), "/c");
  EXPECT_EQ(debuggerNameOf("/a/b//../c"), "/a/c");
  EXPECT_EQ(debuggerNameOf("//a"), "/a");
  EXPECT_EQ(debuggerNameOf("/./a"), "/a");
  EXPECT_EQ(debuggerNameOf("/a../..b/.c/...//d."), "/a../..b/.c/.../d.");
}

TEST(UNIXDebuggerParameters, KeepsDotsAtTheVeryEnd) {
  EXPECT_EQ(debuggerNameOf("/a/.."), "/a/..");
  EXPECT_EQ(debuggerNameOf("/a/."), "/a/.");
  EXPECT_EQ(debuggerNameOf("/.."), "/..");
  EXPECT_EQ(debuggerNameOf("/a/"), "/a/");
  EXPECT_EQ(debuggerNameOf("/"), "/");
}

TEST(UNIXDebuggerParameters, RefusesANameThatClimbsAboveTheRoot) {
  EXPECT_EQ(debuggerNameOf("/../dbg"), "");
  EXPECT_EQ(debuggerNameOf("/a/../../dbg"), "");
  EXPECT_EQ(debuggerNameOf("/./../dbg"), "");
  EXPECT_EQ(debuggerNameOf("//../dbg"), "");
  EXPECT_EQ(debuggerNameOf("/../"), "");
}

TEST(UNIXDebuggerParameters, FoldsAsCuttingOneOccurrenceAfterTheOtherWould) {
  std::vector<std::string> texts;
  addTexts("/", "/.a", 9, texts);
  NoParameters parameters;
  unsigned refused = 0;
  unsigned shortened = 0;
  for (const std::string& text : texts) {
    parameters.setDebuggerName(encoded(text));
    const std::string expected = foldedByCutting(text);
    ASSERT_EQ(plain(parameters.debuggerName()), expected) << text;
    refused += expected.empty() ? 1 : 0;
    shortened += expected.size() < text.size() ? 1 : 0;
  }
  EXPECT_GT(refused, 100U);
  EXPECT_GT(shortened, 10000U);
}

TEST(UNIXDebuggerParameters, FoldsALongNameInNoTime) {
  std::string name = "/";
  for (int i = 0; i < 200000; ++i) {
    name += "a/./..//";
  }
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(debuggerNameOf(name + "dbg"), "/dbg");
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20));
}

TEST(UNIXDebuggerParameters, KeepsTheProgramNameWhenThereIsNoNewOne) {
  NoParameters parameters;
  parameters.setDebuggerName(encoded("/opt/dbg"));
  parameters.setDebuggerName(EncodedString());
  EXPECT_EQ(plain(parameters.debuggerName()), "/opt/dbg");
}

CUL_CHILD(ParametersRelativeName) {
  const std::string folder = childArguments().at(0);
  EXPECT_EQ(debuggerNameOf("./dbg"), folder + "/dbg");
  EXPECT_EQ(debuggerNameOf("./x/../dbg"), folder + "/dbg");
  EXPECT_EQ(debuggerNameOf("../dbg"), fs::path(folder).parent_path().string() + "/dbg");
  NoParameters parameters;
  EXPECT_EQ(plain(parameters.resolveRelative(encoded("dbg"))), folder + "/dbg");
  EXPECT_EQ(plain(parameters.resolveRelative(encoded("./x/../dbg"))), folder + "/./x/../dbg");
  EXPECT_EQ(plain(parameters.resolveRelative(encoded("/x/./dbg"))), "/x/./dbg");
  EXPECT_EQ(plain(parameters.resolveRelative(EncodedString())), folder + "/");
  ArgumentVector arguments({"./dbg"});
  const UNIXDebuggerParameters started(arguments.argc(), arguments.argv());
  EXPECT_EQ(plain(started.debuggerName()), folder + "/dbg");
}

TEST(UNIXDebuggerParameters, PutsARelativeNameBehindTheWorkingDirectory) {
  const TemporaryFolder folder;
  expectChild("ParametersRelativeName",
              {.directory = folder.path(), .arguments = {realPathOf(folder)}});
}

CUL_CHILD(ParametersInTheRoot) {
  NoParameters parameters;
  EXPECT_EQ(plain(parameters.resolveRelative(encoded("dbg"))), "/dbg");
  EXPECT_EQ(debuggerNameOf("./dbg"), "/dbg");
  EXPECT_EQ(debuggerNameOf("../dbg"), "");
}

TEST(UNIXDebuggerParameters, KnowsTheRootAsAWorkingDirectory) {
  expectChild("ParametersInTheRoot", {.directory = "/"});
}

CUL_CHILD(ParametersWithoutWorkingDirectory) {
  ASSERT_EQ(rmdir(childArguments().at(0).c_str()), 0);
  NoParameters parameters;
  EXPECT_EQ(plain(parameters.resolveRelative(encoded("dbg"))), "dbg");
  // What cannot be made absolute is folded all the same.
  std::vector<std::string> texts;
  addTexts("./", "/.a", 6, texts);
  addTexts("../", "/.a", 6, texts);
  for (const std::string& text : texts) {
    ASSERT_EQ(debuggerNameOf(text), foldedByCutting(text)) << text;
  }
  EXPECT_EQ(debuggerNameOf("./a/../dbg"), "./dbg");
  EXPECT_EQ(debuggerNameOf("./../dbg"), "dbg");
  EXPECT_EQ(debuggerNameOf("../a/../../dbg"), "dbg");
}

TEST(UNIXDebuggerParameters, KeepsARelativeNameWithoutAWorkingDirectory) {
  const TemporaryFolder folder;
  const std::string gone = folder.file("gone");
  fs::create_directory(gone);
  expectChild("ParametersWithoutWorkingDirectory", {.directory = gone, .arguments = {gone}});
}

namespace {

// Makes the working directory `length` bytes long, folder by folder, and takes the folders away
// again at the end of the scope.
class DeepFolder {
 public:
  explicit DeepFolder(size_t length) {
    size_t now = fs::current_path().string().size();
    while (now < length) {
      // A component and its "/"; what remains is never a "/" alone.
      size_t step = std::min<size_t>(length - now, 200);
      if (length - now - step == 1) {
        --step;
      }
      const std::string name(step - 1, 'd');
      if (mkdir(name.c_str(), 0700) != 0 || chdir(name.c_str()) != 0) {
        ADD_FAILURE() << "no folder at depth " << now << ", errno " << errno;
        return;
      }
      names_.push_back(name);
      now += step;
    }
  }
  DeepFolder(const DeepFolder&) = delete;
  DeepFolder& operator=(const DeepFolder&) = delete;
  ~DeepFolder() {
    for (; !names_.empty(); names_.pop_back()) {
      if (chdir("..") != 0 || rmdir(names_.back().c_str()) != 0) {
        ADD_FAILURE() << "cannot remove a folder, errno " << errno;
      }
    }
  }

 private:
  std::vector<std::string> names_;
};

}  // namespace

CUL_CHILD(ParametersInADeepFolder) {
  NoParameters parameters;
  for (const size_t length :
       {size_t{1023}, size_t{1024}, size_t{4095}, size_t{4096}, size_t{4097}}) {
    const DeepFolder deep(length);
    const std::string absolute = plain(parameters.resolveRelative(encoded("dbg")));
    EXPECT_EQ(absolute.size(), length + 4) << length;
    EXPECT_TRUE(absolute.starts_with(childArguments().at(0) + "/ddd"));
    EXPECT_TRUE(absolute.ends_with("d/dbg"));
  }
  const DeepFolder deep(4098);
  EXPECT_EQ(plain(parameters.resolveRelative(encoded("dbg"))), "dbg");
}

TEST(UNIXDebuggerParameters, KnowsWorkingDirectoriesOfUpTo4097Bytes) {
  const TemporaryFolder folder;
  expectChild("ParametersInADeepFolder",
              {.directory = folder.path(), .arguments = {realPathOf(folder)}});
}

CUL_CHILD(ParametersAlongARelativePath) {
  const std::string& folder = childArguments().at(0);
  EXPECT_EQ(debuggerNameOf("dbg"), folder + "/bin/dbg");
  EXPECT_EQ(debuggerNameOf("../bin/dbg"), fs::path(folder).parent_path().string() + "/bin/dbg");
}

TEST(UNIXDebuggerParameters, PutsANameFoundInARelativeFolderBehindTheWorkingDirectory) {
  const TemporaryFolder folder;
  fs::create_directory(folder.file("bin"));
  makeExecutable(folder.file("bin/dbg"));
  expectChild("ParametersAlongARelativePath", {.environment = {{"PATH", "sbin:bin"}},
                                               .directory = folder.path(),
                                               .arguments = {realPathOf(folder)}});
}

CUL_CHILD(ParametersAlongPath) {
  const std::string& folder = childArguments().at(0);
  EXPECT_EQ(debuggerNameOf("dbg"), folder + "/second/dbg");
  EXPECT_EQ(debuggerNameOf("tools/dbg"), folder + "/second/tools/dbg");
  EXPECT_EQ(debuggerNameOf("nowhere"), "");
  EXPECT_EQ(debuggerNameOf(".hidden"), "");
  ArgumentVector arguments({"nowhere", "-qhost=x", "prog"});
  const UNIXDebuggerParameters started(arguments.argc(), arguments.argv());
  EXPECT_EQ(plain(started.debuggerName()), "");
  EXPECT_EQ(plain(started.debuggeeName()), "prog");
}

TEST(UNIXDebuggerParameters, LooksAnyOtherNameUpAlongPath) {
  const TemporaryFolder folder;
  const std::string path = realPathOf(folder);
  fs::create_directories(path + "/first");
  fs::create_directories(path + "/second/tools");
  makeExecutable(path + "/second/dbg");
  makeExecutable(path + "/second/tools/dbg");
  // In the working directory, which is not searched.
  makeExecutable(path + "/nowhere");
  expectChild("ParametersAlongPath",
              {.environment = {{"PATH", path + "/first:" + path + "/first/../second"}},
               .directory = path,
               .arguments = {path}});
}

TEST(UNIXDebuggerParameters, FollowsLinksBeforeFolding) {
  const TemporaryFolder folder;
  const std::string path = realPathOf(folder);
  fs::create_directories(path + "/bin");
  fs::create_directories(path + "/lib");
  makeExecutable(path + "/lib/real");
  fs::create_symlink("../lib/./next", path + "/bin/dbg");
  fs::create_symlink(path + "/lib/real", path + "/lib/next");
  EXPECT_EQ(debuggerNameOf(path + "/bin/dbg"), path + "/lib/real");
  EXPECT_EQ(debuggerNameOf(path + "//bin/../bin/./dbg"), path + "/lib/real");
}

CUL_CHILD(ParametersRelativeLink) {
  EXPECT_EQ(debuggerNameOf("./dbg"), childArguments().at(0) + "/target");
}

TEST(UNIXDebuggerParameters, FollowsALinkToARelativeName) {
  const TemporaryFolder folder;
  fs::create_symlink("./x/../target", folder.file("dbg"));
  expectChild("ParametersRelativeLink",
              {.directory = folder.path(), .arguments = {realPathOf(folder)}});
}

CUL_CHILD(ParametersStartedByALoop) {
  ArgumentVector arguments({childArguments().at(0), "-qquiet"});
  const UNIXDebuggerParameters started(arguments.argc(), arguments.argv());
  ADD_FAILURE() << "still here";
}

TEST(UNIXDebuggerParameters, EndTheProcessForALoopOfLinks) {
  const TemporaryFolder folder;
  fs::create_symlink("two", folder.file("one"));
  fs::create_symlink("one", folder.file("two"));
  const ChildResult r = runChild("ParametersStartedByALoop", {.arguments = {folder.file("one")}});
  EXPECT_EQ(r.status, 255);
  EXPECT_EQ(r.err, "Cannot resolve symbolic link " + folder.file("one") + "\n");
  EXPECT_THAT(r.out, testing::Not(HasSubstr("still here")));
}

// Taking the argument vector apart

TEST(UNIXDebuggerParameters, TakeAProgramNameAlone) {
  const ParametersOf parameters({});
  EXPECT_EQ(plain(parameters.debuggerName()), "/bin/debugger");
  EXPECT_THAT(pairsOf(parameters.debuggerArguments()), IsEmpty());
  EXPECT_EQ(plain(parameters.debuggeeName()), "");
  EXPECT_EQ(plain(parameters.debuggeeArguments()), "");
  EXPECT_THAT(invalidOf(parameters), IsEmpty());
}

TEST(UNIXDebuggerParameters, TakeNothingFromAnEmptyVector) {
  ArgumentVector arguments({"/bin/debugger", "-qquiet", "prog"});
  for (const int argc : {0, -1}) {
    const UNIXDebuggerParameters parameters(argc, arguments.argv());
    EXPECT_EQ(plain(parameters.debuggerName()), "");
    EXPECT_EQ(plain(parameters.debuggeeName()), "");
    EXPECT_FALSE(parameters.quiet());
  }
  const UNIXDebuggerParameters none(3, nullptr);
  EXPECT_EQ(plain(none.debuggerName()), "");
}

TEST(UNIXDebuggerParameters, LookAtNoMoreThanArgcArguments) {
  ArgumentVector arguments({"/bin/debugger", "-qhost", "name", "prog"});
  const UNIXDebuggerParameters parameters(2, arguments.argv());
  EXPECT_THAT(pairsOf(parameters.debuggerArguments()), ElementsAre("-qhost="));
  EXPECT_EQ(plain(parameters.debuggeeName()), "");
}

TEST(UNIXDebuggerParameters, PartTheDebuggersOptionsFromTheDebuggee) {
  const ParametersOf parameters(
      {"-qhost=here", "-qh", "there", "-qquiet", "-bad", "prog", "-qquiet", "x", "--", "-a5"});
  EXPECT_THAT(pairsOf(parameters.debuggerArguments()),
              ElementsAre("-qhost=here", "-qhost=there", "-qquiet="));
  EXPECT_THAT(invalidOf(parameters), ElementsAre("-bad"));
  EXPECT_EQ(plain(parameters.debuggeeName()), "prog");
  EXPECT_EQ(plain(parameters.debuggeeArguments()), "-qquiet x -- -a5");
  EXPECT_EQ(plain(parameters.attach()), "");
}

TEST(UNIXDebuggerParameters, GiveTheDebuggeeAllBehindTwoDashes) {
  const ParametersOf parameters({"-qquiet", "--", "-qhost=here", "prog", "--"});
  EXPECT_THAT(pairsOf(parameters.debuggerArguments()), ElementsAre("-qquiet=", "--="));
  EXPECT_EQ(plain(parameters.debuggeeName()), "");
  EXPECT_EQ(plain(parameters.debuggeeArguments()), "-qhost=here prog --");
}

TEST(UNIXDebuggerParameters, EndTheOptionsAtS) {
  const ParametersOf parameters({"-s", "-qquiet", "x"});
  EXPECT_FALSE(parameters.quiet());
  EXPECT_EQ(plain(parameters.debuggeeArguments()), "-qquiet x");
}

TEST(UNIXDebuggerParameters, QuoteTheDebuggeesArgumentsWhereNeeded) {
  EXPECT_EQ(plain(ParametersOf({"prog", "a b", "c"}).debuggeeArguments()), "\"a b\" c");
  EXPECT_EQ(
      plain(
          ParametersOf({"prog", R"(say "hi")", R"(back\slash)", "it's", "*"}).debuggeeArguments()),
      R"("say \"hi\"" "back\\slash" "it's" "*")");
  // An empty argument leaves nothing but its blanks.
  EXPECT_EQ(plain(ParametersOf({"prog", "a", "", "b", ""}).debuggeeArguments()), "a  b ");
  EXPECT_EQ(plain(ParametersOf({"prog", ""}).debuggeeArguments()), "");
  EXPECT_EQ(plain(ParametersOf({"prog", "one"}).debuggeeArguments()), "one");
}

TEST(UNIXDebuggerParameters, TakeABackslashOffInTheQuotesOfTheDebuggeesName) {
  const ParametersOf parameters({"-qhost=\\\"h", R"("my \ \"prog\"")", R"(\"kept\")"});
  EXPECT_EQ(plain(parameters.parm(DebuggerParameters::parmHost)), "\"h");
  EXPECT_EQ(plain(parameters.debuggeeName()), R"(my \ "prog")");
}

TEST(UNIXDebuggerParameters, TakeQuotesOffTheDebuggersOwnArguments) {
  const ParametersOf parameters({"\"-qhost=my host\"", "-qlang=\"C\"", "-qtrace", "\"a \\\"b\"",
                                 "\"my prog\"", "\"quoted\""});
  EXPECT_THAT(pairsOf(parameters.debuggerArguments()),
              ElementsAre("-qhost=my host", "-qlang=C", "-qtrace=a \"b"));
  EXPECT_EQ(plain(parameters.debuggeeName()), "my prog");
  EXPECT_EQ(plain(parameters.debuggeeArguments()), R"("\"quoted\"")");
}

TEST(UNIXDebuggerParameters, MakeOneInvalidArgumentOfWhatAnAttachedDebuggerCannotUse) {
  for (const std::vector<std::string>& attach :
       {std::vector<std::string>{"-qpid=12"}, {"-qpid", "12"}, {"-a12"}}) {
    std::vector<std::string> arguments = attach;
    arguments.insert(arguments.end(), {"extra", "args"});
    const ParametersOf parameters(arguments);
    EXPECT_THAT(invalidOf(parameters), ElementsAre("extra args"));
    EXPECT_EQ(plain(parameters.debuggeeArguments()), "");
    EXPECT_EQ(plain(parameters.debuggeeName()), "12");
    EXPECT_EQ(plain(parameters.attach()), "12");
    EXPECT_FALSE(parameters.isDebuggerArg(wide("-qquiet")));
  }
}

TEST(UNIXDebuggerParameters, PutTheUselessArgumentsBehindTheOtherInvalidOnes) {
  const ParametersOf parameters({"-bad", "-qpid=12", "-worse", "-qquiet", "my file", "-qhost=x"});
  EXPECT_THAT(invalidOf(parameters), ElementsAre("-bad", "-worse", "\"my file\" -qhost=x"));
  EXPECT_THAT(pairsOf(parameters.debuggerArguments()), ElementsAre("-qpid=12", "-qquiet="));
}

TEST(UNIXDebuggerParameters, MakeOneInvalidArgumentOfWhatFollowsTwoDashesWhenAttached) {
  const ParametersOf parameters({"-qpid=12", "--", "extra", "args"});
  EXPECT_THAT(invalidOf(parameters), ElementsAre("extra args"));
  EXPECT_EQ(plain(parameters.debuggeeArguments()), "");
}

TEST(UNIXDebuggerParameters, HaveNoInvalidArgumentWhenNothingFollowsTheAttach) {
  EXPECT_THAT(invalidOf(ParametersOf({"-qpid=12"})), IsEmpty());
  EXPECT_THAT(invalidOf(ParametersOf({"-qpid=12", "--"})), IsEmpty());
  EXPECT_THAT(invalidOf(ParametersOf({"-qpid=12", "one"})), ElementsAre("one"));
}

TEST(UNIXDebuggerParameters, TakeAnEmptyArgumentForAnEmptyName) {
  const ParametersOf parameters({"-qhost=x", "", "prog", "-qquiet"});
  EXPECT_EQ(plain(parameters.debuggeeName()), "");
  EXPECT_EQ(plain(parameters.debuggeeArguments()), "prog -qquiet");
  EXPECT_FALSE(parameters.quiet());
}

TEST(UNIXDebuggerParameters, TellWhereTheDebuggeesArgumentsBegin) {
  EXPECT_EQ(ParametersOf({}).argumentsUsed(), 1);
  EXPECT_EQ(ParametersOf({"-qquiet"}).argumentsUsed(), 2);
  EXPECT_EQ(ParametersOf({"prog"}).argumentsUsed(), 2);
  EXPECT_EQ(ParametersOf({"-qhost", "name", "prog", "a", "-b"}).argumentsUsed(), 4);
  EXPECT_EQ(ParametersOf({"-qhost=name", "--", "prog", "a"}).argumentsUsed(), 3);
  EXPECT_EQ(ParametersOf({"-x", "", "a"}).argumentsUsed(), 3);
}

TEST(UNIXDebuggerParameters, TakeNullArgumentsForEmptyOnes) {
  std::string option = "-qhost";
  std::string last = "last";
  char* argv[] = {nullptr, option.data(), nullptr, nullptr, last.data()};
  const UNIXDebuggerParameters parameters(5, argv);
  EXPECT_EQ(plain(parameters.debuggerName()), "");
  EXPECT_THAT(pairsOf(parameters.debuggerArguments()), ElementsAre("-qhost="));
  EXPECT_EQ(plain(parameters.debuggeeName()), "");
  EXPECT_EQ(plain(parameters.debuggeeArguments()), " last");
}

TEST(UNIXDebuggerParameters, TakeManyAndLongArguments) {
  constexpr size_t many = 10000;
  constexpr size_t length = 100000;
  const auto start = std::chrono::steady_clock::now();
  std::vector<std::string> debuggee(many, "argument");
  debuggee.insert(debuggee.begin(), "prog");
  const ParametersOf gathered(debuggee);
  EXPECT_EQ(gathered.debuggeeArguments().length(), many * 9 - 1);

  const ParametersOf options(std::vector<std::string>(many, "-qdownloadzip=no"));
  EXPECT_EQ(options.debuggerArguments().count(), many);

  const ParametersOf wrong(std::vector<std::string>(many, "-bad"));
  EXPECT_EQ(wrong.invalidArguments().count(), many);

  std::string longText(length, 'x');
  const ParametersOf texts({"-qhost=" + longText, "-bad" + longText, longText, longText});
  EXPECT_EQ(texts.parm(DebuggerParameters::parmHost).length(), length);
  EXPECT_EQ(texts.invalidArguments()[0]->length(), length + 4);
  EXPECT_EQ(texts.debuggeeName().length(), length);
  EXPECT_EQ(texts.debuggeeArguments().length(), length);

  longText.assign(length, '"');
  const ParametersOf quotes({longText, longText});
  EXPECT_EQ(plain(quotes.debuggeeName()), "");
  EXPECT_EQ(quotes.debuggeeArguments().length(), 2 * length + 2);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(60));
}

// The native encoding

CUL_CHILD(ParametersInUtf8) {
  const ParametersOf parameters(
      {"-qhost=h\xC3\xB6st", "\xE2\x82\xAC.out", "\xF0\x9F\x98\x80 x", "bad\xFF"});
  EXPECT_EQ(plain(parameters.parm(DebuggerParameters::parmHost)), "h\xC3\xB6st");
  EXPECT_EQ(plain(parameters.debuggeeName()), "\xE2\x82\xAC.out");
  EXPECT_EQ(plain(parameters.debuggeeArguments()), "\"\xF0\x9F\x98\x80 x\" \"bad?\"");
  ArgumentVector arguments({"/opt/\xC3\xA9/x/../dbg"});
  EXPECT_EQ(plain(UNIXDebuggerParameters(1, arguments.argv()).debuggerName()), "/opt/\xC3\xA9/dbg");
}

TEST(UNIXDebuggerParameters, ReadArgumentsInAUtf8Locale) {
  expectChild("ParametersInUtf8", {.environment = {{"LC_ALL", "C.UTF-8"}}});
}

CUL_CHILD(ParametersInAscii) {
  for (const char* byte : {"\xC3\xA9", "\xFF", "\x80", "\xC3"}) {
    const std::string text = byte;
    const ParametersOf parameters({"-qhost=a" + text + "b", "-qlang", text, text + "prog", text});
    const EncodedString expected(byte, EncodedString::native);
    EXPECT_THAT(plain(expected), testing::MatchesRegex("\\?+"));
    EXPECT_EQ(plain(parameters.parm(DebuggerParameters::parmHost)), "a" + plain(expected) + "b");
    EXPECT_EQ(plain(parameters.parm(DebuggerParameters::parmLang)), plain(expected));
    EXPECT_EQ(plain(parameters.debuggeeName()), plain(expected) + "prog");
    // The question marks are special to a command line.
    EXPECT_EQ(plain(parameters.debuggeeArguments()), '"' + plain(expected) + '"');
  }
}

TEST(UNIXDebuggerParameters, ReadWhatIsNotAsciiAsQuestionMarksInTheCLocale) {
  expectChild("ParametersInAscii", {.environment = {{"LC_ALL", "C"}}});
}

CUL_CHILD(ParametersInLatin1) {
  const ParametersOf parameters({"-qhost=h\xF6st", "\xE9", "\xFC x"});
  EXPECT_EQ(plain(parameters.parm(DebuggerParameters::parmHost)), "h\xC3\xB6st");
  EXPECT_EQ(plain(parameters.debuggeeName()), "\xC3\xA9");
  EXPECT_EQ(plain(parameters.debuggeeArguments()), "\"\xC3\xBC x\"");
  ArgumentVector arguments({"/opt/\xE9/dbg"});
  EXPECT_EQ(plain(UNIXDebuggerParameters(1, arguments.argv()).debuggerName()), "/opt/\xC3\xA9/dbg");
}

TEST(UNIXDebuggerParameters, ReadArgumentsInTheCodePageOfTheEnvironment) {
  expectChild("ParametersInLatin1", {.environment = {{"QVX_DBG_CODEPAGE", "ISO-8859-1"}}});
}
