#pragma once

#include <cstdio>
#include <cstdlib>
#include <string>
#include <type_traits>
#include <utility>

#include <benchmark/benchmark.h>

/// \file
/// How a benchmark is paired with its peer. A benchmark's name is its case, "/" and "ours",
/// "bound" or the peer's name; table.py finds the pairs by it. Both sides of a pair do the same
/// work on the same data, in the same process and, interleaved at random, at the same time.
/// Only peers on another allocator than the C library's have processes of their own.
///
/// Where what is promised keeps ours above its peer, the bound shows by how much: the peer's
/// means, made to do what is promised and nothing else.

/// Which other threads the process has. The C library leaves out the atomic operations of
/// its locks in a process that never had a second thread, so where a lock takes part the
/// state belongs to the case. A debugger always has threads.
enum class Company {
  alone,  ///< The process has one thread and never had another.
  idle    ///< A second thread exists and sleeps.
};

/// What the name of a case says about it.
inline const char* nameOf(Company company) {
  return company == Company::alone ? "lone thread" : "second thread idle";
}

/// How long several threads must work: they get to each other only while all of them run.
constexpr double secondsTogether = 0.1;

/// Registers `operation`, which is either one operation without arguments, measured in a
/// loop, or a whole benchmark with a loop of its own.
template <typename Operation>
void addBenchmark(const std::string& name, Operation operation, int threads) {
  auto* const added =
      benchmark::RegisterBenchmark(name.c_str(), [operation](benchmark::State& state) {
        if constexpr (std::is_invocable_v<const Operation&, benchmark::State&>) {
          operation(state);
        } else {
          for (auto _ : state) {
            operation();
            benchmark::ClobberMemory();
          }
        }
      });
  if (threads > 1) {
    // What threads do to each other shows in the wall time only.
    added->Threads(threads)->UseRealTime()->MinTime(secondsTogether);
  }
}

/// Registers one side of a case; for cases with several peers.
template <typename Operation>
void addPeer(const std::string& what, const std::string& peer, Operation operation,
             int threads = 1) {
  addBenchmark(what + "/" + peer, std::move(operation), threads);
}

/// Registers both sides of a case. An operation that is run by several threads must be safe
/// for that.
template <typename Ours, typename Peer>
void compare(const std::string& what, Ours ours, const std::string& peer, Peer peers,
             int threads = 1) {
  addPeer(what, "ours", std::move(ours), threads);
  addPeer(what, peer, std::move(peers), threads);
}

/// Registers the bound of a case.
template <typename Operation>
void addBound(const std::string& what, Operation operation, int threads = 1) {
  addBenchmark(what + "/bound", std::move(operation), threads);
}

/// Ends the program when the two sides of a case do not do the same.
inline void require(bool same, const std::string& what) {
  if (!same) {
    std::fprintf(stderr, "The sides differ: %s\n", what.c_str());
    std::exit(1);
  }
}

/// Each registers the cases of its subject.
void compareStringPool(Company company);
void compareStrings(Company company);
void compareUnicode();
void compareEscapes();
void compareEBCDIC();
void compareChecksums();
void compareMemory();
void compareLocks(Company company);
void compareEvents();
void compareTrace();
void compareTraceLine(const std::string& company);
void compareConsole();
void compareProcesses();
void compareArguments();
void compareFiles();
void compareSettings();
void compareProperties();
void compareStartup();
void compareTraceReader();

/// Each registers the cases of its subject on many threads, in a process that has `count` sleeping
/// ones besides the main and the second one, with `count` MB resident, or with `count` child
/// processes that sleep. They register nothing where the machine has no room for so many.
void compareManyThreads(unsigned count);
void compareResident(unsigned megabytes);
void compareManyProcesses(unsigned count);

/// Registers only the peers of the cases in which memory is allocated, on an allocator that was
/// preloaded.
void addStringPeers(const std::string& allocator);
