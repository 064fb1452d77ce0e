#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

#include "Engine/utilities/PathSearch.h"
#include "Engine/utilities/StdException.h"
#include "Engine/utilities/StdioPipes.h"
#include "Engine/utilities/TraceFlags.h"

#include "ConsoleSession.h"
#include "Debuggee.h"
#include "HostEvents.h"
#include "UserTerminal.h"

namespace {

// Exit statuses of the host's own, as shells use them.
constexpr int statusUsage = 2;
constexpr int statusHostFailed = 125;
constexpr int statusNotStarted = 126;
constexpr int statusNotFound = 127;

// A descriptor opened later must not take the place of a standard stream.
void openMissingStandardStreams() {
  for (int stream = STDIN_FILENO; stream <= STDERR_FILENO; ++stream) {
    if (fcntl(stream, F_GETFD) < 0) {
      static_cast<void>(open("/dev/null", O_RDWR));
    }
  }
}

// A name with a "/" is relative to the working directory, any other is looked up in PATH.
EncodedString findProgram(const char* name) {
  const EncodedString text(name, EncodedString::utf8);
  return text.indexOf('/') == 0 ? searchPath(text)
                                : searchPath(text, EncodedString(".", EncodedString::utf8));
}

// Whether an event has not reached the program by itself. A terminal that hangs up tells only
// the leader of its session.
bool isForProgram(int event) {
  return (event & HostEvents::toGroup) == 0 ||
         (event == (SIGHUP | HostEvents::toGroup) && getsid(0) == getpid());
}

// The program has the streams of the host and gets the keys of the terminal as the host does.
int runInPlace(const EncodedString& path, char** command) {
  const HostEvents events({SIGHUP, SIGTERM, SIGINT, SIGQUIT});
  Debuggee debuggee(path, command, {});
  for (int event = events.next(); event != HostEvents::debuggeeEnded; event = events.next()) {
    if (isForProgram(event)) {
      kill(debuggee.id(), event & ~HostEvents::toGroup);
    }
  }
  return debuggee.wait();
}

int runOnConsole(const EncodedString& path, char** command, StdioPipes& console,
                 UserTerminal& terminal) {
  const HostEvents events({SIGHUP, SIGTERM, SIGINT, SIGQUIT, SIGTSTP, SIGCONT, SIGWINCH});
  ConsoleSession session(console, terminal, events);
  Debuggee debuggee(path, command, {&console, terminal.echoes()});
  const int signal = session.run();
  terminal.restore();
  CUL_TRACE(TraceType::active, "int runOnConsole()", __LINE__, "Relayed %lu bytes of process %d.",
            session.relayed(), debuggee.id());
  if (signal != 0) {
    // With the host gone nobody holds the console: the system hangs up on the program.
    endBySignal(signal);
  }
  return debuggee.wait();
}

int runProgram(const EncodedString& path, char** command) {
  if (isatty(STDIN_FILENO) == 0 || isatty(STDOUT_FILENO) == 0) {
    return runInPlace(path, command);
  }
  // Before the console, which takes over the modes of the terminal.
  UserTerminal terminal(STDIN_FILENO);
  StdioPipes& console = *StdioPipes::instance();
  const bool hasConsole = console.readHandle(StdioPipes::StdOutput) >= 0;
  return hasConsole ? runOnConsole(path, command, console, terminal) : runInPlace(path, command);
}

int hostProgram(char** command) {
  const EncodedString path = findProgram(command[0]);
  if (path.length() == 0) {
    std::fprintf(stderr, "enginehost: %s: not found\n", command[0]);
    return statusNotFound;
  }
  try {
    return runProgram(path, command);
  } catch (const StdException& e) {
    e.trace("int hostProgram(char**)", __LINE__);
    if (e.status <= 0) {
      throw;
    }
    const char* const reason = e.text;
    const bool found = e.status != ENOENT;
    std::fprintf(stderr, "enginehost: %s: %s\n", command[0], found ? reason : "not found");
    return found ? statusNotStarted : statusNotFound;
  }
}

}  // namespace

int main(int argc, char** argv) {
  openMissingStandardStreams();
  int first = 1;
  if (argc > 1 && std::strcmp(argv[1], "--") == 0) {
    first = 2;
  } else if (argc > 1 && argv[1][0] == '-') {
    std::fprintf(stderr, "enginehost: %s: unknown option\n", argv[1]);
    first = argc;
  }
  if (first >= argc) {
    std::fputs("usage: enginehost [--] program [argument...]\n", stderr);
    return statusUsage;
  }
  try {
    return hostProgram(argv + first);
  } catch (const StdException& e) {
    const char* const reason = e.text;
    const char* const place = e.fileName;
    std::fprintf(stderr, "enginehost: %s at %s(%u)\n", *reason != '\0' ? reason : "failure", place,
                 e.line);
    return statusHostFailed;
  }
}
