#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <memory>
#include <spawn.h>
#include <string>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include "Engine/utilities/Descriptor.h"

#include "benchmarks/Comparison.h"
#include "tests/support/TemporaryFolder.h"

/// \file
/// The reader of traces beside the tools that a support engineer would take for the same: each a
/// process that writes to a pipe, from which this one reads (grep stops at the first line that it
/// finds where its output is /dev/null). The traces are written by the trace itself, have been over
/// the seam, and lie in the page cache. All run in the C locale, which is the fastest for the
/// peers.

namespace {

using Words = std::vector<std::string>;

constexpr unsigned greatMegabytes = 511;
constexpr unsigned smallMegabytes = 64;
constexpr unsigned processes = 8;

std::string beside(const char* program) {
  return std::filesystem::read_symlink("/proc/self/exe").replace_filename(program);
}

pid_t spawn(const Words& words, const Words& environment,
            const posix_spawn_file_actions_t* actions) {
  const auto pointersTo = [](const Words& texts) {
    std::vector<char*> pointers;
    for (const std::string& text : texts) {
      pointers.push_back(const_cast<char*>(text.c_str()));
    }
    pointers.push_back(nullptr);
    return pointers;
  };
  pid_t process = 0;
  const int error = posix_spawnp(&process, words.front().c_str(), actions, nullptr,
                                 pointersTo(words).data(), pointersTo(environment).data());
  require(error == 0, "the start of " + words.front());
  return process;
}

void end(pid_t process, const std::string& program) {
  int status = -1;
  while (waitpid(process, &status, 0) < 0 && errno == EINTR) {
  }
  require(status == 0, "the status of " + program);
}

struct Run {
  std::uint64_t bytes = 0;
  std::uint64_t lines = 0;  // counted only where it is asked for
  double memory = 0;        // at most, in bytes
};

enum class Count { bytes, lines };

// What a program writes goes to a file, or nowhere but here.
Run run(const Words& command, Count count = Count::bytes, const std::string& file = "") {
  int ends[2];
  require(pipe2(ends, O_CLOEXEC) == 0, "pipe");
  const Descriptor input(ends[0]);
  Descriptor output(ends[1]);
  const Descriptor report(memfd_create("report", MFD_CLOEXEC));
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  // First what may be in the way of the other.
  const Descriptor reportCopy(fcntl(report.get(), F_DUPFD_CLOEXEC, 10));
  posix_spawn_file_actions_adddup2(&actions, output.get(), STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, reportCopy.get(), 3);
  Words words = {beside("cul_bench_measured")};
  words.insert(words.end(), command.begin(), command.end());
  const pid_t process = spawn(words, {"LC_ALL=C", "LANG=C", "PATH=/usr/bin:/bin"}, &actions);
  posix_spawn_file_actions_destroy(&actions);
  output = Descriptor();

  Run result;
  std::ofstream copy;
  if (!file.empty()) {
    copy.open(file, std::ios::binary);
  }
  static char buffer[128 * 1024];
  for (ssize_t n; (n = read(input.get(), buffer, sizeof buffer)) > 0;) {
    result.bytes += static_cast<std::uint64_t>(n);
    if (count == Count::lines) {
      result.lines += static_cast<std::uint64_t>(std::count(buffer, buffer + n, '\n'));
    }
    if (copy.is_open()) {
      copy.write(buffer, n);
    }
  }
  end(process, command.front());
  char text[32] = "";
  require(pread(report.get(), text, sizeof text - 1, 0) > 0, "the memory of " + command.front());
  result.memory = std::stod(text) * 1024;
  return result;
}

// The traces, which are made when the first of the benchmarks needs them.
class Traces {
 public:
  static const Traces& instance() {
    static const Traces traces;
    return traces;
  }

  [[nodiscard]] const std::string& great() const { return great_; }
  [[nodiscard]] const Words& small() const { return small_; }
  // What the reader makes of each small one.
  [[nodiscard]] const Words& texts() const { return texts_; }

 private:
  Traces() {
    std::fputs("Writing traces.\n", stderr);
    great_ = write(1, greatMegabytes, "great").front();
    small_ = write(processes, smallMegabytes, "small");
    for (const std::string& trace : small_) {
      texts_.push_back(trace + ".txt");
      run({beside("enginetrace"), trace}, Count::bytes, texts_.back());
    }
    // Else the kernel writes them while others are measured.
    sync();
  }

  // The traces of so many processes that write at once.
  Words write(unsigned count, unsigned megabytes, const std::string& name) {
    const std::string folder = folder_.file(name);
    std::filesystem::create_directory(folder);
    const std::string configuration =
        "QVX_DBG_TRACE=" + folder + ',' + std::to_string(megabytes) + ",AGENT,DBX,GMH,WZ4,PMD";
    std::vector<pid_t> writers;
    for (unsigned i = 0; i < count; ++i) {
      writers.push_back(spawn({beside("cul_bench_tracer"), std::to_string(megabytes * 5 / 4)},
                              {"GDIA_ID=root", configuration}, nullptr));
    }
    for (const pid_t writer : writers) {
      end(writer, "cul_bench_tracer");
    }
    Words files;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
      files.push_back(entry.path());
      require(entry.file_size() >> 20 >= megabytes - 1, "a ring that was written over");
    }
    require(files.size() == count, "number of traces");
    return files;
  }

