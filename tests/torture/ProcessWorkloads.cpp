#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <memory>
#include <string>
#include <string_view>
#include <sys/wait.h>
#include <unistd.h>

#include "Engine/utilities/ByteString.h"
#include "Engine/utilities/EncodedString.h"
#include "Engine/utilities/Engine_Loader.h"
#include "Engine/utilities/FileName.h"
#include "Engine/utilities/Launch.h"
#include "Engine/utilities/List.h"
#include "Engine/utilities/ManageLIBPATH.h"
#include "Engine/utilities/ProcessTable.h"
#include "Engine/utilities/ProcessWaiter.h"
#include "Engine/utilities/Reference.h"
#include "Engine/utilities/SharedEntry.h"
#include "Engine/utilities/SpawnedProcess.h"
#include "Engine/utilities/StdException.h"
#include "Engine/utilities/StdPipe.h"
#include "Engine/utilities/StdioPipes.h"
#include "Engine/utilities/ThreadListener.h"
#include "Engine/utilities/UNIX/UNIXStdioPipes.h"
#include "Engine/utilities/UNIX/UNIX_Engine_Loader.h"
#include "Engine/utilities/msgserv/LibraryMessageServer.h"
#include "Engine/utilities/msgserv/XPG4MsgServer.h"

#include "tests/torture/Workload.h"

namespace {

using ManagedString = ManageLIBPATH::ManagedString;

EncodedString utf8(const std::string& text) { return {text.c_str(), EncodedString::utf8}; }

void usePipes() {
  StdPipe pipe;
  CUL_EXPECT_THAT(pipe.write("bytes", 5) == 5);
  ByteString read;
  CUL_EXPECT_THAT(pipe.read(read, 5) == 5 && read == ByteString("bytes"));
  CUL_EXPECT_THAT(pipe.childReadHandle() == pipe.readHandle());
  CUL_EXPECT_THAT(pipe.childWriteHandle() == pipe.writeHandle());
  CUL_EXPECT_THAT(pipe.closeWriteHandle() == 0 && pipe.read(read, 5) == 1 && read.length() == 0);
  CUL_EXPECT_THAT(pipe.closeReadHandle() == 0);
}

// Without a terminal: duplicates of what there is.
void redirect() {
  UNIXStdioPipes pipes;
  StdioPipes& any = pipes;
  CUL_EXPECT_THAT(any.childReadHandle() >= 0 && any.childWriteHandle(StdioPipes::StdOutput) >= 0);
  CUL_EXPECT_THAT(any.childWriteHandle(StdioPipes::StdError) >= 0);
  CUL_EXPECT_THAT(any.readHandle(StdioPipes::StdOutput) >= 0 && any.writeHandle() >= 0);
  CUL_EXPECT_THAT(any.write(ByteString("bytes")) == 0);
  char buffer[8];
  CUL_EXPECT_THAT(any.read(StdioPipes::StdOutput, buffer, sizeof buffer) == 0);
  int copy = -1;
  CUL_EXPECT_THAT(UNIXStdioPipes::dupAndRewind(copy, 0) == copy);
  CUL_EXPECT_THAT(UNIXStdioPipes::dupAndTruncate(copy, 0) == copy);
  close(copy);
  any.closePipes();
  any.StdioPipes::closePipes();
  const std::unique_ptr<StdioPipes> owned = std::make_unique<UNIXStdioPipes>();
}

// The terminal of the work is the standard input meanwhile.
class OnTerminal {
 public:
  OnTerminal() : former_(dup(0)) { dup2(workTerminal(), 0); }
  OnTerminal(const OnTerminal&) = delete;
  OnTerminal& operator=(const OnTerminal&) = delete;
  ~OnTerminal() {
    dup2(former_, 0);
    close(former_);
  }

