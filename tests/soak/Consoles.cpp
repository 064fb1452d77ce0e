#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <string>
#include <string_view>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "Engine/utilities/ByteString.h"
#include "Engine/utilities/UNIX/UNIXStdioPipes.h"

#include "tests/soak/Parts.h"

namespace {

constexpr std::chrono::seconds limit(120);
constexpr int noConsole = 99;  // the status of a debuggee that finds none

constexpr std::string_view greeting = "the debuggee is ready\r\n";

// Becomes a program that gives back what is typed, until its terminal hangs up.
[[noreturn]] void beDebuggee(UNIXStdioPipes& console) {
  const HANDLE in = console.childReadHandle();
  const HANDLE out = console.childWriteHandle(StdioPipes::StdOutput);
  if (in <= STDERR_FILENO || out != in || dup2(in, STDIN_FILENO) == -1 ||
      dup2(out, STDOUT_FILENO) == -1) {
    _exit(noConsole);
  }
  std::signal(SIGHUP, SIG_DFL);
  static_cast<void>(!write(STDOUT_FILENO, greeting.data(), greeting.size() - 2));
  static_cast<void>(!write(STDOUT_FILENO, "\n", 1));
  execl("/bin/cat", "cat", nullptr);
  _exit(noConsole);
}

// Reads from the console until `text` has come; false when it does not.
bool reads(const UNIXStdioPipes& console, std::string_view text) {
  const auto end = std::chrono::steady_clock::now() + limit;
  std::string seen;
  while (seen != text) {
    ByteString more;
    if (console.read(StdioPipes::StdOutput, more, 4096) > 0) {
      seen += more.view();
    } else if (std::chrono::steady_clock::now() < end) {
      // As long as nobody has opened the slave, its master looks like one that is ready.
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    } else {
      return false;
    }
  }
  return true;
}

void talk(Work& work, const UNIXStdioPipes& console, unsigned long number) {
  if (!reads(console, greeting)) {
    work.wrong("without debuggee");
    return;
  }
  const std::string line = "line " + std::to_string(number);
  if (console.write(ByteString((line + "\n").c_str())) != static_cast<int>(line.size() + 1) ||
      !reads(console, line + "\r\n")) {
    work.wrong("did not carry a line");
  }
}

void hangUpConsole(Work& work, unsigned long number) {
  pid_t debuggee = -1;
  {
    UNIXStdioPipes console;
    if (console.readHandle(StdioPipes::StdOutput) == -1) {
      work.wrong("not opened");
      return;
    }
    debuggee = fork();
    if (debuggee == 0) {
      beDebuggee(console);
    }
    if (debuggee == -1) {
      work.wrong("not forked", std::strerror(errno));
      return;
    }
    talk(work, console, number);
  }
  // The end of the master has hung up the terminal. Children of other parts that were forked
  // meanwhile have had it, too, and end by themselves.
  const auto end = std::chrono::steady_clock::now() + limit;
  int status = 0;
  while (waitpid(debuggee, &status, WNOHANG) == 0) {
    if (std::chrono::steady_clock::now() > end) {
      work.wrong("not hung up");
      kill(debuggee, SIGKILL);
      waitpid(debuggee, &status, 0);
      return;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  if (!WIFSIGNALED(status) || WTERMSIG(status) != SIGHUP) {
    work.wrong("with another status", std::to_string(status));
  }
}

}  // namespace

void hangUpConsoles(Work& work) {
  for (unsigned long number = 1; work.goesOn(); ++number) {
    hangUpConsole(work, number);
    work.done();
  }
}
