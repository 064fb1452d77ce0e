// Prints the table of what children can do that are forked off a busy process.
// usage: fork_table [forks [parent's deed [child's deed]]]
// A cell tells how many of the children hung, and behind a "+" how many failed; "-" stands where
// nothing is promised. A child counts as hung after 20 seconds.

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>

#include "tests/forks/ForkTable.h"
#include "tests/support/TemporaryFolder.h"

namespace {

bool isWanted(const Deed& deed, int argc, char** argv, int place) {
  return argc <= place || *argv[place] == '\0' || std::string(argv[place]) == deed.name;
}

std::string cellOf(const Outcome& outcome) {
  std::string cell = std::to_string(outcome.hung);
  if (outcome.failed != 0) {
    cell += "+" + std::to_string(outcome.failed);
  }
  return cell;
}

}  // namespace

int main(int argc, char** argv) try {
  const unsigned forks = argc > 1 ? static_cast<unsigned>(std::atoi(argv[1])) : 1000;
  const TemporaryFolder folder;
  prepareForTable(folder.path());
  std::printf("Children that hung, of %u forks in each pairing\n%-14s", forks, "parent \\ child");
  for (const Deed& child : childDeeds()) {
    if (isWanted(child, argc, argv, 3)) {
      std::printf(" %12s", child.name);
    }
  }
  bool isGood = true;
  unsigned long total = 0;
  for (const Deed& parent : parentDeeds()) {
    if (!isWanted(parent, argc, argv, 2)) {
      continue;
    }
    std::printf("\n%-14s", parent.name);
    for (const Deed& child : childDeeds()) {
      if (isWanted(child, argc, argv, 3) && !isPromised(parent, child)) {
        std::printf(" %12s", "-");
      } else if (isWanted(child, argc, argv, 3)) {
        std::fflush(stdout);
        const Outcome outcome = runPairing(parent, child, forks);
        std::printf(" %12s", cellOf(outcome).c_str());
        isGood = isGood && outcome.isGood();
        total += outcome.forks;
      }
    }
  }
  std::printf("\n%lu children: %s\n", total, isGood ? "all well" : "not all well");
  return isGood ? 0 : 1;
} catch (const std::exception& exception) {
  std::fprintf(stderr, "fork_table: %s\n", exception.what());
  return 2;
}
