// Has every allocation, or every fallible call of the C library, fail in turn under every piece of
// work, and prints what is wrong.
// usage: torture allocations|calls [work [share [seed]]]
//        torture allocations|calls work number N [error]
//   work    its name; all when it is empty or not given
//   share   one run of so many, 1 when not given
//   seed    which ones, 0 when not given
//   number  only the runs in which this allocation or call fails, as a report numbers them
//   error   only with this error, by its place in the table of tests/torture/Faults.cpp

#include <charconv>
#include <cstdio>
#include <exception>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>

#include "tests/torture/Runner.h"

namespace {

class BadUsage : public std::invalid_argument {
  using std::invalid_argument::invalid_argument;
};

unsigned number(std::string_view text) {
  unsigned value = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size()) {
    throw BadUsage("not a number: " + std::string(text));
  }
  return value;
}

Thoroughness thoroughnessOf(int argc, char** argv) {
  Thoroughness thoroughness;
  thoroughness.atATime = 16;
  if (argc > 3 && argv[3] == std::string_view("number")) {
    if (argc < 5 || argc > 6) {
      throw BadUsage("which number, and then at most an error");
    }
    thoroughness.number = number(argv[4]);
    if (argc > 5) {
      thoroughness.error = number(argv[5]);
    }
    return thoroughness;
  }
  if (argc > 5) {
    throw BadUsage("too many arguments");
  }
  thoroughness.share = argc > 3 ? number(argv[3]) : 1;
  thoroughness.seed = argc > 4 ? number(argv[4]) : 0;
  if (thoroughness.share == 0) {
    throw BadUsage("one run of none");
  }
  return thoroughness;
}

}  // namespace

int main(int argc, char** argv) try {
  const std::string_view kindName = argc > 1 ? argv[1] : "";
  if (kindName != "allocations" && kindName != "calls") {
    throw BadUsage("neither allocations nor calls");
  }
  const Fault::Kind kind = kindName == "calls" ? Fault::call : Fault::allocation;
  const std::string_view wanted = argc > 2 ? argv[2] : "";
  const Thoroughness thoroughness = thoroughnessOf(argc, argv);
  const WorkFolder folder;
  unsigned works = 0;
  unsigned long runs = 0;
  unsigned long failures = 0;
  unsigned long problems = 0;
  for (const Workload& work : allWorkloads()) {
    if (!wanted.empty() && wanted != work.name) {
      continue;
    }
    const Findings findings = torture(work, kind, thoroughness);
    std::printf("%-26s %8lu runs %8lu with failures %6zu problems\n", work.name, findings.runs,
                findings.failures, findings.problems.size());
    for (const std::string& problem : findings.problems) {
      std::printf("  %s\n", problem.c_str());
    }
    std::fflush(stdout);
    ++works;
    runs += findings.runs;
    failures += findings.failures;
    problems += findings.problems.size();
  }
  if (works == 0) {
    throw BadUsage("no work named " + std::string(wanted));
  }
  std::printf("%lu runs, %lu with failures, %lu problems\n", runs, failures, problems);
  return problems == 0 ? 0 : 1;
} catch (const BadUsage& bad) {
  std::fprintf(stderr,
               "torture: %s\n"
               "usage: torture allocations|calls [work [share [seed]]]\n"
               "       torture allocations|calls work number N [error]\n",
               bad.what());
  return 2;
} catch (const std::exception& exception) {
  std::fprintf(stderr, "torture: %s\n", exception.what());
  return 2;
}
