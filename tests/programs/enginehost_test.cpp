#include <cstdlib>
#include <filesystem>
#include <signal.h>
#include <sstream>
#include <string>
#include <sys/resource.h>
#include <unistd.h>
#include <vector>

#include <gmock/gmock.h>

#include "Engine/utilities/ProductData.h"

#include "tests/programs/Host.h"
#include "tests/support/TemporaryFolder.h"

namespace {

using testing::HasSubstr;
using testing::IsEmpty;

ChildResult runHostedShell(const std::string& script, const ChildOptions& options = {}) {
  return runHost({"--", "sh", "-c", script}, options);
}

TEST(EngineHost, LeavesTheStandardStreamsToTheProgram) {
  const ChildResult r = runHostedShell("cat; echo out; echo err >&2", {.input = "in\n"});
  EXPECT_EQ(r.out, "in\nout\n");
  EXPECT_EQ(r.err, "err\n");
  EXPECT_EQ(r.status, 0);
}

TEST(EngineHost, LeavesRedirectedFilesAtTheirPositions) {
  const TemporaryFolder folder;
  writeFile(folder.file("in"), "1\n2\n3\n");
  writeFile(folder.file("out"), "before\n");
  const ChildResult r = runProgram({"/bin/sh", "-c",
                                    "{ read first; " + std::string(host) +
                                        " -- sh -c 'read second; echo $second'; } <" +
                                        folder.file("in") + " >>" + folder.file("out")});
  EXPECT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(contentsOf(folder.file("out")), "before\n2\n");
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
  // What would upset a terminal is not shown as it is.
  EXPECT_EQ(runHost({"no\33[7m"}).err, "enginehost: no\\x1B[7m: not found\n");
  EXPECT_EQ(runHost({"-\33[7m"}).err,
            "enginehost: -\\x1B[7m: invalid option or value, see enginehost -?\n");
}

TEST(EngineHost, StartsNoArgumentInThePlaceOfAnEmptyName) {
  for (const char* name : {"", "\"\"", "\"\"\"\""}) {
    const ChildResult r = runHost({"-qquiet", name, "echo", "started"});
    EXPECT_EQ(r.status, 127) << name;
    EXPECT_EQ(r.err, "enginehost: " + std::string(name) + ": not found\n");
    EXPECT_THAT(r.out, IsEmpty());
  }
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
  EXPECT_EQ(r.err, "enginehost: -x: invalid option or value, see enginehost -?\n");
  EXPECT_THAT(r.out, IsEmpty());
}

TEST(EngineHost, RefusesABadValueOfAnOption) {
  const ChildResult r = runHost({"-qdaemon=perhaps", "echo", "started"});
  EXPECT_EQ(r.status, 2);
  EXPECT_EQ(r.err, "enginehost: -qdaemon=perhaps: invalid option or value, see enginehost -?\n");
  EXPECT_THAT(r.out, IsEmpty());
}

TEST(EngineHost, LeavesAttachingToTheEngine) {
  for (const std::vector<std::string>& words :
       {std::vector<std::string>{"-qpid=1"}, {"-qpid", "1"}, {"-a1"}, {"-a1", "echo", "started"}}) {
    const ChildResult r = runHost(words);
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.err, "enginehost: attaching is for the engine\n");
    EXPECT_THAT(r.out, IsEmpty());
  }
}

TEST(EngineHost, TakesTheDebuggersOptionsInFrontOfTheProgram) {
  const ChildResult r = runHost({"-qhost", "name", "-qquiet", "echo", "-qquiet", "started"});
  EXPECT_EQ(r.out, "-qquiet started\n") << r.err;
  EXPECT_EQ(r.status, 0);
}

TEST(EngineHost, TellsItsOptionsAndTheSettings) {
  for (const char* option : {"-?", "-help", "-he", "--help"}) {
    const ChildResult r = runHost({option, "echo", "started"});
    EXPECT_EQ(r.status, 0);
    EXPECT_THAT(r.err, IsEmpty());
    EXPECT_THAT(r.out, HasSubstr("usage: enginehost [options] [--] program [argument...]\n"));
    EXPECT_THAT(r.out, HasSubstr("\n  -qdxpllevel=value\n"));
    EXPECT_THAT(r.out, HasSubstr("\n  -qsocketfd=value               -\n"));
    EXPECT_THAT(r.out, HasSubstr("\n  -qprobepid=value               -qp\n"));
    EXPECT_THAT(r.out, HasSubstr("\n  -qhprotocol=value              -qhpr\n"));
    EXPECT_THAT(r.out, testing::Not(HasSubstr("-qconsole")));
    EXPECT_THAT(r.out, HasSubstr("\n  REPLY_TIMEOUT                  10 - 65535\n"));
  }
}

