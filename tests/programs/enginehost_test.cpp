#include <fcntl.h>
#include <filesystem>
#include <signal.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include <gmock/gmock.h>

#include "tests/support/Child.h"
#include "tests/support/TemporaryFolder.h"

namespace {

using testing::HasSubstr;
using testing::IsEmpty;

constexpr const char* host = CUL_ENGINEHOST;

ChildResult runHost(std::vector<std::string> words, const ChildOptions& options = {}) {
  words.insert(words.begin(), host);
  return runProgram(words, options);
}

ChildResult runHostedShell(const std::string& script, const ChildOptions& options = {}) {
  return runHost({"--", "sh", "-c", script}, options);
}

TEST(EngineHost, RelaysStandardOutputAndErrorToItsStandardOutput) {
  const ChildResult r = runHostedShell("echo out; echo err >&2");
  EXPECT_EQ(r.out, "out\nerr\n");
  EXPECT_THAT(r.err, IsEmpty());
  EXPECT_EQ(r.status, 0);
}

TEST(EngineHost, EndsWithTheStatusOfTheProgram) {
  for (const int status : {0, 1, 3, 99, 255}) {
    EXPECT_EQ(runHostedShell("exit " + std::to_string(status)).status, status);
  }
}

TEST(EngineHost, EndsWith128AndTheSignalThatKilledTheProgram) {
  EXPECT_EQ(runHostedShell("kill -KILL $$").status, 128 + SIGKILL);
  EXPECT_EQ(runHostedShell("kill -TERM $$").status, 128 + SIGTERM);
  EXPECT_EQ(runHostedShell("kill -PIPE $$").status, 128 + SIGPIPE);
}

TEST(EngineHost, ReportsAProgramThatIsNotFoundInOneLineWithStatus127) {
  const ChildResult r = runHost({"no-such-program", "argument"});
  EXPECT_EQ(r.status, 127);
  EXPECT_EQ(r.err, "enginehost: no-such-program: not found\n");
  EXPECT_THAT(r.out, IsEmpty());
  EXPECT_EQ(runHost({"/no/such/file"}).err, "enginehost: /no/such/file: not found\n");
  EXPECT_EQ(runHost({"/no/such/file"}).status, 127);
  EXPECT_EQ(runHost({""}).status, 127);
}

TEST(EngineHost, ReportsAFileThatCannotBeExecutedWithStatus126) {
  const TemporaryFolder folder;
  const ChildResult r = runHost({folder.path()});
  EXPECT_EQ(r.status, 126);
  EXPECT_EQ(r.err, "enginehost: " + folder.path() + ": Permission denied\n");
}

TEST(EngineHost, FindsANameWithASlashFromTheWorkingDirectory) {
  const TemporaryFolder folder;
  std::filesystem::create_directory(folder.file("bin"));
  writeFile(folder.file("bin/tool"), "#!/bin/sh\necho \"$0 $1\"\n");
  std::filesystem::permissions(folder.file("bin/tool"), std::filesystem::perms::owner_all);
  const ChildResult r = runHost({"bin/tool", "x"}, {.directory = folder.path()});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_THAT(r.out, HasSubstr("bin/tool x\n"));
}

TEST(EngineHost, FindsOtherNamesInPath) {
  const TemporaryFolder folder;
  writeFile(folder.file("tool"), "#!/bin/sh\necho found\n");
  std::filesystem::permissions(folder.file("tool"), std::filesystem::perms::owner_all);
  const ChildResult r = runHost({"tool"}, {.environment = {{"PATH", "/none:" + folder.path()}}});
  EXPECT_EQ(r.out, "found\n");
  EXPECT_EQ(r.status, 0);
}

TEST(EngineHost, PassesTheArgumentsAsTheyAre) {
  const ChildResult r = runHost({"printf", "[%s]", "", "a b", "\"", "--", "-x", "ü\xff"});
  EXPECT_EQ(r.out, "[][a b][\"][--][-x][ü\xff]");
}

TEST(EngineHost, TakesANameWithADashBehindTheDoubleDash) {
  const ChildResult r = runHost({"--", "-tool"});
  EXPECT_EQ(r.status, 127);
  EXPECT_EQ(r.err, "enginehost: -tool: not found\n");
}

TEST(EngineHost, RefusesAnUnknownOptionWithStatus2) {
  const ChildResult r = runHost({"-x", "true"});
  EXPECT_EQ(r.status, 2);
  EXPECT_EQ(r.err,
            "enginehost: -x: unknown option\nusage: enginehost [--] program [argument...]\n");
  EXPECT_THAT(r.out, IsEmpty());
}

TEST(EngineHost, PrintsItsUsageWhenNoProgramIsNamed) {
  for (const std::vector<std::string>& words : {std::vector<std::string>{}, {"--"}}) {
    const ChildResult r = runHost(words);
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.err, "usage: enginehost [--] program [argument...]\n");
  }
}