 private:
  int former_;
};

void openAConsole() {
  const OnTerminal terminal;
  UNIXStdioPipes console;
  CUL_EXPECT_THAT(console.writeHandle() >= 0);
  CUL_EXPECT_THAT(console.write("bytes\n", 6) == 6);
  ByteString read;
  CUL_EXPECT_THAT(console.read(StdioPipes::StdOutput, read, 10) == 0);
  console.closePipes();
}

void useTheConsole() { CUL_EXPECT_THAT(StdioPipes::instance() != nullptr); }

void takeTheSlave() {
  const OnTerminal terminal;
  UNIXStdioPipes console;
  const pid_t child = fork();
  if (child == 0) {
    const int slave = console.childReadHandle();
    _exit(slave > 0 && slave == console.slaveHandle() ? 0 : 1);
  }
  int status = -1;
  while (wait(&status) < 0 && errno == EINTR) {
  }
  CUL_EXPECT_THAT(status == 0);
}

void spawnAProcess() {
  List<EncodedString*> arguments;
  EncodedString argument = utf8("argument");
  arguments.add(&argument);
  const SpawnedProcess process(utf8("true"), utf8("/bin"), arguments, 0, 0);
  CUL_EXPECT_THAT(!process.wait(60) && process.returnCode() == 0);
  const SpawnedProcess same(process);
  CUL_EXPECT_THAT(same.done() && same.getWaiter() == process.getWaiter());
}

void spawnNothing() {
  const List<EncodedString*> arguments;
  try {
    const SpawnedProcess process(utf8("no such program"), utf8("/bin"), arguments, 1, 1);
  } catch (const StdException& exception) {
    CUL_EXPECT_THAT(exception.text.view() == "File not found.");
    return;
  }
  CUL_EXPECT_THAT(false && "nothing is started");
}

void waitForAProcess() {
  const pid_t child = fork();
  if (child == 0) {
    _exit(7);
  }
  ProcessWaiter waiter(child);
  Runnable& runnable = waiter;
  CUL_EXPECT_THAT(runnable.work() == 7 << 8);
}

void loadModules() {
  const FileName module(CUL_TEST_LIBRARIES "/libentries.so", EncodedString::utf8);
  const UNIX_Engine_Loader own;
  const Engine_Loader& loader = own;
  void* const entry = loader.get_procedure_entry(module, utf8("entriesFunction"));
  CUL_EXPECT_THAT(entry != nullptr && reinterpret_cast<int (*)(int)>(entry)(1) == 2);
  CUL_EXPECT_THAT(own.get_korv_module(module) != nullptr);
  CUL_EXPECT_THAT(loader.get_procedure_entry(FileName("noSuchModule", EncodedString::utf8),
                                             utf8("entriesFunction")) == nullptr);
  CUL_EXPECT_THAT(Engine_Loader::instance() != nullptr);
  const std::unique_ptr<Engine_Loader> owned = std::make_unique<UNIX_Engine_Loader>();
}

void loadEntries() {
  const char* error = nullptr;
  CUL_EXPECT_THAT(loadSharedEntry(CUL_TEST_LIBRARIES "/libentries.so", "entriesFunction", &error) !=
                  nullptr);
  CUL_EXPECT_THAT(loadSharedEntry("no such library", "entriesFunction", &error) == nullptr &&
                  *error != 0);
  CUL_EXPECT_THAT(loadSharedEntry("wobndbg", "", "getMessage", &error) != nullptr);
  CUL_EXPECT_THAT(loadSharedEntry(CUL_TEST_LIBRARIES "/libentries.so", "entriesNothing", &error) ==
                  nullptr);
}

void launchALibrary() {
  CUL_EXPECT_THAT(loadSharedLib("/bin/sh", "wobndbg", "", "getMessage") != nullptr);
}

void launchAProgram() {
  char name[] = "/bin/sh";
  char* arguments[] = {name, nullptr};
  loadAndExecute("true", 1, arguments);
}

void setUpLibraryPaths() {
  struct Freed {
    char* text;
    ~Freed() { std::free(text); }
  };
  const Freed path{ManageLIBPATH::getLibPath("/bin/sh")};
  CUL_EXPECT_THAT(path.text != nullptr && *path.text != 0);
  CUL_EXPECT_THAT(ManageLIBPATH::executableLocation("sh").hasText());
  const ManagedString qualified = ManageLIBPATH::qualifiedExecutable("sh");
  CUL_EXPECT_THAT(ManageLIBPATH::isExecutable(qualified));
  const ManagedString link((workFolder() + "/link").c_str());
  CUL_EXPECT_THAT(ManageLIBPATH::resolveSymbolicLink(link).hasText());
  CUL_EXPECT_THAT(ManageLIBPATH::stripPath(link).hasText());
  CUL_EXPECT_THAT(ManageLIBPATH::absPath("bin", "sh").hasText());
  ManagedString copy(qualified);
  ManagedString moved(std::move(copy));
  copy = moved;
  copy += "/more";
  const Freed released{copy.release()};
  const Freed doubled{ManagedString::dupString("text")};
  CUL_EXPECT_THAT(released.text != nullptr && std::string_view(doubled.text) == "text");
}

void cleanVariables() {
  const char* const variables[] = {"A=1", "B=", "C", "D=2", nullptr};
  char** const cleaned = cleanEnvironment(variables);
  unsigned n = 0;
  for (; cleaned[n] != nullptr; ++n) {
    std::free(cleaned[n]);
  }
  std::free(static_cast<void*>(cleaned));
  CUL_EXPECT_THAT(n == 2);
  cleanLIBPATHandRun(0, nullptr);
}

void listProcesses() {
  procentry64 entry = {};
  pid_t index = 0;
  CUL_EXPECT_THAT(getprocs64(&entry, sizeof entry, nullptr, 0, &index, 1) == 1);
  char arguments[200];
  entry.processId = getpid();
  CUL_EXPECT_THAT(getargs(&entry, sizeof entry, arguments, sizeof arguments) == 0);
  CUL_EXPECT_THAT(std::string_view(arguments).length() != 0);
  index = getpid();
  CUL_EXPECT_THAT(getprocs64(&entry, sizeof entry, nullptr, 0, &index, 1) == 1);
  CUL_EXPECT_THAT(entry.processId == getpid());
}

void getMessages() {
  const XPG4MsgServer server("de_DE", "dbg");
  const XPG4MsgServer::SystemMessageServer& any = server;
  CUL_EXPECT_THAT(any.getMessage(1, 2).view() == "Gr\u00fc\u00dfe, \u4e16\u754c");
  CUL_EXPECT_THAT(any.getRawMessage(1, 2).length() != 0 && any.getMessage(5, 5).length() == 0);
  const LibraryMessageServer library(ByteString("wobndbg"), "de_DE");
  CUL_EXPECT_THAT(library.getRawMessage(1, 2).length() != 0);
  CUL_EXPECT_THAT(LibraryMessageServer::getMessageLocale() != nullptr);
  const std::unique_ptr<XPG4MsgServer::SystemMessageServer> owned =
      std::make_unique<XPG4MsgServer>("de_DE", "dbg");
}

// There can be no thread, or no event for it: status -1, without a text.
constexpr MayTell noThread = {
    "threw StdException: ",
    "malloc pthread_create pthread_attr_init pthread_attr_setdetachstate "
    "pthread_attr_setsigmask_np pthread_cond_init pthread_cond_wait pthread_cond_broadcast"};

// A launcher that fails aborts.
constexpr MayTell noLaunch = {"ended 99", "malloc dlmopen setenv putenv execvp"};

const Workload workloads[] = {
    {.name = "pipes",
     .work = usePipes,
     .mayTell = {{"threw StdException: pipe() failed", "pipe2"},
                 {"threw StdException: write() failed", "write"},
                 {"threw StdException: read() failed", "read"},
                 {"threw StdException: ::fcntl(...", "fcntl"},
                 {"other: pipe.close...", "close"},
                 {"other: pipe.read(...", "read"}},
     .mustTrace = {{"pipe2", "pipe() failed with errno "},
                   {"write", "write() failed with errno "},
                   {"fcntl", " failed with errno "}}},
    {"redirection",
     redirect,
     -1,
     {{"other: any.child...", "fcntl"},
      {"other: any.readHandle(...", "fcntl"},
      {"other: any.write(...", "write"},
      {"other: any.read(...", "read"},
      {"other: UNIXStdioPipes::dup...", "fcntl"}}},
    {.name = "console",
     .work = openAConsole,
     .mayTell = {{"other: console.writeHandle() >= 0", "isatty open grantpt unlockpt ptsname"},
                 {"other: console.write(...", "write"},
                 {"other: console.read(...", "read poll"}},
     .mustTrace = {{"open", "open() failed for all pseudo-terminals"},
                   {"grantpt", "grantpt() failed for pseudo-terminal "},
                   {"unlockpt", "unlockpt() failed for pseudo-terminal "},
                   {"ptsname", "ptsname() failed for pseudo-terminal "}}},
    {"the console", useTheConsole},
    {"slave",
     takeTheSlave,
     -1,
     {{"other: status == 0", "isatty open grantpt unlockpt ptsname setsid tcsetattr"}}},
    {"spawns",
     spawnAProcess,
     -1,
     {noThread,
      {"other: !process.wait(60)...", "waitpid"},
      {"threw StdException: File not found.", "stat"},
      {"ended 99", "pthread_cond_broadcast"}}},
    {"failing spawns", spawnNothing},
    {.name = "waiting",
     .work = waitForAProcess,
     .mayTell = {{"other: runnable.work()...", "waitpid"}},
     .mustTrace = {{"waitpid", "::waitpid("}}},
    {"modules", loadModules, -1, {{"other: entry != nullptr...", "malloc dlmopen"}}},
    {"entries", loadEntries, -1, {{"other: loadSharedEntry(...", "malloc dlmopen"}}},
    {"launched libraries", launchALibrary, -1, {noLaunch}},
    {"launched programs", launchAProgram, 0, {noLaunch}},
    // With the number of the error: an int.
    {"library paths",
     setUpLibraryPaths,
     -1,
     {noLaunch,
      {"other: ManageLIBPATH::executableLocation(...", "getcwd"},
      {"other: ManageLIBPATH::isExecutable(...", "access stat"},
      {"threw i", "getcwd"}}},
    {"cleaned variables", cleanVariables, -1, {noLaunch}},
    {.name = "processes",
     .work = listProcesses,
     .mayTell = {{"other: getprocs64(...", "malloc opendir readdir open read"},
                 {"other: getargs(...", "open read snprintf"}},
     .mustTrace = {{"opendir", "opendir(/proc) failed errno = "}}},
    // A catalog that cannot be loaded has no messages.
    {"messages",
     getMessages,
     -1,
     {{"other: any.get...", "malloc dlmopen"},
      {"other: library.getRawMessage...", "malloc dlmopen"}}},
};

}  // namespace

std::span<const Workload> processWorkloads() { return workloads; }
