#pragma once

#include <span>
#include <string>
#include <vector>

/// \file
/// Work that is done with every call of the library at least once, in pieces small enough to tell
/// what failed, so that it can be done again and again with something failing underneath.
///
/// A piece of work owns what it makes: it leaves nothing behind, also when something in it throws.

/// What work may tell besides, for a reason of its own.
struct MayTell {
  /// "threw ...", "other: ...", "ended ...", "hung" or "was killed by ..."; one that ends in "..."
  /// tells only how it begins.
  const char* told;
  /// The calls of the C library that have failed then, with spaces between; "malloc" for
  /// allocations.
  const char* where;
};

/// What the trace says of a failure that makes work tell something else.
struct MustTrace {
  const char* call;  ///< The call of the C library that has failed.
  const char* line;  ///< Part of a line.
};

/// One piece of work.
struct Workload {
  const char* name;
  /// Does it, and looks at what comes out by expectThat().
  void (*work)();
  /// What the process ends with, when that is what the work is for.
  int ends = -1;
  /// How it may tell, besides by throwing std::bad_alloc where memory is out, that something
  /// failed.
  std::vector<MayTell> mayTell = {};
  /// What fails at the first use of something that a process has once stays so for good.
  bool keepsFirstFailure = false;
  /// Each of those failures that its trace must tell of.
  std::vector<MustTrace> mustTrace = {};
  /// Some strings are shortened in place, and their blocks then counted as smaller ones.
  bool shortens = false;
};

/// What comes out is not what it is without failures.
struct Other {
  std::string what;
};

/// \throws Other when `holds` does not.
inline void expectThat(bool holds, const char* what) {
  if (!holds) {
    throw Other{what};
  }
}

#define CUL_EXPECT_THAT(condition) expectThat((condition), #condition)

std::span<const Workload> stringWorkloads();
std::span<const Workload> memoryWorkloads();
std::span<const Workload> fileWorkloads();
std::span<const Workload> threadWorkloads();
std::span<const Workload> traceWorkloads();
std::span<const Workload> settingWorkloads();
std::span<const Workload> processWorkloads();

/// All of them.
std::vector<Workload> allWorkloads();

/// Makes the files that they need. Before the first of them.
/// \param folder is theirs until the end.
void prepareForWork(const std::string& folder);

/// The folder of that.
const std::string& workFolder();

/// A terminal that nobody uses.
int workTerminal();
