#include <climits>
#include <csignal>
#include <dlfcn.h>
#include <fcntl.h>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <sys/ptrace.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include <gmock/gmock.h>

#include "Engine/utilities/msgserv/XPG4MsgServer.h"

#include "programs/messagecompiler/MessageSource.h"
#include "tests/messages/SystemCatalog.h"
#include "tests/support/Child.h"
#include "tests/support/ChildMain.h"
#include "tests/support/OrdinaryUser.h"
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
  EXPECT_EQ(server.getMessage(2, 1).view(), "Gr\u00fc\u00dfe");
  EXPECT_EQ(server.getMessage(3, 1).view(), "one");
  EXPECT_EQ(server.getMessage(9, 9).length(), 0U);
  const XPG4MsgServer other("ko_KR", "test");
  EXPECT_EQ(other.getMessage(3, 2).view(), "two");
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

// A folder with a source whose catalog fills many blocks, and perhaps an output of earlier days.
class Workshop {
 public:
  explicit Workshop(const std::string& earlierOutput = {}) {
    writeFile(source, "1 " + std::string().append(100000, 'x') + "\n");
    if (!earlierOutput.empty()) {
      writeFile(output, earlierOutput);
    }
  }

  std::vector<std::string> command() const {
    return {CUL_MESSAGE_COMPILER, "-o", output, "en=" + source};
  }

  const std::string& folder() const { return folder_.path(); }

  // All files with what is in them; the source without.
  std::map<std::string, std::string> files() const {
    std::map<std::string, std::string> result;
    for (const auto& entry : std::filesystem::directory_iterator(folder_.path())) {
      result[entry.path().filename()] =
          entry.path() == source ? std::string() : contentsOf(entry.path());
    }
    return result;
  }

  // The same with this output, without one where it is empty.
  static std::map<std::string, std::string> untouched(const std::string& output) {
    std::map<std::string, std::string> result = {{"en", ""}};
    if (!output.empty()) {
      result["output.cpp"] = output;
    }
    return result;
  }

 private:
  TemporaryFolder folder_;

 public:
  const std::string source = folder_.file("en");
  const std::string output = folder_.file("output.cpp");
};

std::string wholeOutput() {
  const Workshop workshop;
  EXPECT_EQ(runProgram(workshop.command()).status, 0);
  return contentsOf(workshop.output);
}

TEST(MessageCompiler, LeavesAnOutputThatItCannotWriteToItsEndAsItWas) {
  for (const char* earlier : {"", "earlier"}) {
    const Workshop workshop(earlier);
    // No file may have more than a few blocks.
    std::vector<std::string> words = workshop.command();
    words.insert(words.begin(), {"/bin/sh", "-c", "ulimit -f 16; exec \"$@\"", "sh"});
    const ChildResult r = runProgram(words);
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "cul-message-compiler: " + workshop.output + ": File too large\n");
    EXPECT_EQ(workshop.files(), workshop.untouched(earlier));
  }
}

// How a program ended that got a signal at one of its system calls.
struct Interrupted {
  bool isSent = false;  // There were that many calls.
  bool isKilled = false;
};

