// Has the library do all that it does at once for long, in this process, and looks whether anything
// goes wrong, grows or is left. Prints a table.
// usage: soak (--seconds N | --counts) [--looks FILE] [part ...]
//   --seconds  how long
//   --counts   until each part has reached its full count
//   --looks    what the process used each second, for plot.py
//   part       only these, such as "forks"
// The exit status is 1 when anything was wrong, 2 when the soak could not be made.

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <exception>
#include <fcntl.h>
#include <functional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

#include "Engine/utilities/DebuggerSettings.h"
#include "Engine/utilities/EncodedString.h"
#include "Engine/utilities/List.h"
#include "Engine/utilities/SpawnedProcess.h"
#include "Engine/utilities/StdException.h"
#include "Engine/utilities/TraceFlags.h"

#include "tests/soak/Parts.h"
#include "tests/soak/ProcessState.h"
#include "tests/soak/Work.h"
#include "tests/support/TemporaryFolder.h"

namespace {

using Clock = std::chrono::steady_clock;

// A part that does not get on for so long hangs.
constexpr std::chrono::minutes patience(3);

// Until all threads have met in the C library's memory, of which it may take more for one of them
// at any time, some 160 kB. A soak that is shorter is judged less strictly.
constexpr double secondsToWarmUp = 180;

struct Options {
  std::chrono::seconds length{0};
  bool isForCounts = false;
  std::string looks;
  std::vector<std::string> parts;
};

using Run = std::function<void(Work&)>;

struct Part {
  Part(const char* name, unsigned long goal, Run body) : work(name, goal), run(std::move(body)) {}
  Work work;
  Run run;
  std::thread thread;
};

[[noreturn]] void failUsage() {
  std::fputs("usage: soak (--seconds N | --counts) [--looks FILE] [part ...]\n", stderr);
  std::exit(2);
}

Options optionsFrom(int argc, char** argv) {
  Options options;
  for (int i = 1; i < argc; ++i) {
    const std::string_view argument = argv[i];
    if (argument == "--counts") {
      options.isForCounts = true;
    } else if (argument == "--seconds" && i + 1 < argc) {
      options.length = std::chrono::seconds(std::atoi(argv[++i]));
    } else if (argument == "--looks" && i + 1 < argc) {
      options.looks = argv[++i];
    } else if (!argument.starts_with("-")) {
      options.parts.emplace_back(argument);
    } else {
      failUsage();
    }
  }
  if (options.isForCounts == (options.length.count() > 0)) {
    failUsage();
  }
  return options;
}

void require(bool condition, const char* what) {
  if (!condition) {
    throw std::runtime_error(std::string(what) + ": " + std::strerror(errno));
  }
}

// Makes a terminal the standard input and output, as consoles need. What it shows is of no
// interest.
// \return the former standard output.
FILE* standOnTerminal() {
  const int formerOutput = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  require(formerOutput != -1, "standard output");
  const int master = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
  require(master != -1 && grantpt(master) == 0 && unlockpt(master) == 0, "pseudo-terminal");
  const int slave = open(ptsname(master), O_RDWR | O_NOCTTY | O_CLOEXEC);
  require(slave != -1 && dup2(slave, STDIN_FILENO) != -1 && dup2(slave, STDOUT_FILENO) != -1,
          "terminal");
  close(slave);
  FILE* const output = fdopen(formerOutput, "w");
  require(output != nullptr, "standard output");
  return output;
}

void setEnvironment(const std::string& folder) {
  setenv("TZ", "UTC", 1);
  setenv("GDIA_ID", "root", 1);
  setenv("QVX_DBG_TRACE", (folder + ",AGENT,CHILD,2").c_str(), 1);
  setenv("QVX_DBG_CODEPAGE", "ISO-8859-1", 1);
  for (const char* name : {"QVX_DBG_TRACE_ROOT", "QVX_DBG_TRACEHOST", "WZ4_DBG_TRACE"}) {
    unsetenv(name);
  }
}

// What is there once and for all as soon as it is used: the trace, the settings, the timer thread,
// the code page.
void useLibraryOnce() {
  const EncodedString native("caf\xE9", EncodedString::native);
  if (!isTraced(TraceType::agent) || DebuggerSettings::instance() == nullptr ||
      native.view() != "caf\xC3\xA9") {
    throw std::runtime_error("no trace, no settings or no code page");
  }
  const List<EncodedString*> arguments;
  const SpawnedProcess process(EncodedString("true", EncodedString::utf8),
                               EncodedString("/bin", EncodedString::utf8), arguments, 0, 0);
  if (process.wait(60)) {
    throw std::runtime_error("not even one process ends");
  }
}

// Gives up on what hangs: its threads cannot be waited for.
[[noreturn]] void giveUp(FILE* output, const std::string& what) {
  std::fprintf(output, "soak: %s\n", what.c_str());
  std::fflush(output);
  _exit(1);
}

// With the timer's, and the thread sanitizer's own.
#if defined(__SANITIZE_THREAD__)
constexpr std::size_t threadsAtRest = 3;
#else
constexpr std::size_t threadsAtRest = 2;
#endif

class Soak {
 public:
  Soak(FILE* output, const Options& options, const std::string& folder)
      : output_(output), options_(options) {
    const std::string trace = folder + "/root." + std::to_string(getpid()) + ".trc";
    add("trace", 100'000'000, [trace](Work& work) { writeTraceLines(work, trace); });
    add("processes", 100'000, startProcesses);
    add("threads", 100'000, startThreads);
    add("forks", 100'000, [folder](Work& work) { forkChildren(work, folder); });
    add("consoles", 10'000, hangUpConsoles);
    add("strings", 100'000'000, passStrings);
    if (parts_.empty() || (!options_.parts.empty() && parts_.size() != options_.parts.size())) {
      failUsage();
    }
  }

  // \return whether nothing was wrong.
  bool run() {
    const Belongings before = belongingsWhen([](const Belongings& now) {
      return now.children.empty() && now.threads.size() <= threadsAtRest;
    });
    start_ = Clock::now();
    letAllGoOn();
    for (Part& part : parts_) {
      part.thread = std::thread([&part] { part.run(part.work); });
    }
    watch();
    end();
    seconds_ = secondsSoFar();
    const Belongings after =
        belongingsWhen([&before](const Belongings& now) { return leftovers(before, now).empty(); });
    const std::string left = leftovers(before, after);
    if (!left.empty()) {
      isGood_ = false;
      printLeft(left);
    }
    printParts();
    printUsage();
    writeLooks();
    return isGood_;
  }

 private:
  void add(const char* name, unsigned long goal, Run run) {
    const auto& wanted = options_.parts;
    if (wanted.empty() || std::find(wanted.begin(), wanted.end(), name) != wanted.end()) {
      parts_.emplace_back(name, goal, std::move(run));
    }
  }

  double secondsSoFar() const {
    return std::chrono::duration<double>(Clock::now() - start_).count();
  }

  Part& slowest() {
    return *std::min_element(parts_.begin(), parts_.end(), [](const Part& a, const Part& b) {
      return a.work.progress() < b.work.progress();
    });
  }

  // Each part gets on as the slowest does: all last as long as the soak, whatever else they have
  // to share the processors with.
  void letAllGoOn() {
    constexpr double lead = 0.001;
    double limit = slowest().work.progress() + lead;
    if (options_.isForCounts) {
      limit = std::min(limit, 1.0);
    }
    for (Part& part : parts_) {
      part.work.allow(static_cast<unsigned long>(limit * static_cast<double>(part.work.goal())));
    }
  }

  bool isOver() {
    return options_.isForCounts ? slowest().work.progress() >= 1
                                : Clock::now() - start_ >= options_.length;
  }

  void watch() {
    auto nextLook = start_;
    auto lastChange = start_;
    unsigned long lastCount = 0;
    const Part* last = nullptr;
    while (!isOver()) {
      letAllGoOn();
      const Part& part = slowest();
      const auto now = Clock::now();
      if (last != &part || lastCount != part.work.count()) {
        last = &part;
        lastCount = part.work.count();
        lastChange = now;
      } else if (now - lastChange > patience) {
        giveUp(output_, std::string(part.work.name()) + " does not get on; " +
                            std::to_string(lastCount) + " done");
      }
      if (now >= nextLook) {
        Usage usage = usageNow();
        usage.seconds = secondsSoFar();
        looks_.push_back(usage);
        nextLook += std::chrono::seconds(1);
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
  }

  void end() {
    for (Part& part : parts_) {
      part.work.end();
    }
    std::atomic<const char*> waitsFor = nullptr;
    std::atomic<bool> isEnded = false;
    std::thread guard([&] {
      const auto limit = Clock::now() + patience;
      while (!isEnded) {
        if (Clock::now() > limit) {
          giveUp(output_, std::string(waitsFor.load()) + " does not end");
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
      }
    });
    for (Part& part : parts_) {
      waitsFor = part.work.name();
      part.thread.join();
    }
    isEnded = true;
    guard.join();
  }

  // What belongs to the process when it is as wanted, or after a minute.
  template <class Condition>
  static Belongings belongingsWhen(Condition isAsWanted) {
    const auto limit = Clock::now() + std::chrono::minutes(1);
    for (;;) {
      Belongings now = belongingsNow();
      if (isAsWanted(now) || Clock::now() > limit) {
        return now;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
  }

  // The first lines tell what kind of thing it is, and all together how much.
  void printLeft(const std::string& left) {
    constexpr std::ptrdiff_t mostLines = 20;
    const std::ptrdiff_t lines = std::count(left.begin(), left.end(), '\n');
    std::size_t end = 0;
    for (std::ptrdiff_t i = 0; i < std::min(lines, mostLines); ++i) {
      end = left.find('\n', end) + 1;
    }
    std::fprintf(output_, "%td left behind:\n%s%s\n", lines, left.substr(0, end).c_str(),
                 lines > mostLines ? "...\n" : "");
  }

  void printParts() {
    std::fprintf(output_, "%-12s %12s %14s   %s\n", "part", "count", "per second", "wrong");
    for (const Part& part : parts_) {
      const std::string wrong = part.work.whatWentWrong();
      isGood_ = isGood_ && wrong.empty() && part.work.count() != 0;
      std::fprintf(output_, "%-12s %12lu %14.1f   %s\n", part.work.name(), part.work.count(),
                   static_cast<double>(part.work.count()) / seconds_,
                   part.work.count() == 0 ? "nothing was done"
                   : wrong.empty()        ? "0"
                                          : wrong.c_str());
    }
  }

  void printUsage() {
    std::fprintf(output_, "\n%-12s %12s %14s %10s   %s\n", "usage", "middle third", "last third",
                 "margin", "wrong");
    Margin margin;
    if (seconds_ < secondsToWarmUp) {
      margin.resident *= 4;
    }
    for (const Thirds& thirds : thirdsOf(looks_, margin)) {
      isGood_ = isGood_ && thirds.isFlat();
      std::fprintf(output_, "%-12s %12lu %14lu %10lu   %s\n", thirds.name, thirds.middle,
                   thirds.last, thirds.margin, thirds.isFlat() ? "0" : "grows");
    }
    std::fprintf(output_, "%.0f seconds: %s\n", seconds_,
                 isGood_ ? "all well, nothing left behind" : "not all well");
  }

  void writeLooks() const {
    if (options_.looks.empty()) {
      return;
    }
    std::string text = "seconds\tkB resident\tdescriptors\tthreads\tchildren\tzombies\n";
    for (const Usage& look : looks_) {
      char line[160];
      std::snprintf(line, sizeof line, "%.1f\t%lu\t%zu\t%zu\t%zu\t%zu\n", look.seconds,
                    look.resident, look.descriptors, look.threads, look.children, look.zombies);
      text += line;
    }
    writeFile(options_.looks, text);
  }

  FILE* const output_;
  const Options& options_;
  std::deque<Part> parts_;
  std::vector<Usage> looks_;
  Clock::time_point start_;
  double seconds_ = 0;
  bool isGood_ = true;
};

}  // namespace

int main(int argc, char** argv) try {
  const Options options = optionsFrom(argc, argv);
  FILE* const output = standOnTerminal();
  const TemporaryFolder folder;
  setEnvironment(folder.path());
  useLibraryOnce();
  const bool isGood = Soak(output, options, folder.path()).run();
  std::fclose(output);
  return isGood ? 0 : 1;
} catch (const std::exception& exception) {
  std::fprintf(stderr, "soak: %s\n", exception.what());
  return 2;
} catch (const StdException& exception) {
  std::fprintf(stderr, "soak: %s\n", exception.text.view().data());
  return 2;
}
