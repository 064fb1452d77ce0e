// Has every allocation, or every fallible call of the C library, fail in turn under every piece of
// work, and prints what is wrong.
// usage: torture allocations|calls [work [share [seed]]]
//   work   its name; all when it is empty or not given
//   share  one run of so many, 1 when not given
//   seed   which one

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string_view>

#include "tests/support/TemporaryFolder.h"
#include "tests/torture/Runner.h"

int main(int argc, char** argv) try {
  const std::string_view kindName = argc > 1 ? argv[1] : "";
  if (kindName != "allocations" && kindName != "calls") {
    std::fprintf(stderr, "usage: torture allocations|calls [work [share [seed]]]\n");
    return 2;
  }
  const Fault::Kind kind = kindName == "calls" ? Fault::call : Fault::allocation;
  const std::string_view wanted = argc > 2 ? argv[2] : "";
  Thoroughness thoroughness;
  thoroughness.share = argc > 3 ? static_cast<unsigned>(std::atoi(argv[3])) : 1;
  thoroughness.seed = argc > 4 ? static_cast<unsigned>(std::atoi(argv[4])) : 0;
  const TemporaryFolder folder;
  prepareForWork(folder.path());
  unsigned long runs = 0;
  unsigned long problems = 0;
  for (const Workload& work : allWorkloads()) {
    if (!wanted.empty() && wanted != work.name) {
      continue;
    }
    const Findings findings = torture(work, kind, thoroughness);
    std::printf("%-26s %8lu runs %6zu problems\n", work.name, findings.runs,
                findings.problems.size());
    for (const std::string& problem : findings.problems) {
      std::printf("  %s\n", problem.c_str());
    }
    std::fflush(stdout);
    runs += findings.runs;
    problems += findings.problems.size();
  }
  std::printf("%lu runs, %lu problems\n", runs, problems);
  return problems == 0 ? 0 : 1;
} catch (const std::exception& exception) {
  std::fprintf(stderr, "torture: %s\n", exception.what());
  return 2;
}