  TemporaryFolder folder_;
  std::string great_;
  Words small_;
  Words texts_;
};

// The words of a side's command, known once there are traces.
using Command = Words (*)(const Traces&);

// So many lines only one of two sides has: those of the header, and the one that is cut.
constexpr std::uint64_t fewLines = 50;

void requireSameLines(const std::string& what, const Words& ours, const Words& peers) {
  const std::uint64_t found = run(ours, Count::lines).lines;
  const std::uint64_t expected = run(peers, Count::lines).lines;
  require(found > fewLines && found + fewLines >= expected && expected + fewLines >= found, what);
}

struct Side {
  const char* name;
  Command command;
  unsigned times = 1;  // it runs so often for each measurement
};

enum class Output { lines, summary };

// The first two sides find the same lines, where ours shows them.
void compareCommands(const std::string& what, const std::vector<Side>& sides,
                     Output output = Output::lines) {
  const auto isChecked = std::make_shared<bool>(output == Output::summary);
  const std::pair<Command, Command> same(sides[0].command, sides[1].command);
  for (const Side& side : sides) {
    benchmark::RegisterBenchmark((what + '/' + side.name).c_str(), [=](benchmark::State& state) {
      const Traces& traces = Traces::instance();
      if (!std::exchange(*isChecked, true)) {
        requireSameLines(what, same.first(traces), same.second(traces));
      }
      const Words words = side.command(traces);
      double memory = 0;
      for (auto _ : state) {
        for (unsigned i = 0; i < side.times; ++i) {
          memory = std::max(memory, run(words).memory);
        }
      }
      state.counters["memory"] = memory;
    })->UseRealTime();
  }
}

Words read(Words arguments) {
  arguments.insert(arguments.begin(), beside("enginetrace"));
  return arguments;
}

Words find(const char* text, const std::string& trace) {
  return {"grep", "-a", "-F", "-e", text, trace};
}

// In front of the type of a line.
constexpr const char* anyType = ")**";

Words findAll(const Traces& traces) { return find(anyType, traces.great()); }

void compareTypes(const std::string& size) {
  compareCommands("enginetrace: --type GMH, every third line, " + size,
                  {{"ours",
                    [](const Traces& t) {
                      return read({"--type", "GMH", t.great()});
                    }},
                   {"grep -F", [](const Traces& t) { return find(")**GMH:", t.great()); }}});
  compareCommands("enginetrace: --type ERROR, every 100th line, " + size,
                  {{"ours",
                    [](const Traces& t) {
                      return read({"--type", "ERROR", t.great()});
                    }},
                   {"grep -F", [](const Traces& t) { return find(")**ERROR:", t.great()); }}});
}

std::string megabytes(unsigned count) { return std::to_string(count) + " MB"; }

bool hasRoom() {
  const std::uint64_t needed =
      std::uint64_t{greatMegabytes + 2 * processes * smallMegabytes + smallMegabytes} << 20;
  return std::filesystem::space(std::filesystem::temp_directory_path()).available >= needed;
}

}  // namespace

void compareTraceReader() {
  if (!hasRoom()) {
    std::fputs("There is no room for the traces that enginetrace reads.\n", stderr);
    return;
  }
  const std::string size = megabytes(greatMegabytes);
  compareCommands(
      "enginetrace: unroll, " + size,
      {{"ours", [](const Traces& t) { return read({t.great()}); }},
       {"grep -F, all lines", findAll},
       {"grep -F, every 100th", [](const Traces& t) { return find(")**ERROR:", t.great()); }}});
  compareCommands(
      "enginetrace: unroll, " + megabytes(smallMegabytes),
      {{"ours", [](const Traces& t) { return read({t.small().front()}); }},
       {"grep -F, all lines", [](const Traces& t) { return find(anyType, t.small().front()); }}});
  compareTypes(size);
  compareCommands(
      "enginetrace: merge, " + std::to_string(processes) + " x " + megabytes(smallMegabytes),
      {{"ours", [](const Traces& t) { return read(t.small()); }},
       {"sort -m", [](const Traces& t) {
          Words words = {"sort", "-m"};
          words.insert(words.end(), t.texts().begin(), t.texts().end());
          return words;
        }}});
  compareCommands("enginetrace: --summary, " + size,
                  {{"ours",
                    [](const Traces& t) {
                      return read({"--summary", t.great()});
                    }},
                   {"grep -F, all lines", findAll},
                   {"bound", findAll, 2}},
                  Output::summary);
}
