#include <cstdlib>
#include <filesystem>
#include <string>

#include <spdlog/logger.h>
#include <spdlog/sinks/basic_file_sink.h>

#include "Engine/utilities/TraceFlags.h"

#include "benchmarks/Comparison.h"

namespace {

constexpr const char* function = "int StdPipe::read(void*, unsigned int, unsigned int)";

/// Both sides print the time of day in microseconds, a name of 8 characters, the type, the
/// function, the line and the message.
constexpr const char* pattern = "%H:%M:%S.%f (%-8n) **AGENT: %!(%#): %v";

void traceDisabled(benchmark::State& state) {
  for (auto _ : state) {
    CUL_TRACE(TraceType::gde, function, 46, "::read() failed with errno %d.", 5);
    benchmark::ClobberMemory();
  }
}

void emptyLoop(benchmark::State& state) {
  for (auto _ : state) {
    benchmark::ClobberMemory();
  }
}

void traceEnabled(benchmark::State& state) {
  int i = 0;
  for (auto _ : state) {
    CUL_TRACE(TraceType::agent, function, 46, "::read() of \"%s\" failed with errno %d.", "pipe",
              ++i);
  }
}

void spdlogEnabled(benchmark::State& state) {
  const std::string file = std::filesystem::temp_directory_path() / "spdlog";
  // Opened anew for each measurement: it has no limit of size.
  spdlog::logger logger("thread1", std::make_shared<spdlog::sinks::basic_file_sink_mt>(file, true));
  logger.set_pattern(pattern);
  logger.set_level(spdlog::level::trace);
  logger.flush_on(spdlog::level::trace);
  const spdlog::source_loc where("StdPipe.cpp", 46, "int StdPipe::read");
  int i = 0;
  for (auto _ : state) {
    logger.log(where, spdlog::level::trace, "::read() of \"{}\" failed with errno {}.", "pipe",
               ++i);
  }
}

}  // namespace

void compareTrace() {
  require(isTraced(TraceType::agent) && !isTraced(TraceType::gde), "trace types");
  // The name of the peer tells the table that it is no rival but the loop's own cost.
  compare("trace: test of a type that is off", traceDisabled, "empty loop", emptyLoop);
}

void compareTraceLine(const std::string& company) {
  compare("trace: one line to a file, " + company, traceEnabled, "spdlog", spdlogEnabled);
}
