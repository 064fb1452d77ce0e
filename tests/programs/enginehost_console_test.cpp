#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <string>
#include <sys/wait.h>
#include <termios.h>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

#include <gmock/gmock.h>

#include "tests/programs/HostAtTerminal.h"
#include "tests/support/TemporaryFolder.h"
#include "tests/support/WaitUntil.h"

/// The host at a terminal: what a user sees who runs programs under it.

namespace {

using testing::AllOf;
using testing::AnyOf;
using testing::HasSubstr;
using testing::Not;

std::string hostedShell(const std::string& script, const TerminalOptions& options = {}) {
  Terminal terminal;
  startHostedShell(terminal, script, options);
  EXPECT_EQ(terminal.wait(), 0);
  return terminal.readToTheEnd();
}

bool isAlive(pid_t process) { return kill(process, 0) == 0; }

TEST(EngineHostConsole, GivesTheProgramATerminalOfItsOwnForAllThreeStreams) {
  Terminal terminal;
  startHostedShell(terminal, "for stream in 0 1 2; do readlink /proc/$$/fd/$stream; done; tty");
  EXPECT_EQ(terminal.wait(), 0);
  const std::string seen = terminal.readToTheEnd();
  const std::string name = seen.substr(0, seen.find('\r'));
  EXPECT_THAT(name, HasSubstr("/dev/pts/"));
  EXPECT_NE(name, terminal.name());
  EXPECT_EQ(seen, asShown(name + "\n" + name + "\n" + name + "\n" + name + "\n"));
}

TEST(EngineHostConsole, MakesItTheProgramsControllingTerminal) {
  // Fields 6 to 8 of the process's state: session, terminal and foreground group.
  const std::string seen = hostedShell(
      "echo through /dev/tty >/dev/tty; set -- $(cat /proc/$$/stat);"
      "[ $6 = $$ ] && [ $8 = $$ ] && [ $7 != 0 ] && echo leads");
  EXPECT_THAT(seen, AllOf(HasSubstr("through /dev/tty"), HasSubstr("leads")));
}

TEST(EngineHostConsole, GivesTheProgramNoDescriptorOfItsOwn) {
  EXPECT_EQ(hostedShell("echo /proc/self/fd/*"),
            asShown("/proc/self/fd/0 /proc/self/fd/1 /proc/self/fd/2 /proc/self/fd/3\n"));
}

TEST(EngineHostConsole, HandsOnTheSizeOfTheWindowAndItsChanges) {
  Terminal terminal({.rows = 33, .columns = 101});
  startHostedShell(terminal,
                   "trap 'stty size; echo changed' WINCH; stty size; echo ready;"
                   "while :; do sleep 0.05; done");
  terminal.readUntil("33 101\r\nready");
  terminal.resize({.rows = 12, .columns = 44});
  EXPECT_THAT(terminal.readUntil("changed"), HasSubstr("12 44\r\n"));
  terminal.resize({.rows = 50, .columns = 200});
  EXPECT_THAT(terminal.readUntil("changed"), HasSubstr("50 200\r\n"));
}

TEST(EngineHostConsole, EchoesWhatIsTypedOnce) {
  Terminal terminal;
  startHostedShell(terminal, answering);
  terminal.readUntil("ready\r\n");
  terminal.type("abc\n");
  EXPECT_EQ(terminal.readUntil("<abc>\r\n"), "ready\r\nabc\r\n<abc>\r\n");
  terminal.type("\x04");
  EXPECT_EQ(terminal.wait(), 0);
}

TEST(EngineHostConsole, DoesNotEchoWhenTheUsersTerminalDoesNot) {
  Terminal terminal;
  termios quiet = terminal.modes();
  quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO);
  terminal.setModes(quiet);
  startHostedShell(terminal, answering);
  terminal.readUntil("ready\r\n");
  terminal.type("abc\n");
  EXPECT_EQ(terminal.readUntil("<abc>\r\n"), "ready\r\n<abc>\r\n");
  terminal.type("\x04");
  terminal.wait();
  EXPECT_TRUE(hasModesOf(terminal, quiet));
}