// Runs a program and sends it a signal at one of its system calls, counted from the one by which
// it makes a file.
Interrupted runInterrupted(const std::vector<std::string>& command, int signal, unsigned calls) {
  std::vector<std::string> words = command;
  // The leak sanitizer is a tracer, too.
  std::vector<std::string> variables = childEnvironment({{"ASAN_OPTIONS", "detect_leaks=0"}});
  const std::vector<char*> argv = pointersTo(words);
  const std::vector<char*> envp = pointersTo(variables);
  const pid_t child = fork();
  if (child == 0) {
    ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
    execve(argv[0], argv.data(), envp.data());
    _exit(127);
  }
  int status = 0;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFSTOPPED(status)) << status;
  ptrace(PTRACE_SETOPTIONS, child, nullptr, PTRACE_O_EXITKILL | PTRACE_O_TRACESYSGOOD);
  constexpr int systemCall = SIGTRAP | 0x80;
  bool hasFile = false;
  Interrupted result;
  long sent = 0;
  for (;;) {
    ptrace(PTRACE_SYSCALL, child, nullptr, sent);
    EXPECT_EQ(waitpid(child, &status, 0), child);
    if (!WIFSTOPPED(status)) {
      break;
    }
    sent = WSTOPSIG(status) == systemCall ? 0 : WSTOPSIG(status);
    if (sent != 0 || result.isSent) {
      continue;
    }
    user_regs_struct state = {};
    ptrace(PTRACE_GETREGS, child, nullptr, &state);
    hasFile = hasFile || (state.orig_rax == SYS_openat && (state.rdx & O_CREAT) != 0);
    if (hasFile && calls-- == 0) {
      result.isSent = true;
      sent = signal;
    }
  }
  EXPECT_TRUE(hasFile);
  result.isKilled = WIFSIGNALED(status) && WTERMSIG(status) == signal;
  EXPECT_TRUE(result.isKilled || (WIFEXITED(status) && WEXITSTATUS(status) == 0)) << status;
  return result;
}

TEST(MessageCompiler, LeavesTheOutputWholeOrAsItWasWhenItIsInterrupted) {
  const std::string whole = wholeOutput();
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    for (const char* earlier : {"", "earlier"}) {
      unsigned kills = 0;
      Interrupted r = {.isSent = true};
      for (unsigned calls = 0; r.isSent; ++calls) {
        const Workshop workshop(earlier);
        r = runInterrupted(workshop.command(), signal, calls);
        kills += r.isKilled ? 1 : 0;
        const std::map<std::string, std::string> files = workshop.files();
        EXPECT_TRUE(files == workshop.untouched(whole) ||
                    (r.isKilled && files == workshop.untouched(earlier)))
            << calls << testing::PrintToString(files).substr(0, 200);
      }
      EXPECT_GE(kills, 5U);
    }
  }
}

// Gives what the compiler says when it cannot write to an output that is there.
void expectUntouched(const Workshop& workshop, const ChildResult& r, const std::string& earlier,
                     const std::string& reason) {
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.err, "cul-message-compiler: " + workshop.output + ": " + reason + "\n");
  EXPECT_TRUE(workshop.files() == workshop.untouched(earlier));
}

TEST(MessageCompiler, LeavesAProgramThatRunsWhereItsOutputWouldGo) {
  const std::string program = contentsOf("/bin/sleep");
  const Workshop workshop(program);
  ASSERT_EQ(chmod(workshop.output.c_str(), 0700), 0);
  std::vector<std::string> words = workshop.command();
  words.insert(words.begin(),
               {"/bin/sh", "-c",
                "\"$0\" 1000 & "
                "until [ \"$(readlink /proc/$!/exe)\" = \"$0\" ]; do sleep 0.01; done;"
                "\"$@\"; status=$?; kill $!; exit $status",
                workshop.output});
  expectUntouched(workshop, runProgram(words), program, "Text file busy");
}

CUL_CHILD(CompileAsOrdinaryUser) {
  const OrdinaryUser user;
  std::vector<std::string> words = childArguments();
  execv(words[0].c_str(), pointersTo(words).data());
}

TEST(MessageCompiler, LeavesAnOutputThatMayNotBeWrittenTo) {
  const Workshop workshop("earlier");
  // The folder may.
  ASSERT_EQ(chmod(workshop.folder().c_str(), 0777), 0);
  ASSERT_EQ(chmod(workshop.output.c_str(), 0444), 0);
  expectUntouched(workshop, runChild("CompileAsOrdinaryUser", {.arguments = workshop.command()}),
                  "earlier", "Permission denied");
}

mode_t permissionsOf(const std::string& file) {
  struct stat state = {};
  EXPECT_EQ(lstat(file.c_str(), &state), 0);
  return state.st_mode & 07777;
}

