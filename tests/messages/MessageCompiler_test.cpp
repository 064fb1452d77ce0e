#include <climits>
#include <dlfcn.h>
#include <filesystem>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>

#include "Engine/utilities/Texts.h"
#include "Engine/utilities/msgserv/XPG4MsgServer.h"

#include "programs/messagecompiler/MessageSource.h"
#include "tests/messages/SystemCatalog.h"
#include "tests/support/Child.h"
#include "tests/support/TemporaryFolder.h"

/// The compiler of message catalogs and the libraries that come of it.

namespace {

using testing::HasSubstr;
using testing::StartsWith;

constexpr const char* base = CUL_TEST_CATALOGS "/en_US.msg";
constexpr const char* german = CUL_TEST_CATALOGS "/de_DE.msg";
const std::string library = CUL_TEST_LIBRARIES "/libwobntest.so";

using LanguageSetter = int (*)(const char*);
using MessageGetter = const char* (*)(int, int);

// The built library, opened without the message server.
struct BuiltCatalog {
  void* handle = dlopen(library.c_str(), RTLD_NOW | RTLD_LOCAL);
  LanguageSetter setLanguage = reinterpret_cast<LanguageSetter>(dlsym(handle, "setMessageLang"));
  MessageGetter get = reinterpret_cast<MessageGetter>(dlsym(handle, "getMessage"));
};

ChildResult compile(std::vector<std::string> words) {
  words.insert(words.begin(), CUL_MESSAGE_COMPILER);
  return runProgram(words);
}

// Compiles sources in a folder of their own, the first being the base; gives what the compiler
// says, with "<folder>" for the folder.
std::string errorsFor(const std::vector<std::string>& sources) {
  const TemporaryFolder folder;
  const std::string output = folder.file("output.cpp");
  std::vector<std::string> words = {"-o", output};
  for (const std::string& source : sources) {
    const std::string locale(1, static_cast<char>('a' + words.size() - 2));
    writeFile(folder.file(locale), source);
    words.push_back(locale + "=" + folder.file(locale));
  }
  ChildResult r = compile(words);
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "");
  EXPECT_FALSE(std::filesystem::exists(output));
  for (size_t at = r.err.find(folder.path()); at != std::string::npos;
       at = r.err.find(folder.path(), at)) {
    r.err.replace(at, folder.path().size(), "<folder>");
  }
  return r.err;
}

TEST(MessageCompiler, MakesALibraryWithTheTextsOfTheSystem) {
  const BuiltCatalog built;
  ASSERT_NE(built.get, nullptr);
  EXPECT_EQ(built.setLanguage("en_US"), 1);
  const std::string source = contentsOf(base);
  const SystemCatalog system(source);
  const Messages messages = parseMessages(source, base);
  EXPECT_GE(messages.size(), 19U);
  for (const auto& entry : messages) {
    const MessageId id = entry.first;
    const char* const text = built.get(id.set, id.number);
    ASSERT_NE(text, nullptr) << id.set << '.' << id.number;
    EXPECT_EQ(system.find(id.set, id.number), text);
  }
}

TEST(MessageCompiler, MakesALibraryWithoutOtherTexts) {
  const BuiltCatalog built;
  const SystemCatalog system(contentsOf(base));
  for (int set = -1; set <= 5; ++set) {
    for (int number = -1; number <= 301; ++number) {
      EXPECT_EQ(built.get(set, number) != nullptr, system.find(set, number).has_value())
          << set << '.' << number;
    }
  }
  for (const auto& [set, number] :
       {std::pair{INT_MAX, INT_MIN}, {INT_MIN, INT_MAX}, {INT_MAX, 1}}) {
    EXPECT_EQ(built.get(set, number), nullptr);
  }
}

TEST(MessageCompiler, MakesALibraryThatFallsBackToTheBase) {
  const BuiltCatalog built;
  EXPECT_EQ(built.setLanguage("de_DE"), 1);
  EXPECT_STREQ(built.get(3, 2), "zwei");
  EXPECT_STREQ(built.get(2, 1), "Gr\u00fc\u00dfe");
  EXPECT_STREQ(built.get(2, 2), "nimmt %2$d, %1$s und %3$.1f%%");
  EXPECT_STREQ(built.get(3, 300), "");
  EXPECT_STREQ(built.get(3, 1), "one");
  EXPECT_STREQ(built.get(2, 3), "only in the base");
  EXPECT_EQ(built.get(4, 1), nullptr);
  for (const char* locale :
       {"", "de", "de_DE.UTF-8", "DE_DE", "fr_FR", static_cast<const char*>(nullptr)}) {
    EXPECT_EQ(built.setLanguage("de_DE"), 1);
    EXPECT_EQ(built.setLanguage(locale), 0);
    EXPECT_STREQ(built.get(3, 2), "two");
  }
}