TEST(EngineHostConsole, LetsTheProgramHideWhatIsTyped) {
  Terminal terminal;
  startHostedShell(terminal, "stty -echo; echo password; read word; echo \"was $word\"");
  terminal.readUntil("password\r\n");
  terminal.type("secret\n");
  EXPECT_EQ(terminal.readUntil("was secret\r\n"), "password\r\nwas secret\r\n");
  EXPECT_EQ(terminal.wait(), 0);
}

TEST(EngineHostConsole, PassesEveryByteInBothDirections) {
  Terminal terminal;
  startHostedShell(terminal,
                   "stty raw -echo; echo ready; head -c 256 | od -An -v -tu1 | xargs;"
                   "printf '\\000\\001\\377.'");
  terminal.readUntil("ready");
  std::string bytes;
  std::string expected;
  for (int i = 0; i < 256; ++i) {
    bytes += static_cast<char>(i);
    expected += (i == 0 ? "" : " ") + std::to_string(i);
  }
  terminal.type(bytes);
  EXPECT_EQ(terminal.wait(), 0);
  const std::string seen = terminal.readToTheEnd();
  EXPECT_THAT(seen, HasSubstr(expected));
  EXPECT_EQ(seen.substr(seen.size() - 4), std::string("\0\1\377.", 4));
}

TEST(EngineHostConsole, ShowsTheWholeOfALongOutput) {
  Terminal terminal;
  startHostedShell(terminal, "stty -opost; seq 200000");
  EXPECT_EQ(terminal.wait(), 0);
  std::string expected;
  for (int i = 1; i <= 200000; ++i) {
    expected += std::to_string(i) + "\n";
  }
  EXPECT_TRUE(terminal.readToTheEnd() == expected) << terminal.seen().size() << " bytes";
}

