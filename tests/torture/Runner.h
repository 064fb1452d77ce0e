#pragma once

#include <functional>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

#include "tests/support/TemporaryFolder.h"
#include "tests/torture/Faults.h"
#include "tests/torture/Workload.h"

/// \file
/// Does work in children with something failing underneath, and judges what comes of it.
///
/// A child does its work once while a fault is armed. Then nothing fails any more, and it does the
/// same work again, on the same thread and on another. It must come through both with what comes
/// out without failures, and hold no more then than one that nothing has failed in: blocks of
/// memory and of the string pool, descriptors, threads.

/// The folder of the work, prepared, and removed also when the process is killed.
class WorkFolder {
 public:
  WorkFolder();
  WorkFolder(const WorkFolder&) = delete;
  WorkFolder& operator=(const WorkFolder&) = delete;
  ~WorkFolder();

 private:
  TemporaryFolder folder_;
  pid_t remover_ = -1;
};

/// How a child begins.
enum class Start : unsigned {
  fresh,  ///< The library is loaded, and nothing in it used.
  used    ///< The same work was done before.
};

/// Who is told when operator new finds no memory.
enum class OutOfMemory : unsigned {
  ends,   ///< The library, which reports it and ends the process with status 1.
  throws  ///< Nobody: std::bad_alloc is thrown.
};

/// Where a child traces, everything.
enum class Trace : unsigned { nowhere, file, stream };

/// One child.
struct Run {
  const Workload* work = nullptr;
  Start start = Start::fresh;
  OutOfMemory outOfMemory = OutOfMemory::throws;
  Trace trace = Trace::nowhere;
  int threads = 0;  ///< How many it has at its end, which is waited for; 0: nobody knows.
  Fault fault = {};
};

/// What a process holds.
struct Holdings {
  Allocated allocated = {};
  long poolInUse = 0;  ///< Bytes of the string pool's that are not on its lists.
  int descriptors = 0;
  int threads = 0;
};

/// What became of a child.
struct Outcome {
  std::string told;     ///< "done", "threw ...", "other: ..." or "ended n".
  std::string output;   ///< On its standard streams.
  std::string trace;    ///< What it has traced.
  std::string problem;  ///< What is wrong whatever the work may tell; empty: nothing.
  Count count;
  Holdings holds;            ///< Afterwards.
  bool isOver = false;       ///< It came to its own end, and tells what it holds.
  bool isElsewhere = false;  ///< It has traced into a file instead of onto a stream.
};

/// The name of a run, for reports.
std::string nameOf(const Run& run);

/// Runs them, so many at a time, and hands each outcome on as it comes.
void runAll(const std::vector<Run>& runs, unsigned atATime,
            const std::function<void(const Run&, Outcome&)>& take);

/// The same for one.
Outcome runOne(const Run& run);

/// What has failed: the name of a call, "malloc" for an allocation, or "nothing".
std::string whatFailed(const Outcome& outcome);

/// What is wrong with an outcome, beside that of the same run without a fault.
/// \return empty: nothing.
std::string judge(const Run& run, const Outcome& outcome, const Outcome& healthy);

/// How thorough to be.
struct Thoroughness {
  unsigned share = 1;                   ///< One of so many runs, but at least some of each work.
  unsigned seed = 0;                    ///< Which.
  std::optional<unsigned> number = {};  ///< Only the allocation or call with this number.
  std::optional<unsigned> error = {};   ///< Only this one of a call's errors, by its place.
  unsigned atATime = 4;                 ///< Most of them wait for something.
};

/// What was found.
struct Findings {
  unsigned long runs = 0;
  unsigned long failures = 0;  ///< In how many something failed.
  bool canFail = false;        ///< Whether the work asks for anything that could.
  std::vector<std::string> problems;
};

/// Every failing allocation, or every failing call, of one piece of work.
Findings torture(const Workload& work, Fault::Kind kind, const Thoroughness& thoroughness);