TEST(EngineHost, GivesTheProgramItsStandardInput) {
  EXPECT_EQ(runHost({"cat"}, {.input = "line 1\nline 2"}).out, "line 1\nline 2");
}

TEST(EngineHost, HandsOnEveryByteOfALongOutput) {
  std::string expected;
  for (int i = 0; i < 1'000'000; ++i) {
    expected += static_cast<char>(i % 251);
  }
  const TemporaryFolder folder;
  writeFile(folder.file("data"), expected);
  const ChildResult r = runHost({"cat", folder.file("data")});
  EXPECT_EQ(r.status, 0);
  EXPECT_TRUE(r.out == expected) << r.out.size() << " bytes came";
}

// A host whose streams are in the hands of the test.
class Conversation {
 public:
  // `prepare` gets the end that the host prints to.
  explicit Conversation(const char* script, void (*prepare)(int) = nullptr) {
    int in[2];
    int out[2];
    EXPECT_EQ(pipe(in), 0);
    EXPECT_EQ(pipe(out), 0);
    if (prepare != nullptr) {
      prepare(out[1]);
    }
    process_ = fork();
    if (process_ == 0) {
      dup2(in[0], 0);
      dup2(out[1], 1);
      for (const int end : {in[0], in[1], out[0], out[1]}) {
        close(end);
      }
      execl(host, host, "--", "sh", "-c", script, nullptr);
      _exit(125);
    }
    close(in[0]);
    close(out[1]);
    toHost_ = in[1];
    fromHost_ = out[0];
  }
  Conversation(const Conversation&) = delete;
  Conversation& operator=(const Conversation&) = delete;
  ~Conversation() {
    close(toHost_);
    close(fromHost_);
    waitpid(process_, nullptr, 0);
  }

  void say(const std::string& text) const {
    EXPECT_EQ(write(toHost_, text.data(), text.size()), static_cast<ssize_t>(text.size()));
  }
  // The next `length` bytes; fewer at the end.
  std::string hear(std::size_t length) const {
    std::string text(length, ' ');
    std::size_t heard = 0;
    ssize_t n = 1;
    while (heard < length && n > 0) {
      n = read(fromHost_, &text[heard], length - heard);
      heard += n > 0 ? static_cast<std::size_t>(n) : 0;
    }
    return text.substr(0, heard);
  }

 private:
  pid_t process_ = 0;
  int toHost_ = -1;
  int fromHost_ = -1;
};

TEST(EngineHost, RelaysASingleByteBeforeTheNextOneIsPrinted) {
  const Conversation conversation("printf a; read line; printf \"b$line\"; read line; printf cd");
  EXPECT_EQ(conversation.hear(1), "a");
  conversation.say("1\n");
  EXPECT_EQ(conversation.hear(2), "b1");
  conversation.say("\n");
  EXPECT_EQ(conversation.hear(2), "cd");
  EXPECT_EQ(conversation.hear(1), "");
}

TEST(EngineHost, EndsAProgramWhoseReaderHasGoneAsAPipelineDoes) {
  const ChildResult r = runProgram(
      {"/bin/bash", "-c", std::string(host) + " yes | head -n 1; echo ${PIPESTATUS[0]}"});
  EXPECT_EQ(r.out, "y\n" + std::to_string(128 + SIGPIPE) + "\n");
  EXPECT_THAT(r.err, IsEmpty());
}

