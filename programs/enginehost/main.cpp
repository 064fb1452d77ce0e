#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <new>
#include <string>
#include <unistd.h>

#include "Engine/utilities/DebuggerNumericSetting.h"
#include "Engine/utilities/DebuggerParameters.h"
#include "Engine/utilities/DebuggerPathSetting.h"
#include "Engine/utilities/DebuggerSettings.h"
#include "Engine/utilities/FileName.h"
#include "Engine/utilities/PathSearch.h"
#include "Engine/utilities/StdException.h"
#include "Engine/utilities/StdThread.h"
#include "Engine/utilities/StdioPipes.h"
#include "Engine/utilities/TraceFlags.h"
#include "Engine/utilities/UNIX/UNIX_Engine_Loader.h"

#include "Commands.h"
#include "ConsoleSession.h"
#include "Debuggee.h"
#include "HostEvents.h"
#include "Messages.h"
#include "Statuses.h"
#include "Usage.h"
#include "UserTerminal.h"
#include "programs/common/Printable.h"
#include "programs/common/StandardStreams.h"
#include "programs/common/StartSignals.h"

namespace {

// The library's request to end a thread, SIGUSR2, is for its own threads, which modules may start.
// From then on one that somebody sends to the process would end this thread alone, and leave a
// host behind that nothing can end: it means nothing here, also when main() has returned.
void ignoreRequestsToEnd() {
  using Block = StdThread::BlockTermination;
  alignas(Block) static std::byte neverDestroyed[sizeof(Block)];
  new (neverDestroyed) Block;
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

// As shells know it; real-time signals have numbers only.
std::string nameOf(int signal) {
  const char* const name = sigabbrev_np(signal);
  return name != nullptr ? std::string("SIG") + name : std::to_string(signal);
}

// What the program ended with. It is told to who sits at a terminal; the output of scripts and
// pipelines stays as it is.
int statusOf(Debuggee& debuggee) {
  const int status = debuggee.wait();
  if (status == 0 || isatty(STDERR_FILENO) == 0) {
    return status;
  }
  const int signal = debuggee.killer();
  if (signal == SIGINT || signal == SIGPIPE) {
    // The user's key, or a reader who has seen enough: shells are quiet here, too.
    return status;
  }
  if (signal != 0) {
    complain(Message::endedBySignal, nameOf(signal).c_str());
  } else {
    complain(Message::endedWithStatus, status);
  }
  return status;
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
  return statusOf(debuggee);
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
  return statusOf(debuggee);
}

// What the setting "CONSOLE" can say.
enum Console : unsigned { remoteConsole = 0, guiConsole = 1, localConsole = 2 };

unsigned consoleSetting() {
  return DebuggerSettings::instance()
      ->getSetting(L"CONSOLE")
      ->asNumericSetting()
      ->getValueAsUnsigned();
}

int runProgram(const EncodedString& path, char** command) {
  const unsigned console = consoleSetting();
  if (console == localConsole || isatty(STDIN_FILENO) == 0 || isatty(STDOUT_FILENO) == 0) {
    return runInPlace(path, command);
  }
  if (console == guiConsole) {
    complain(Message::noWindows);
  }
  // Before the console, which takes over the modes of the terminal.
  UserTerminal terminal(STDIN_FILENO);
  StdioPipes& pipes = *StdioPipes::instance();
  const bool hasConsole = pipes.readHandle(StdioPipes::StdOutput) >= 0;
  return hasConsole ? runOnConsole(path, command, pipes, terminal) : runInPlace(path, command);
}

int hostProgram(char** command) {
  const EncodedString path = findProgram(command[0]);
  const std::string name = printable(command[0]);
  if (path.length() == 0) {
    complain(Message::notFound, name.c_str());
    return statusNotFound;
  }
  try {
    return runProgram(path, command);
  } catch (const StdException& e) {
    e.trace("int hostProgram(char**)", __LINE__);
    if (e.status <= 0) {
      throw;
    }
    if (e.status == ENOENT) {
      complain(Message::notFound, name.c_str());
      return statusNotFound;
    }
    const char* const reason = e.text;
    std::fprintf(stderr, "enginehost: %s: %s\n", name.c_str(), reason);
    return statusNotStarted;
  }
}

// False when one cannot be loaded, which is told.
bool loadModules() {
  const UNIX_Engine_Loader& loader = static_cast<UNIX_Engine_Loader&>(*Engine_Loader::instance());
  DebuggerSetting* const modules = DebuggerSettings::instance()->getSetting(L"RUNTIME_MODULES");
  for (const FileName* module : modules->asPathSetting()->getPaths()) {
    if (loader.get_korv_module(*module) == nullptr) {
      const EncodedString& name = *module;
      const char* const text = name;
      complain(Message::moduleNotLoaded, printable(text).c_str());
      return false;
    }
  }
  return true;
}

// Whether the parameters see an empty text, which can be no option: they take quotes off.
bool isEmptyName(const char* argument) { return argument[std::strspn(argument, "\"")] == '\0'; }

// The program and its arguments; null, after one line that says why, when there are none.
char** commandIn(const DebuggerParameters& parameters, int argc, char** argv) {
  if (parameters.attach().length() > 0) {
    complain(Message::attachIsForTheEngine);
    return nullptr;
  }
  if (!parameters.invalidArguments().isEmpty()) {
    const char* const first = *parameters.invalidArguments()[0];
    complain(Message::invalidOption, printable(first).c_str());
    return nullptr;
  }
  const int used = parameters.argumentsUsed();
  const bool hasName =
      used > 1 && (parameters.debuggeeName().length() > 0 || isEmptyName(argv[used - 1]));
  if (hasName || used < argc) {
    // Behind "--" the name is the first of the arguments.
    return argv + (hasName ? used - 1 : used);
  }
  printShortUsage();
  return nullptr;
}

// The parts of a debugger process, in their order: parameters, settings, trace, modules, and
// then the program to be debugged.
int start(int argc, char** argv) {
  const DebuggerParameters& parameters = *DebuggerParameters::instance(argc, argv);
  const DebuggerSettings& settings = *DebuggerSettings::instance();
  parameters.diagnosticDump();
  if (parameters.helpRequested()) {
    return helpCommand({});
  }
  char** const command = commandIn(parameters, argc, argv);
  if (command == nullptr) {
    return statusUsage;
  }
  settings.debugDelay();
  return loadModules() ? hostProgram(command) : statusHostFailed;
}

}  // namespace

int main(int argc, char** argv) {
  openMissingStandardStreams();
  ignoreRequestsToEnd();
  setStartSignal(SIGHUP);
  setStartSignal(SIGTERM);
  try {
    const Command* const command = argc > 1 ? findCommand(argv[1]) : nullptr;
    return command != nullptr ? command->run({argv + 2, argv + argc}) : start(argc, argv);
  } catch (const StdException& e) {
    const char* const reason = e.text;
    const char* const place = e.fileName;
    const std::string failure = *reason != '\0' ? reason : messageText(Message::failure);
    complain(Message::failedAt, failure.c_str(), place, e.line);
    return statusHostFailed;
  }
}