TEST(EngineHost, NamesItsSmallCommandsInItsUsage) {
  EXPECT_THAT(runHost({"--help"}).out, HasSubstr("\n       enginehost --help\n"
                                                 "       enginehost --version\n"
                                                 "       enginehost -convert FROM TO\n"));
  EXPECT_EQ(runHost({"--help"}).out, runHost({"-?"}).out);
}

TEST(EngineHost, TellsItsVersionInOneLine) {
  const ProductData& product = productData();
  const ChildResult r = runHost({"--version"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, std::string("enginehost ") + product.version + " (Debugger Engine, build " +
                       product.buildStamp + ")\n");
  EXPECT_THAT(r.err, IsEmpty());
}

TEST(EngineHost, TakesHelpAndVersionForProgramsBehindTheDoubleDash) {
  for (const char* name : {"--help", "--version", "-settings"}) {
    const ChildResult r = runHost({"--", name});
    EXPECT_EQ(r.status, 127);
    EXPECT_EQ(r.err, std::string("enginehost: ") + name + ": not found\n");
  }
}

// A property file for the command that needs one.
std::string commandsWithOutput(const TemporaryFolder& folder) {
  writeFile(folder.file("p"), "a=1\n");
  return "-settings|-settings --json|-processes|-processes --json|-? |-help|--help|--version|"
         "-convert UTF-8 UTF-16|-properties " +
         folder.file("p") + "|-properties " + folder.file("p") + " a";
}

TEST(EngineHost, TellsThatItsOutputCannotBeWritten) {
  const TemporaryFolder folder;
  std::istringstream commands(commandsWithOutput(folder));
  for (std::string words; std::getline(commands, words, '|');) {
    for (const char* out : {">&-", ">/dev/full"}) {
      const ChildResult r = runProgram(
          {"/bin/sh", "-c", "echo text | " + std::string(host) + " " + words + " " + out});
      EXPECT_EQ(r.status, 125) << words << out;
      EXPECT_THAT(r.err, testing::MatchesRegex("enginehost: standard output[^\n]*\n"))
          << words << out;
      EXPECT_THAT(r.out, IsEmpty());
    }
  }
}

TEST(EngineHost, TellsNobodyWhereItsErrorsAreClosedToo) {
  const TemporaryFolder folder;
  std::istringstream commands(commandsWithOutput(folder));
  for (std::string words; std::getline(commands, words, '|');) {
    EXPECT_EQ(runProgram(
                  {"/bin/sh", "-c", "echo text | " + std::string(host) + " " + words + " >&- 2>&-"})
                  .status,
              125)
        << words;
  }
}

TEST(EngineHost, TellsThatItsInputIsClosed) {
  const ChildResult r =
      runProgram({"/bin/sh", "-c", std::string(host) + " -convert UTF-8 UTF-16 <&-"});
  EXPECT_EQ(r.status, 125);
  EXPECT_EQ(r.err, "enginehost: standard input: Bad file descriptor\n");
}

TEST(EngineHost, TracesTheCommandLine) {
  const TemporaryFolder folder;
  const ChildResult r = runHost({"-qhrdmkey=opensesame", "true"},
                                {.environment = {{"QVX_DBG_TRACE", folder.file("trace")}}});
  EXPECT_EQ(r.status, 0);
  const std::string trace = contentsOf(folder.file("trace"));
  EXPECT_THAT(trace, HasSubstr("Debuggee Name: >true<"));
  EXPECT_THAT(trace, testing::Not(HasSubstr("opensesame")));
}

TEST(EngineHost, PrintsItsUsageWhenNoProgramIsNamed) {
  for (const std::vector<std::string>& words : {std::vector<std::string>{}, {"--"}}) {
    const ChildResult r = runHost(words);
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.err, "usage: enginehost [options] [--] program [argument...]\n");
  }
}

