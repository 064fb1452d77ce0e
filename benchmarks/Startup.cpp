#include <cerrno>
#include <climits>
#include <cstdlib>
#include <filesystem>
#include <getopt.h>
#include <memory>
#include <spawn.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include "Engine/utilities/UNIX/UNIXDebuggerParameters.h"

#include "benchmarks/Comparison.h"

/// \file
/// What a debugger process does before it does anything: it is loaded, takes its command line
/// apart and makes its settings. As a whole it is measured from outside, by the wall time from
/// the start of a small program to its end, beside an empty one that loads the C++ library.

namespace {

// The pointers that a program gets; the texts live as long.
class Arguments {
 public:
  explicit Arguments(std::vector<std::string> texts) : texts_(std::move(texts)) {
    for (std::string& text : texts_) {
      pointers_.push_back(text.data());
    }
    pointers_.push_back(nullptr);
  }
  Arguments(const Arguments&) = delete;
  Arguments& operator=(const Arguments&) = delete;
  ~Arguments() = default;

  [[nodiscard]] int count() const { return static_cast<int>(texts_.size()); }
  [[nodiscard]] char** vector() { return pointers_.data(); }

 private:
  std::vector<std::string> texts_;
  std::vector<char*> pointers_;
};

// Without the variables of this program's own trace.
std::vector<std::string> environmentOfAProcess() {
  std::vector<std::string> result;
  for (char** variable = environ; *variable != nullptr; ++variable) {
    const std::string text = *variable;
    if (text.rfind("QVX_DBG_", 0) != 0 && text.rfind("GDIA_ID=", 0) != 0) {
      result.push_back(text);
    }
  }
  return result;
}

// The path of a program that lies beside this one.
std::string beside(const char* program) {
  return std::filesystem::read_symlink("/proc/self/exe").replace_filename(program);
}

void addStart(const std::string& name, const std::vector<std::string>& command) {
  const auto arguments = std::make_shared<Arguments>(command);
  const auto environment = std::make_shared<Arguments>(environmentOfAProcess());
  benchmark::RegisterBenchmark(name.c_str(), [arguments, environment](benchmark::State& state) {
    for (auto _ : state) {
      pid_t process = 0;
      require(posix_spawn(&process, arguments->vector()[0], nullptr, nullptr, arguments->vector(),
                          environment->vector()) == 0,
              "posix_spawn");
      int status = -1;
      while (waitpid(process, &status, 0) < 0 && errno == EINTR) {
      }
      require(status == 0, "the status of a process");
    }
  })->UseRealTime();
}

void compareWholeStart() {
  const std::string empty = beside("cul_bench_empty");
  const std::string engine = beside("cul_bench_engine");
  constexpr const char* peer = "empty C++ program";
  const std::string load = "start-up: load the library, end";
  addStart(load + "/ours", {engine});
  addStart(load + "/" + peer, {empty});
  const std::string whole = "start-up: load, command line, settings, end";
  const std::vector<std::string> options = {"-qhost=localhost", "-qhport=8002", "-qquiet",
                                            "/bin/true",        "one",          "two"};
  std::vector<std::string> command = {engine};
  command.insert(command.end(), options.begin(), options.end());
  addStart(whole + "/ours", command);
  command.front() = empty;
  addStart(whole + "/" + peer, command);
}

// Twenty options, with values in both forms and without, and a debuggee.
std::vector<std::string> commandLine(const std::string& program) {
  return {program,
          "-qcache=/var/cache/engine",
          "-qdaemon=yes",
          "-qdepth=12",
          "-qdxpllevel=3",
          "-qdxpldump=no",
          "-qExecBy=owner",
          "-qhost=debug.example.org",
          "-qlang",
          "en_US",
          "-qquiet",
          "-qteamuser=developer",
          "-qtrace=/tmp/trace",
          "-qhport=8002",
          "-qhrdmport",
          "8003",
          "-qhrdmhost=store.example.org",
          "-qhrdmkey=K1234567",
          "-qsecure=yes",
          "-qkeystoreloc=/etc/engine/keys",
          "-qCheckAllCerts=no",
          "-qprobepid",
          "4711",
          "-qhprotocol=tcp",
          "/usr/bin/program",
          "-v",
          "file one"};
}

constexpr option peersOptions[] = {
    {"qcache", required_argument, nullptr, 1},
    {"qdaemon", required_argument, nullptr, 1},
    {"qdepth", required_argument, nullptr, 1},
    {"qdxpllevel", required_argument, nullptr, 1},
    {"qdxpldump", required_argument, nullptr, 1},
    {"qExecBy", required_argument, nullptr, 1},
    {"qhost", required_argument, nullptr, 1},
    {"qlang", required_argument, nullptr, 1},
    {"qpid", required_argument, nullptr, 1},
    {"qquiet", no_argument, nullptr, 1},
    {"qteamuser", required_argument, nullptr, 1},
    {"qtrace", required_argument, nullptr, 1},
    {"startupKey", required_argument, nullptr, 1},
    {"qhport", required_argument, nullptr, 1},
    {"qhrdmport", required_argument, nullptr, 1},
    {"qhrdmhost", required_argument, nullptr, 1},
    {"qhrdmkey", required_argument, nullptr, 1},
    {"qsecure", required_argument, nullptr, 1},
    {"qkeystoreloc", required_argument, nullptr, 1},
    {"qkeystorepass", required_argument, nullptr, 1},
    {"qCheckAllCerts", required_argument, nullptr, 1},
    {"qsocketfd", required_argument, nullptr, 1},
    {"qprobepid", required_argument, nullptr, 1},
    {"qdownloadzip", required_argument, nullptr, 1},
    {"qhprotocol", required_argument, nullptr, 1},
    {"qFallbackUnencrypted", required_argument, nullptr, 1},
    {nullptr, 0, nullptr, 0},
};

struct PeersParameters {
  std::string program;
  std::vector<std::pair<std::string, std::string>> options;
  std::string debuggee;
  std::string debuggeeArguments;
};

// getopt_long_only is the form of getopt_long for long options with one "-".
PeersParameters peersParse(Arguments& arguments) {
  PeersParameters result;
  char** const argv = arguments.vector();
  if (*argv[0] != '\0') {
    char path[PATH_MAX];
    require(realpath(argv[0], path) != nullptr, "the program's path");
    result.program = path;
  }
  optind = 0;
  int index = 0;
  while (getopt_long_only(arguments.count(), argv, "+", peersOptions, &index) == 1) {
    result.options.emplace_back(peersOptions[index].name, optarg == nullptr ? "" : optarg);
  }
  result.debuggee = argv[optind];
  for (int i = optind + 1; i < arguments.count(); ++i) {
    const std::string argument = argv[i];
    const bool needsQuotes = argument.find_first_of(" \"") != std::string::npos;
    result.debuggeeArguments.append(result.debuggeeArguments.empty() ? "" : " ")
        .append(needsQuotes ? '"' + argument + '"' : argument);
  }
  return result;
}

void requireSameCommandLine(Arguments& arguments) {
  const UNIXDebuggerParameters ours(arguments.count(), arguments.vector());
  const PeersParameters peers = peersParse(arguments);
  const DebuggerArgList& options = ours.debuggerArguments();
  bool same = options.count() == 20 && peers.options.size() == 20 &&
              ours.invalidArguments().isEmpty() && ours.debuggerName().view() == peers.program &&
              ours.debuggeeName().view() == peers.debuggee &&
              ours.debuggeeArguments().view() == peers.debuggeeArguments;
  for (unsigned i = 1; same && i <= options.count(); ++i) {
    const auto& [name, value] = peers.options[i - 1];
    same = options.name(i).view() == '-' + name && options.value(i).view() == value;
  }
  require(same, "the command line");
}

// With an empty name of the program nothing but the arguments is taken apart.
void compareCommandLine(const std::string& what, const std::string& peer,
                        const std::string& program) {
  const auto arguments = std::make_shared<Arguments>(commandLine(program));
  requireSameCommandLine(*arguments);
  compare(
      what,
      [arguments] {
        const UNIXDebuggerParameters parameters(arguments->count(), arguments->vector());
        benchmark::DoNotOptimize(parameters.argumentsUsed());
      },
      peer,
      [arguments] {
        const PeersParameters parameters = peersParse(*arguments);
        benchmark::DoNotOptimize(parameters.options.data());
      });
}

}  // namespace

void compareStartup() {
  compareCommandLine("command line: 20 options", "getopt_long_only", "");
  compareCommandLine("command line: 20 options and the program's path",
                     "getopt_long_only + realpath", beside("cul_bench"));
  compareWholeStart();
}
