#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <exception>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "Engine/utilities/ByteString.h"
#include "Engine/utilities/CharString.h"
#include "Engine/utilities/DebuggerSettings.h"
#include "Engine/utilities/EncodedString.h"
#include "Engine/utilities/List.h"
#include "Engine/utilities/Pool.h"
#include "Engine/utilities/StdException.h"
#include "Engine/utilities/TraceFlags.h"
#include "Engine/utilities/TraceImplementation.h"

#include "tests/soak/Parts.h"
#include "tests/support/TemporaryFolder.h"

namespace {

constexpr unsigned forkers = 2;

// Many times what a child needs on a busy machine: one that is still there hangs.
constexpr unsigned secondsToLive = 60;

bool useStrings() {
  EncodedString text("forked ", EncodedString::utf8);
  text += EncodedString::number(42);
  const EncodedString copy = text;
  const CharString wide(L"a wide text");
  const EncodedString native("caf\xE9", EncodedString::native);
  return copy.view() == "forked 42" && wide.length() == 11 && native.view() == "caf\xC3\xA9" &&
         native.convert(EncodedString::native) == ByteString("caf\xE9");
}

bool useLists() {
  constexpr unsigned number = 200;
  Pool pool(256, 256, "soak");
  List<unsigned> inPool(0, &pool);
  List<unsigned> plain;
  for (unsigned i = 0; i < number; ++i) {
    inPool.add(i);
    plain.insertAt(0, i);
  }
  return inPool.count() == number && inPool[number - 1] == number - 1 && plain[number - 1] == 0;
}

bool useSettings() {
  const DebuggerSettings& settings = *DebuggerSettings::instance();
  return settings.getSetting(L"ASSERTION") != nullptr &&
         settings.getNamedSetting(L"ASSERTION").length() != 0 &&
         settings.getSetting(L"NO SUCH SETTING") == nullptr;
}

bool useTrace(const std::string& folder) {
  traceImplementation()->processForked();
  for (int i = 0; i < 5; ++i) {
    CUL_TRACE(TraceType::agent, "bool useTrace()", __LINE__, "line %d of a child", i);
  }
  const std::string file = folder + "/root." + std::to_string(getpid()) + ".trc";
  const bool isTold = contentsOf(file).ends_with(": line 4 of a child\n");
  return unlink(file.c_str()) == 0 && isTold;
}

// What the child can do is its status, by bits.
[[noreturn]] void live(const std::string& folder) {
  constexpr rlimit noDumps = {0, 0};
  setrlimit(RLIMIT_CORE, &noDumps);
  alarm(secondsToLive);
  int failures = 0;
  try {
    failures |= useTrace(folder) ? 0 : 1;
    failures |= useStrings() ? 0 : 2;
    failures |= useLists() ? 0 : 4;
    failures |= useSettings() ? 0 : 8;
  } catch (const std::exception&) {
    failures |= 16;
  } catch (const StdException&) {
    failures |= 32;
  }
  _exit(failures);
}

void forkChild(Work& work, const std::string& folder) {
  const pid_t child = fork();
  if (child == 0) {
    live(folder);
  }
  int status = 0;
  if (child == -1) {
    work.wrong("not forked", std::strerror(errno));
  } else if (waitpid(child, &status, 0) != child) {
    work.wrong("could not be waited for", std::strerror(errno));
  } else if (WIFSIGNALED(status) && WTERMSIG(status) == SIGALRM) {
    work.wrong("hung");
  } else if (WIFSIGNALED(status)) {
    work.wrong("crashed", "signal " + std::to_string(WTERMSIG(status)));
  } else if (status != 0) {
    work.wrong("failed", "failures " + std::to_string(WEXITSTATUS(status)));
  }
}

}  // namespace

void forkChildren(Work& work, const std::string& folder) {
  std::array<std::thread, forkers> threads;
  for (std::thread& thread : threads) {
    thread = std::thread([&] {
      while (work.goesOn()) {
        forkChild(work, folder);
        work.done();
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
}
