#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <sys/single_threaded.h>
#include <thread>
#include <unistd.h>

#include <benchmark/benchmark.h>

#include "Engine/utilities/DebuggerSettings.h"

#include "benchmarks/Comparison.h"

/// \file
/// Usage: cul_bench alone|company [options of Google Benchmark]
///
/// "company" measures everything with a second, sleeping thread alive; "alone" measures, in
/// a process of one thread, the cases where that makes a difference.

namespace {

/// A folder for the trace file and its peer's, gone at the end.
class Folder {
 public:
  Folder() {
    std::string pattern = (std::filesystem::temp_directory_path() / "cul_bench.XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) {
      std::perror("mkdtemp");
      std::exit(1);
    }
    path_ = pattern;
  }
  Folder(const Folder&) = delete;
  Folder& operator=(const Folder&) = delete;
  ~Folder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }

  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

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

void compareInCompany() {
  // The settings are made before there is a second thread.
  DebuggerSettings::instance();
  std::thread([] {
    for (;;) {
      pause();
    }
  }).detach();
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
  compareProcessTable();
  compareFiles();
  compareSettings();
  compareProperties();
  compareStartup();
}

}  // namespace

int main(int argc, char** argv) {
  const Folder folder;
  chooseEnvironment(folder.path());
  benchmark::Initialize(&argc, argv);
  const std::string company = argc == 2 ? argv[1] : "";
  if (company == "alone") {
    compareAlone();
  } else if (company == "company") {
    compareInCompany();
  } else {
    std::fprintf(stderr, "usage: cul_bench alone|company [--benchmark_...]\n");
    return 2;
  }
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  require((__libc_single_threaded != 0) == (company == "alone"), "threads of the process");
  return 0;
}