TEST(EngineHostConsole, TakesALongTextWhileTheProgramIsPrintingAndNotReading) {
  Terminal terminal;
  startHostedShell(terminal,
                   "stty raw -echo; echo ready; head -c 300000 /dev/zero | tr '\\000' p;"
                   "head -c 200000 | tr -d x | wc -c; echo end");
  terminal.readUntil("ready");
  // The terminal is full in both directions at times.
  const std::jthread typist([&] { terminal.type(std::string(200'000, 'x')); });
  EXPECT_THAT(terminal.readUntil("end"), HasSubstr("p0\n"));
  EXPECT_EQ(terminal.wait(), 0);
}

TEST(EngineHostConsole, EndsWithTheStatusOfTheProgram) {
  Terminal terminal;
  startHostedShell(terminal, "exit 7");
  EXPECT_EQ(terminal.wait(), 7);
  Terminal other;
  startHostedShell(other, "kill -KILL $$");
  EXPECT_EQ(other.wait(), 128 + SIGKILL);
}

TEST(EngineHostConsole, ReportsAProgramThatCannotBeStarted) {
  Terminal terminal;
  const termios before = terminal.modes();
  startHost(terminal, {"no-such-program"});
  EXPECT_EQ(terminal.wait(), 127);
  EXPECT_EQ(terminal.readToTheEnd(), asShown("enginehost: no-such-program: not found\n"));
  Terminal other;
  startHost(other, {"/"});
  EXPECT_EQ(other.wait(), 126);
  EXPECT_EQ(other.readToTheEnd(), asShown("enginehost: /: Permission denied\n"));
  EXPECT_TRUE(hasModesOf(terminal, before));
}

TEST(EngineHostConsole, MakesTheUsersTerminalRawAndRestoresIt) {
  Terminal terminal;
  const termios before = terminal.modes();
  startHostedShell(terminal, answering);
  terminal.readUntil("ready");
  EXPECT_TRUE(waitUntil([&] { return isRaw(terminal); }));
  terminal.type("\x04");
  terminal.wait();
  EXPECT_TRUE(hasModesOf(terminal, before));
}

TEST(EngineHostConsole, RestoresTheTerminalWhenASignalEndsTheHost) {
  for (const int signal :
       {SIGTERM, SIGHUP, SIGALRM, SIGUSR1, SIGXCPU, SIGSYS, SIGRTMIN, SIGRTMAX}) {
    Terminal terminal;
    const termios before = terminal.modes();
    startHostedShell(terminal, answering);
    terminal.readUntil("ready");
    EXPECT_TRUE(waitUntil([&] { return isRaw(terminal); }));
    terminal.send(signal);
    EXPECT_EQ(terminal.wait(), 128 + signal);
    EXPECT_TRUE(hasModesOf(terminal, before)) << signal;
  }
}

// What a process has written so far.
unsigned long writtenBy(pid_t process) {
  const std::string counts = contentsOf("/proc/" + std::to_string(process) + "/io");
  const std::size_t at = counts.find("wchar: ");
  return at == std::string::npos ? 0 : std::stoul(counts.substr(at + 7));
}

bool hasEnded(pid_t child) {
  siginfo_t info = {};
  return waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
         info.si_pid == child;
}

TEST(EngineHostConsole, EndsOnRequestWhileTheUsersTerminalTakesNothing) {
  Terminal terminal;
  const termios before = terminal.modes();
  startHostedShell(terminal, "echo ready; exec yes");
  terminal.readUntil("ready");
  EXPECT_TRUE(waitUntil([&, last = 0UL]() mutable {
    const unsigned long written = writtenBy(terminal.process());
    usleep(50'000);
    return std::exchange(last, written) == written && written > 8000;
  }));
  terminal.send(SIGTERM);
  // Not by wait(), which reads what the terminal has.
  EXPECT_TRUE(waitUntil([&] { return hasEnded(terminal.process()); }));
  EXPECT_EQ(terminal.wait(), 128 + SIGTERM);
  EXPECT_TRUE(hasModesOf(terminal, before));
}

TEST(EngineHostConsole, EndsWithAMessageOrRunsHoweverFewDescriptorsThereAre) {
#ifdef __SANITIZE_ADDRESS__
  constexpr int fewest = 14;  // The sanitizer needs some of its own to look at memory.
#else
  constexpr int fewest = 4;
#endif
  for (int most = fewest; most < 20; ++most) {
    Terminal terminal;
    const termios before = terminal.modes();
    terminal.startProgram(
        {"/bin/sh", "-c", "ulimit -n " + std::to_string(most) + "; exec " + host + " true"});
    EXPECT_THAT(terminal.wait(), AnyOf(0, 125, 126, 127)) << most;
    EXPECT_TRUE(hasModesOf(terminal, before)) << most;
  }
}

TEST(EngineHostConsole, RestoresTheTerminalWhenTheHostCrashes) {
  Terminal terminal;
  const termios before = terminal.modes();
  startHostedShell(terminal, answering);
  terminal.readUntil("ready");
  EXPECT_TRUE(waitUntil([&] { return isRaw(terminal); }));
  terminal.send(SIGABRT);
  EXPECT_EQ(terminal.wait(), 99);
  EXPECT_TRUE(hasModesOf(terminal, before));
}

// A program that leaves a file when its terminal hangs up.
std::string leaving(const std::string& file) {
  return "trap 'echo hangup >" + file +
         "; exit' HUP; echo \"process $$\"; echo ready; while :; do read line || sleep 0.05; done";
}

TEST(EngineHostConsole, HangsUpOnTheProgramWhenTheHostIsKilled) {
  for (const int signal : {SIGKILL, SIGTERM}) {
    const TemporaryFolder folder;
    const std::string file = folder.file("left");
    Terminal terminal;
    startHostedShell(terminal, leaving(file));
    const std::string seen = terminal.readUntil("ready");
    const pid_t program = std::stoi(seen.substr(seen.find("process ") + 8));
    EXPECT_TRUE(isAlive(program));
    terminal.send(signal);
    EXPECT_EQ(terminal.wait(), 128 + signal);
    EXPECT_TRUE(waitUntil([&] { return contentsOf(file) == "hangup\n"; })) << signal;
    EXPECT_TRUE(waitUntil([&] { return !isAlive(program); })) << signal;
  }
}

TEST(EngineHostConsole, HangsUpOnTheProgramWhenTheUsersTerminalDoes) {
  const TemporaryFolder folder;
  const std::string file = folder.file("left");
  Terminal terminal;
  startHostedShell(terminal, leaving(file));
  terminal.readUntil("ready");
  terminal.hangUp();
  EXPECT_EQ(terminal.wait(), 128 + SIGHUP);
  EXPECT_TRUE(waitUntil([&] { return contentsOf(file) == "hangup\n"; }));
}

TEST(EngineHostConsole, HangsUpOnAProgramInAPipelineWhenTheHostAloneIsTold) {
  // The system tells the leader of the session only.
  const int null = open("/dev/null", O_RDONLY | O_CLOEXEC);
  Terminal terminal;
  startHostedShell(terminal, "trap 'exit 6' HUP; echo ready; while :; do sleep 0.05; done",
                   {.in = null});
  close(null);
  terminal.readUntil("ready");
  terminal.hangUp();
  EXPECT_EQ(terminal.wait(), 6);
}

TEST(EngineHostConsole, LetsTheKeysActOnTheProgramAlone) {
  Terminal terminal;
  // A shell that is about to read sees a signal only when it has read.
  startHostedShell(
      terminal,
      "trap 'echo interrupted' INT; trap 'echo quitted' QUIT; trap 'echo stopped; stopped=1' TSTP;"
      "echo ready; until [ \"$stopped\" ]; do sleep 0.05; done;"
      "while read line; do echo \"<$line>\"; done");
  terminal.readUntil("ready");
  EXPECT_TRUE(waitUntil([&] { return isRaw(terminal); }));
  terminal.type("\x03");
  terminal.readUntil("interrupted");
  terminal.type("\x1C");
  terminal.readUntil("quitted");
  terminal.type("\x1A");
  terminal.readUntil("stopped");
  terminal.type("still here\n");
  terminal.readUntil("<still here>");
}

TEST(EngineHostConsole, PassesOnAnInterruptThatAnotherProcessSendsToTheHost) {
  Terminal terminal;
  startHostedShell(terminal,
                   "trap 'echo interrupted; exit 5' INT; echo ready;"
                   "while :; do sleep 0.05; done");
  terminal.readUntil("ready");
  terminal.send(SIGINT);
  terminal.readUntil("interrupted");
  EXPECT_EQ(terminal.wait(), 5);
}

TEST(EngineHostConsole, StopsAndComesBackOnRequest) {
  Terminal terminal;
  const termios before = terminal.modes();
  startHostedShell(terminal, answering);
  terminal.readUntil("ready\r\n");
  EXPECT_TRUE(waitUntil([&] { return isRaw(terminal); }));
  terminal.send(SIGTSTP);
  int status = 0;
  ASSERT_EQ(waitpid(terminal.process(), &status, WUNTRACED), terminal.process());
  EXPECT_TRUE(WIFSTOPPED(status));
  EXPECT_TRUE(hasModesOf(terminal, before));
  terminal.resize({.rows = 5, .columns = 66});
  terminal.send(SIGCONT);
  EXPECT_TRUE(waitUntil([&] { return isRaw(terminal); }));
  terminal.type("back\n");
  terminal.readUntil("<back>");
}

// A shell with job control that runs the host.
void startShell(Terminal& terminal) {
  terminal.startProgram(
      {"/bin/bash", "--norc", "--noprofile", "-i"},
      {.environment = {{"PS1", "prompt> "}, {"HISTFILE", ""}, {"TERM", "xterm"}}});
  terminal.readUntil("prompt> ");
}

void command(Terminal& terminal, const std::string& line) {
  terminal.type(line + "\n");
  terminal.readUntil("prompt> ");
}

constexpr const char* untilStopped = "until jobs | grep Stopped; do sleep 0.01; done";

TEST(EngineHostConsole, WaitsForTheForegroundAlsoWhenItIsContinuedInTheBackground) {
  Terminal terminal;
  startShell(terminal);
  // Where the shell edits its lines, its terminal is not canonical.
  command(terminal, std::string(host) + " stty -a &");
  command(terminal, untilStopped);
  command(terminal, "bg");
  command(terminal, untilStopped);
  const std::size_t start = terminal.seen().size();
  command(terminal, "fg");
  const std::string shown = terminal.seen().substr(start);
  EXPECT_THAT(shown, AllOf(HasSubstr(" icanon "), HasSubstr(" echo "), HasSubstr(" icrnl ")));
}

TEST(EngineHostConsole, EndsOnRequestInTheBackground) {
  Terminal terminal;
  startShell(terminal);
  terminal.type(std::string(host) + " cat\n");
  EXPECT_TRUE(waitUntil([&] { return terminal.foregroundGroup() != terminal.process(); }));
  terminal.type("line\n");
  terminal.readUntil("line\r\nline\r\n");
  kill(terminal.foregroundGroup(), SIGSTOP);
  terminal.readUntil("prompt> ");
  command(terminal, "bg");
  command(terminal, untilStopped);
  command(terminal, "kill %1");
  terminal.type("until [ -z \"$(jobs -r)$(jobs -s)\" ]; do sleep 0.01; done; echo g''one\n");
  terminal.readUntil("gone");
}

TEST(EngineHostConsole, ObeysTheShellsJobControl) {
  Terminal terminal;
  terminal.startProgram(
      {"/bin/bash", "--norc", "--noprofile", "-i"},
      {.environment = {{"PS1", "prompt> "}, {"HISTFILE", ""}, {"TERM", "xterm"}}});
  terminal.readUntil("prompt> ");
  // Started in the background, it waits for the terminal, and then has its right modes.
  terminal.type(std::string(host) + " cat &\n");
  terminal.readUntil("prompt> ");
  terminal.type("until jobs | grep Stopped; do sleep 0.01; done; echo in''active\n");
  terminal.readUntil("inactive");
  terminal.readUntil("prompt> ");
  terminal.type("fg\n");
  EXPECT_TRUE(waitUntil([&] { return isRaw(terminal); }));
  terminal.type("line\n");
  terminal.readUntil("line\r\nline\r\n");
  // Stopped from outside and sent to the background, it stops when it reads.
  kill(terminal.foregroundGroup(), SIGSTOP);
  terminal.readUntil("prompt> ");
  terminal.type("bg\n");
  terminal.readUntil("prompt> ");
  terminal.type("until jobs | grep Stopped; do sleep 0.01; done; echo in''active\n");
  terminal.readUntil("inactive");
  terminal.readUntil("prompt> ");
  terminal.type("fg\n");
  terminal.readUntil(" cat\r\n");
  EXPECT_TRUE(waitUntil([&] { return isRaw(terminal); }));
  terminal.type("again\n");
  terminal.readUntil("again\r\nagain\r\n");
  terminal.type("\x04");
  terminal.readUntil("prompt> ");
  terminal.type("exit 0\n");
  EXPECT_EQ(terminal.wait(), 0);
}

TEST(EngineHostConsole, DoesNotWaitForProcessesThatTheProgramLeavesBehind) {
  const TemporaryFolder folder;
  Terminal terminal;
  startHostedShell(
      terminal, "trap '' HUP; sleep 1000 & echo $! >" + folder.file("id") + "; echo ready; exit 3");
  EXPECT_EQ(terminal.wait(), 3);
  EXPECT_THAT(terminal.seen(), HasSubstr("ready"));
  const pid_t left = std::stoi(contentsOf(folder.file("id")));
  EXPECT_TRUE(isAlive(left));
  kill(left, SIGKILL);
}

TEST(EngineHostConsole, OutlivesAProgramThatClosesItsStreamsForAWhile) {
  const std::string seen =
      hostedShell("exec <&- >&- 2>&-; sleep 0.2; exec </dev/tty >/dev/tty; echo back");
  EXPECT_EQ(seen, asShown("back\n"));
}

TEST(EngineHostConsole, RunsAShellWithJobControl) {
  Terminal terminal({.rows = 25, .columns = 90});
  startHost(terminal, {"bash", "--norc", "--noprofile", "-i"},
            {.environment = {{"PS1", "prompt> "}, {"HISTFILE", ""}}});
  terminal.readUntil("prompt> ");
  terminal.type("echo $((6 * 7))\n");
  terminal.readUntil("42\r\n");
  terminal.readUntil("prompt> ");
  terminal.type("stty size\n");
  terminal.readUntil("25 90");
  terminal.readUntil("prompt> ");
  // Not earlier: before it shows its prompt the shell reads the size and sets it again.
  terminal.resize({.rows = 31, .columns = 77});
  // The new size is on its way.
  terminal.type("until [ \"$(stty size)\" = '31 77' ]; do sleep 0.01; done; echo re''sized\n");
  terminal.readUntil("resized");
  terminal.readUntil("prompt> ");
  // The shell has given up its own modes of the terminal when the word appears.
  terminal.type("echo re''ady; cat\n");
  terminal.readUntil("ready\r\n");
  terminal.type("typed\n");
  terminal.readUntil("typed\r\ntyped\r\n");
  terminal.type("\x1A");
  terminal.readUntil("Stopped");
  terminal.readUntil("prompt> ");
  terminal.type("jobs\n");
  terminal.readUntil("Stopped                 cat");
  terminal.readUntil("prompt> ");
  terminal.type("fg\n");
  terminal.readUntil("cat\r\n");
  terminal.type("again\n");
  terminal.readUntil("again\r\nagain\r\n");
  terminal.type("\x03");
  terminal.readUntil("prompt> ");
  terminal.type("exit 11\n");
  EXPECT_EQ(terminal.wait(), 11);
}

TEST(EngineHostConsole, RunsAPager) {
  const TemporaryFolder folder;
  std::string text;
  for (int i = 1; i <= 200; ++i) {
    text += "line " + std::to_string(i) + "\n";
  }
  writeFile(folder.file("text"), text);
  Terminal terminal;
  const termios before = terminal.modes();
  startHost(terminal, {"less", folder.file("text")}, {.environment = {{"LESS", ""}}});
  terminal.readUntil("line 23");
  EXPECT_THAT(terminal.seen(), Not(HasSubstr("line 24")));
  terminal.type(" ");
  terminal.readUntil("line 46");
  terminal.type("G");
  terminal.readUntil("line 200");
  terminal.type("q");
  EXPECT_EQ(terminal.wait(), 0);
  EXPECT_TRUE(hasModesOf(terminal, before));
}

TEST(EngineHostConsole, RunsAnEditor) {
  const TemporaryFolder folder;
  Terminal terminal;
  startHost(terminal, {"vi", "-u", "NONE", "-i", "NONE", "-n", folder.file("text")});
  terminal.readUntil("text");
  terminal.type("ihello\x1B:wq\r");
  EXPECT_EQ(terminal.wait(), 0);
  EXPECT_EQ(contentsOf(folder.file("text")), "hello\n");
}

TEST(EngineHostConsole, LeavesRedirectedErrorsWhereTheyGo) {
  const TemporaryFolder folder;
  writeFile(folder.file("log"), "before\n");
  Terminal terminal;
  const int log = open(folder.file("log").c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
  ASSERT_GE(log, 0);
  startHostedShell(terminal, "echo seen; echo error >&2; [ -t 0 ] && [ -t 1 ] && [ ! -t 2 ]",
                   {.error = log});
  close(log);
  EXPECT_EQ(terminal.wait(), 0);
  EXPECT_EQ(terminal.readToTheEnd(), "seen\r\n");
  EXPECT_EQ(contentsOf(folder.file("log")), "before\nerror\n");
}

TEST(EngineHostConsole, IsAPlainProgramInAPipeline) {
  const TemporaryFolder folder;
  writeFile(folder.file("words"), "b\nc\na\n");
  const std::string hosted = std::string(host) + " -- ";
  Terminal terminal;
  const termios before = terminal.modes();
  terminal.startProgram({"/bin/sh", "-c",
                         hosted + "sort <" + folder.file("words") + " | head -n 2; " +  // both
                             "echo x | " + hosted + "cat; " +                           // input
                             hosted + "tty | cat"});                                    // output
  EXPECT_EQ(terminal.wait(), 0);
  EXPECT_EQ(terminal.readToTheEnd(), asShown("a\nb\nx\n" + terminal.name() + "\n"));
  EXPECT_TRUE(hasModesOf(terminal, before));
}

TEST(EngineHostConsole, LetsTheKeysActOnAPipelineAsAWhole) {
  Terminal terminal;
  terminal.startProgram({"/bin/sh", "-c",
                         std::string("trap 'echo shell interrupted' INT;") + host +
                             " -- sh -c 'trap \"echo program interrupted; exit 6\" INT; echo ready;"
                             "while :; do sleep 0.05; done' | cat; echo end"});
  terminal.readUntil("ready");
  terminal.type("\x03");
  // The cat at the end of the pipeline may be gone before the program has printed.
  terminal.readUntil("shell interrupted");
  terminal.readUntil("end");
  EXPECT_EQ(terminal.wait(), 0);
}

TEST(EngineHostConsole, IsLeftOutWhenTheSettingSaysLocal) {
  Terminal terminal;
  const termios before = terminal.modes();
  startHost(terminal, {"tty"}, {.environment = {{"QVX_DBG_CONSOLE", "local"}}});
  EXPECT_EQ(terminal.wait(), 0);
  EXPECT_EQ(terminal.readToTheEnd(), asShown(terminal.name() + "\n"));
  EXPECT_TRUE(hasModesOf(terminal, before));
}

TEST(EngineHostConsole, TellsThatThereIsNoWindowForIt) {
  Terminal terminal;
  startHost(terminal, {"tty"}, {.environment = {{"QVX_DBG_CONSOLE", "gui"}}});
  EXPECT_EQ(terminal.wait(), 0);
  const std::string seen = terminal.readToTheEnd();
  EXPECT_THAT(seen, testing::StartsWith(
                        asShown("enginehost: there are no windows here: the console is at this "
                                "terminal\n/dev/pts/")));
  EXPECT_THAT(seen, Not(HasSubstr(terminal.name() + "\r")));
}

TEST(EngineHostConsole, ShowsTheConsoleInTheBundledSample) {
  Terminal terminal({.rows = 40, .columns = 132});
  startHost(terminal, {CUL_SOURCE_FOLDER "/programs/enginehost/sample"});
  EXPECT_EQ(terminal.wait(), 0);
  const std::string seen = terminal.readToTheEnd();
  EXPECT_THAT(seen, HasSubstr(", 40 rows of 132 columns, echo is on\r\n"));
  EXPECT_THAT(seen, HasSubstr("console:  /dev/pts/"));
  EXPECT_THAT(seen, Not(HasSubstr(terminal.name() + ",")));
}

TEST(EngineHostConsole, TracesWhatItRelayed) {
  const TemporaryFolder folder;
  hostedShell("printf 12345", {.environment = {{"QVX_DBG_TRACE", folder.file("trace")}}});
  const std::string trace = contentsOf(folder.file("trace"));
  EXPECT_THAT(trace, HasSubstr("Relayed 5 bytes of process "));
  EXPECT_THAT(trace, HasSubstr(" ended with status 0.\n"));
}

}  // namespace