TEST(EngineHost, EndsAProgramWhoseReaderHasGoneAsAPipelineDoes) {
  const ChildResult r = runProgram(
      {"/bin/bash", "-c", std::string(host) + " yes | head -n 1; echo ${PIPESTATUS[0]}"});
  EXPECT_EQ(r.out, "y\n" + std::to_string(128 + SIGPIPE) + "\n");
  EXPECT_THAT(r.err, IsEmpty());
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

TEST(EngineHost, LeavesSignalsIgnoredThatItWasStartedWithSo) {
  // As nohup does, and a shell without job control in the background.
  const ChildResult r = runProgram({"/bin/sh", "-c",
                                    std::string("trap '' HUP INT QUIT TERM PIPE USR1 USR2; exec ") +
                                        host + " cat /proc/self/status"});
  EXPECT_EQ(signalsOf(r.out, "SigIgn"),
            signalsOf(runProgram({"/bin/cat", "/proc/self/status"}).out, "SigIgn") | 0x5A07)
      << r.out;
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

TEST(EngineHost, GivesTheProgramStreamsAsUselessAsClosedOnes) {
  const TemporaryFolder folder;
  const ChildResult r =
      runProgram({"/bin/sh", "-c",
                  std::string(host) + " sh -c 'read line; echo $? >" + folder.file("read") +
                      "; echo hidden; echo $? >" + folder.file("written") +
                      "; exit 4' <&- >&- 2>&-; echo $?"});
  EXPECT_EQ(r.out, "4\n");
  EXPECT_NE(contentsOf(folder.file("read")), "0\n");
  EXPECT_NE(contentsOf(folder.file("written")), "0\n");
}

// Runs a host as an ordinary user who may have so many processes and threads only.
CUL_CHILD(RunWithFewProcesses) {
  // Of the user's own, where there may be one: others count, too.
  constexpr uid_t base = 100000;
  const uid_t user = geteuid() == 0 ? base + static_cast<uid_t>(getpid()) : geteuid();
  const rlim_t most = std::stoul(childArguments()[0]);
  const rlimit limit = {most, most};
  if (setresuid(user, user, user) != 0 || setrlimit(RLIMIT_NPROC, &limit) != 0) {
    std::abort();
  }
  execl(host, host, "--", "sh", "-c", "echo started", nullptr);
}

// The threads of this user.
unsigned long presentThreads() {
  const ChildResult r = runProgram({"/bin/sh", "-c", "ps -L -u $(id -u) -o lwp= | wc -l"});
  return std::stoul(r.out);
}

TEST(EngineHost, StartsTheProgramOnlyWhenThereIsRoomForAllThatItNeedsItself) {
  const bool hasOwnUser = geteuid() == 0;
  const unsigned long present = hasOwnUser ? 0 : presentThreads();
  unsigned starts = 0;
  constexpr unsigned enough = 8;
  for (unsigned more = 1; more <= enough; ++more) {
    // The leak sanitizer needs a process of its own.
    const ChildResult r =
        runChild("RunWithFewProcesses", {.environment = {{"ASAN_OPTIONS", "detect_leaks=0"}},
                                         .arguments = {std::to_string(present + more)}});
    if (r.out == "started\n") {
      ++starts;
      EXPECT_EQ(r.err, "");
      EXPECT_EQ(r.status, 0);
    } else {
      EXPECT_EQ(r.out, "");
      EXPECT_THAT(r.err, testing::MatchesRegex(
                             "enginehost: [^\n]*Resource temporarily unavailable[^\n]*\n"));
      EXPECT_THAT(r.status, testing::AnyOf(125, 126)) << more;
    }
  }
  if (hasOwnUser) {
    EXPECT_GE(starts, 1U);
    EXPECT_LE(starts, enough - 2);
  }
}

TEST(EngineHost, TracesTheLifeOfTheProgram) {
  const TemporaryFolder folder;
  const ChildResult r =
      runHostedShell("exit 3", {.environment = {{"QVX_DBG_TRACE", folder.file("trace")}}});
  EXPECT_EQ(r.status, 3);
  const std::string trace = contentsOf(folder.file("trace"));
  const std::size_t start = trace.find("Process ");
  ASSERT_NE(start, std::string::npos) << trace;
  const std::string process = std::to_string(std::stoul(trace.substr(start + 8)));
  EXPECT_THAT(trace, HasSubstr("Process " + process + " started: /"));
  EXPECT_THAT(trace, HasSubstr("Process " + process + " ended with status 3.\n"));
}

TEST(EngineHost, TracesTheSignalThatKilledTheProgram) {
  const TemporaryFolder folder;
  runHostedShell("kill -KILL $$", {.environment = {{"QVX_DBG_TRACE", folder.file("trace")}}});
  EXPECT_THAT(contentsOf(folder.file("trace")), HasSubstr(" was killed by signal 9.\n"));
}

// Signals that somebody else sends to the host.
TEST(EngineHost, PassesOnTheSignalsThatAskAProgramToEnd) {
  for (const char* signal : {"INT", "QUIT", "TERM", "HUP"}) {
    const ChildResult r =
        runProgram({"/bin/sh", "-c",
                    std::string(host) + " -- sh -c 'trap \"echo caught; exit 6\" " + signal +
                        "; kill -" + signal + " $PPID; while :; do sleep 0.02; done'; echo $?"});
    EXPECT_EQ(r.out, "caught\n6\n") << signal;
  }
}

TEST(EngineHost, RunsTheBundledSample) {
  const ChildResult r = runHost({CUL_SOURCE_FOLDER "/programs/enginehost/sample"});
  EXPECT_EQ(r.status, 0);
  for (const char* text : {"Grüße", "Καλημέρα", "こんにちは", "🐞", "console:  none"}) {
    EXPECT_THAT(r.out, HasSubstr(text));
  }
}

}  // namespace