TEST(MessageCompiler, GivesAFreshOutputThePermissionsThatTheMaskLeaves) {
  for (const auto& [mask, permissions] : {std::pair{"022", 0644}, {"077", 0600}, {"002", 0664}}) {
    const Workshop workshop;
    std::vector<std::string> words = workshop.command();
    words.insert(words.begin(), {"/bin/sh", "-c", "umask \"$0\"; exec \"$@\"", mask});
    EXPECT_EQ(runProgram(words).status, 0);
    EXPECT_EQ(permissionsOf(workshop.output), static_cast<mode_t>(permissions));
  }
}

TEST(MessageCompiler, LeavesAnOutputItsPermissions) {
  const Workshop workshop("earlier");
  ASSERT_EQ(chmod(workshop.output.c_str(), 0751), 0);
  EXPECT_EQ(runProgram(workshop.command()).status, 0);
  EXPECT_EQ(permissionsOf(workshop.output), 0751U);
  EXPECT_THAT(contentsOf(workshop.output), StartsWith("// Made by"));
}

TEST(MessageCompiler, WritesToWhereALinkLeads) {
  const std::string whole = wholeOutput();
  for (const bool isThere : {true, false}) {
    const Workshop workshop;
    std::filesystem::create_directory(workshop.folder() + "/far");
    const std::string target = workshop.folder() + "/far/target";
    if (isThere) {
      writeFile(target, "earlier");
    }
    std::filesystem::create_symlink("near", workshop.output);
    std::filesystem::create_symlink("far/target", workshop.folder() + "/near");
    EXPECT_EQ(runProgram(workshop.command()).status, 0);
    EXPECT_TRUE(std::filesystem::is_symlink(workshop.output));
    EXPECT_TRUE(contentsOf(target) == whole);
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(workshop.folder() + "/far"), {}),
              1);
  }
}

TEST(MessageCompiler, WritesToAPipe) {
  const Workshop workshop;
  const ChildResult r =
      runProgram({CUL_MESSAGE_COMPILER, "-o", "/dev/stdout", "en=" + workshop.source});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_TRUE(r.out == wholeOutput());
}

TEST(MessageCompiler, DoesNotOverwriteItsSource) {
  const Workshop workshop;
  const std::string source = contentsOf(workshop.source);
  const std::string other = workshop.folder() + "/other";
  const std::string link = workshop.folder() + "/link";
  const std::string sameFile = workshop.folder() + "/same";
  writeFile(other, source);
  std::filesystem::create_symlink("en", link);
  std::filesystem::create_hard_link(workshop.source, sameFile);
  for (const std::string& output :
       {workshop.source, workshop.folder() + "/.//en", link, sameFile}) {
    std::vector<std::string> words = {"-o", output, "en=" + workshop.source, "de=" + other};
    for (int order = 0; order < 2; ++order) {
      const ChildResult r = compile(words);
      EXPECT_EQ(r.status, 2);
      EXPECT_EQ(r.err,
                "cul-message-compiler: " + output + ": it is a source as well as the output\n");
      EXPECT_TRUE(contentsOf(workshop.source) == source);
      std::swap(words[2], words[3]);
    }
  }
  EXPECT_TRUE(std::filesystem::is_symlink(link));
}

TEST(MessageCompiler, RefusesASourceThatIsEndless) {
  const Workshop workshop;
  const auto errorFor = [&](const std::string& source) {
    const ChildResult r = compile({"-o", workshop.output, "en=" + source});
    EXPECT_EQ(r.status, 1);
    return r.err;
  };
  EXPECT_EQ(errorFor("/dev/zero"), "cul-message-compiler: /dev/zero: File too large\n");
  const std::string source = "1 a\n" + std::string(16 << 20, '\n');
  const std::size_t most = 16 << 20;
  writeFile(workshop.source, source.substr(0, most + 1));
  EXPECT_EQ(errorFor(workshop.source),
            "cul-message-compiler: " + workshop.source + ": File too large\n");
  writeFile(workshop.source, source.substr(0, most));
  EXPECT_EQ(runProgram(workshop.command()).status, 0);
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