TEST(EngineHost, HandsOnEveryByteToANonBlockingEndThatIsFullAtTimes) {
  const Conversation conversation("head -c 300000 /dev/zero", [](int end) {
    EXPECT_GT(fcntl(end, F_SETPIPE_SZ, 4096), 0);
    EXPECT_EQ(fcntl(end, F_SETFL, O_WRONLY | O_NONBLOCK), 0);
  });
  EXPECT_EQ(conversation.hear(300001), std::string(300000, '\0'));
}

// What follows `name` in the text, as the signals 1 to 31; the C library keeps the two
// above to itself.
unsigned long signalsOf(const std::string& status, const std::string& name) {
  const std::size_t start = status.find(name + ":");
  EXPECT_NE(start, std::string::npos) << status;
  return std::stoul(status.substr(start + name.size() + 1), nullptr, 16) & 0x7FFFFFFF;
}

TEST(EngineHost, GivesTheProgramTheSignalsItWouldHaveWithoutAHost) {
  const std::string script = "cat /proc/self/status";
  const ChildResult plain = runProgram({"/bin/sh", "-c", script});
  const ChildResult hosted = runHostedShell(script);
  for (const char* signals : {"SigBlk", "SigIgn"}) {
    EXPECT_EQ(signalsOf(hosted.out, signals), signalsOf(plain.out, signals)) << signals;
  }
}

TEST(EngineHost, GivesTheProgramNoDescriptorOfItsOwn) {
  const std::string script = "echo /proc/self/fd/*";
  const ChildResult plain = runProgram({"/bin/sh", "-c", script});
  EXPECT_THAT(plain.out, HasSubstr("/proc/self/fd/2"));
  EXPECT_EQ(runHostedShell(script).out, plain.out);
}

TEST(EngineHost, RunsWithItsStandardStreamsClosed) {
  const TemporaryFolder folder;
  const ChildResult r = runProgram(
      {"/bin/sh", "-c", std::string(host) + " sh -c 'echo hidden; exit 4' <&- >&- 2>&-; echo $?"});
  EXPECT_EQ(r.out, "4\n");
}

TEST(EngineHost, TracesTheLifeOfTheProgram) {
  const TemporaryFolder folder;
  const ChildResult r = runHostedShell("printf 12345; exit 3",
                                       {.environment = {{"QVX_DBG_TRACE", folder.file("trace")}}});
  EXPECT_EQ(r.status, 3);
  const std::string trace = contentsOf(folder.file("trace"));
  const std::size_t start = trace.find("Process ");
  ASSERT_NE(start, std::string::npos) << trace;
  const std::string process = std::to_string(std::stoul(trace.substr(start + 8)));
  EXPECT_THAT(trace, HasSubstr("Process " + process + " started: /"));
  EXPECT_THAT(trace, HasSubstr("Relayed 5 bytes of process " + process + ".\n"));
  EXPECT_THAT(trace, HasSubstr("(Reaper  )****: "));
  EXPECT_THAT(trace, HasSubstr("Process " + process + " ended with status 3.\n"));
}

TEST(EngineHost, TracesTheSignalThatKilledTheProgram) {
  const TemporaryFolder folder;
  runHostedShell("kill -KILL $$", {.environment = {{"QVX_DBG_TRACE", folder.file("trace")}}});
  EXPECT_THAT(contentsOf(folder.file("trace")), HasSubstr(" was killed by signal 9.\n"));
}

TEST(EngineHost, RunsTheBundledSample) {
  const ChildResult r = runHost({CUL_SOURCE_FOLDER "/programs/enginehost/sample"});
  EXPECT_EQ(r.status, 0);
  for (const char* script : {"Grüße", "Καλημέρα", "こんにちは", "🐞"}) {
    EXPECT_THAT(r.out, HasSubstr(script));
  }
}

}  // namespace
