#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <exception>
#include <string>
#include <sys/single_threaded.h>
#include <thread>
#include <unistd.h>

#include <benchmark/benchmark.h>

#include "Engine/utilities/DebuggerSettings.h"

#include "benchmarks/Comparison.h"
#include "tests/support/TemporaryFolder.h"

/// \file
/// Usage: cul_bench kind [options of Google Benchmark]
///   alone               in a process of one thread, the cases where that makes a difference
///   company             everything, with a second, sleeping thread alive
///   threads COUNT       what may depend on the number of threads, with so many more
///   processes COUNT     the process table, with so many child processes
///   resident MEGABYTES  the start of a process while so much is resident
///   reader              the reader of traces, with traces that go with the process
///   allocator NAME      the peers that allocate memory, on a preloaded allocator whose library's
///                       file name contains the NAME

namespace {

/// One type of lines is on besides the two that always are. Must come before anything
/// traces or converts.
void chooseEnvironment(const std::string& folder) {
  for (const char* name : {"QVX_DBG_TRACE_ROOT", "QVX_DBG_TRACEHOST", "WZ4_DBG_TRACE"}) {
    unsetenv(name);
  }
  setenv("GDIA_ID", "root", 1);
  setenv("QVX_DBG_TRACE", (folder + "/trace,AGENT").c_str(), 1);
  setenv("QVX_DBG_CODEPAGE", "UTF-8", 1);
  setenv("TMPDIR", folder.c_str(), 1);
}

void compareAlone() {
  compareStringPool(Company::alone);
  compareStrings(Company::alone);
  compareLocks(Company::alone);
}

void startCompany() {
  // The settings are made before there is a second thread.
  DebuggerSettings::instance();
  std::thread([] {
    for (;;) {
      pause();
    }
  }).detach();
}

void compareInCompany() {
  compareStringPool(Company::idle);
  compareStrings(Company::idle);
  compareUnicode();
  compareEscapes();
  compareEBCDIC();
  compareChecksums();
  compareMemory();
  compareLocks(Company::idle);
  compareEvents();
  compareTrace();
  compareConsole();
  compareProcesses();
  compareArguments();
  compareFiles();
  compareSettings();
  compareProperties();
  compareStartup();
}

void requireAllocator(const std::string& name) {
  void* const allocate = dlsym(RTLD_DEFAULT, "malloc");
  Dl_info where = {};
  if (dladdr(allocate, &where) == 0 || std::strstr(where.dli_fname, name.c_str()) == nullptr) {
    std::fprintf(stderr, "No library with %s in its name is preloaded.\n", name.c_str());
    std::exit(1);
  }
}

// Registers the cases that the arguments ask for.
bool choose(const std::string& kind, const std::string& argument) {
  if (kind == "alone" && argument.empty()) {
    compareAlone();
    return true;
  }
  constexpr std::size_t mostDigits = 9;
  const bool isCount = !argument.empty() && argument.size() <= mostDigits &&
                       argument.find_first_not_of("0123456789") == argument.npos;
  const auto count = static_cast<unsigned>(isCount ? std::stoul(argument) : 0);
  if (kind == "processes" && isCount) {
    // Before there are threads, which would not sleep in the children.
    compareManyProcesses(count);
  }
  startCompany();
  if (kind == "company" && argument.empty()) {
    compareInCompany();
  } else if (kind == "reader" && argument.empty()) {
    compareTraceReader();
  } else if (kind == "threads" && isCount) {
    compareManyThreads(count);
  } else if (kind == "resident" && isCount) {
    compareResident(count);
  } else if (kind == "allocator" && !argument.empty()) {
    requireAllocator(argument);
    addStringPeers(argument);
  } else {
    return kind == "processes" && isCount;
  }
  return true;
}

}  // namespace

int main(int argc, char** argv) try {
  static const TemporaryFolder folder;  // For the trace file and its peer's. Goes at exit(), too.
  chooseEnvironment(folder.path());
  benchmark::Initialize(&argc, argv);
  const std::string kind = argc >= 2 ? argv[1] : "";
  if (argc > 3 || !choose(kind, argc == 3 ? argv[2] : "")) {
    std::fprintf(stderr,
                 "usage: cul_bench alone | company | reader | threads COUNT | processes COUNT |\n"
                 "                 resident MEGABYTES | allocator NAME   [--benchmark_...]\n");
    return 2;
  }
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  require((__libc_single_threaded != 0) == (kind == "alone"), "threads of the process");
  return 0;
} catch (const std::exception& exception) {
  std::fprintf(stderr, "cul_bench: %s\n", exception.what());
  return 2;
}