TEST(MessageCompiler, MakesALibraryThatHasTheBaseUntilALanguageIsSet) {
  const TemporaryFolder folder;
  // Another library for the loader, in its first state.
  const std::string copy = folder.file("copy.so");
  std::filesystem::copy_file(library, copy);
  void* const handle = dlopen(copy.c_str(), RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(handle, nullptr) << dlerror();
  EXPECT_STREQ(reinterpret_cast<MessageGetter>(dlsym(handle, "getMessage"))(3, 2), "two");
}

TEST(MessageCompiler, MakesALibraryThatShowsItsTwoEntriesOnly) {
  const ChildResult r =
      runProgram({"/usr/bin/nm", "-D", "--defined-only", "--format=posix", library});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_THAT(r.out, StartsWith("getMessage T "));
  EXPECT_THAT(r.out, HasSubstr("\nsetMessageLang T "));
  EXPECT_EQ(std::count(r.out.begin(), r.out.end(), '\n'), 2);
}

CUL_CHILD(ServeABuiltCatalog) {
  const XPG4MsgServer server(nullptr, "test");
  EXPECT_EQ(viewOf(server.getMessage(2, 1)), "Gr\u00fc\u00dfe");
  EXPECT_EQ(viewOf(server.getMessage(3, 1)), "one");
  EXPECT_EQ(server.getMessage(9, 9).length(), 0U);
  const XPG4MsgServer other("ko_KR", "test");
  EXPECT_EQ(viewOf(other.getMessage(3, 2)), "two");
}

TEST(MessageCompiler, MakesALibraryForTheMessageServer) {
  const ChildResult r =
      runChild("ServeABuiltCatalog",
               {.environment = {{"LD_LIBRARY_PATH", CUL_TEST_LIBRARIES}, {"LANG", "de_AT.UTF-8"}}});
  EXPECT_EQ(r.status, 0) << r.out;
  EXPECT_EQ(r.err, "");
}

TEST(MessageCompiler, MakesTheSameOfTheSame) {
  const TemporaryFolder folder;
  for (const char* name : {"a", "b"}) {
    const ChildResult r = compile(
        {"-o", folder.file(name), std::string("en_US=") + base, std::string("de_DE=") + german});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out + r.err, "");
  }
  EXPECT_EQ(contentsOf(folder.file("a")), contentsOf(folder.file("b")));
  EXPECT_THAT(contentsOf(folder.file("a")), Not(HasSubstr(folder.path())));
}

TEST(MessageCompiler, TellsErrorsWithFileAndLine) {
  EXPECT_EQ(errorsFor({"1 a\nb\n"}), "<folder>/a:2: error: neither a directive nor a message\n");
  EXPECT_EQ(errorsFor({"1 a\n", "\n1 \xff\n"}), "<folder>/b:2: error: the text is not UTF-8\n");
  EXPECT_EQ(errorsFor({"1 a\n", "1 b\n", "2 c\n"}),
            "<folder>/c:1: error: there is no message 2 of set 1 in <folder>/a\n");
  EXPECT_EQ(errorsFor({"1 %s\n", "\n\n1 %d\n"}),
            "<folder>/b:3: error: message 1 of set 1 takes other arguments than in <folder>/a:1\n");
  EXPECT_EQ(errorsFor({"\n"}), "<folder>/a:1: error: there is no message\n");
}

TEST(MessageCompiler, TellsFilesThatItCannotReadOrWrite) {
  const TemporaryFolder folder;
  const auto errorFor = [](const std::string& output, const std::string& source) {
    const ChildResult r = compile({"-o", output, "en=" + source});
    EXPECT_EQ(r.status, 1);
    return r.err;
  };
  const std::string prefix = "cul-message-compiler: ";
  EXPECT_EQ(errorFor(folder.file("o"), folder.file("absent")),
            prefix + folder.file("absent") + ": No such file or directory\n");
  EXPECT_EQ(errorFor(folder.file("o"), folder.path()),
            prefix + folder.path() + ": Is a directory\n");
  EXPECT_EQ(errorFor(folder.file("absent/o"), base),
            prefix + folder.file("absent/o") + ": No such file or directory\n");
  EXPECT_EQ(errorFor("/dev/full", base), prefix + "/dev/full: No space left on device\n");
  EXPECT_TRUE(std::filesystem::exists("/dev/full"));
}

TEST(MessageCompiler, LeavesNoOutputThatItCannotWriteToItsEnd) {
  const TemporaryFolder folder;
  const std::string output = folder.file("output.cpp");
  const std::string source = folder.file("en");
  writeFile(source, "1 " + std::string().append(100000, 'x') + "\n");
  // No file may have more than a few blocks.
  const ChildResult r = runProgram({"/bin/sh", "-c", "trap '' XFSZ; ulimit -f 16; exec \"$@\"",
                                    "sh", CUL_MESSAGE_COMPILER, "-o", output, "en=" + source});
  EXPECT_EQ(r.status, 1);
  EXPECT_THAT(r.err, HasSubstr("cul-message-compiler: " + output + ": File too large\n"));
  EXPECT_FALSE(std::filesystem::exists(output));
}

TEST(MessageCompiler, TellsHowItIsCalled) {
  for (const std::vector<std::string>& words :
       {std::vector<std::string>{}, {"-o"}, {"-o", "x"}, {"-x", "x", "en=y"}, {"en=y"}}) {
    const ChildResult r = compile(words);
    EXPECT_EQ(r.status, 2);
    EXPECT_THAT(r.err, StartsWith("usage: cul-message-compiler -o output.cpp locale=file...\n"));
    EXPECT_EQ(r.out, "");
  }
  for (const char* word : {"en", "=file", "en=", "="}) {
    const ChildResult r = compile({"-o", "/nowhere/o", word});
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.err,
              std::string("cul-message-compiler: ") + word + ": not of the form locale=file\n");
  }
  const ChildResult r = compile({"-o", "/nowhere/o", "en=a", "en=b"});
  EXPECT_EQ(r.status, 2);
  EXPECT_EQ(r.err, "cul-message-compiler: en=b: the locale is there already\n");
}

}  // namespace
