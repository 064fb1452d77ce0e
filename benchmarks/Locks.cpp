#include <algorithm>
#include <memory>
#include <mutex>
#include <pthread.h>
#include <string>
#include <vector>

#include "Engine/utilities/RWlock.h"
#include "Engine/utilities/UNIX/UNIX_Critical_Section.h"

#include "benchmarks/Comparison.h"

namespace {

constexpr const char* caller = "void compareLocks(Company)";

class PosixRWlock {
 public:
  PosixRWlock() { pthread_rwlock_init(&lock_, nullptr); }
  PosixRWlock(const PosixRWlock&) = delete;
  PosixRWlock& operator=(const PosixRWlock&) = delete;
  ~PosixRWlock() { pthread_rwlock_destroy(&lock_); }

  void requestRead() { pthread_rwlock_rdlock(&lock_); }
  void requestWrite() { pthread_rwlock_wrlock(&lock_); }
  void release() { pthread_rwlock_unlock(&lock_); }

 private:
  pthread_rwlock_t lock_;
};

/// A lock that knows who holds it, as nesting, upgrading and asking for holders demand: each
/// side changes a list of holders under a mutex.
class ListedHolders {
 public:
  void request() {
    const std::lock_guard guard(mutex_);
    holders_.push_back(pthread_self());
  }
  void release() {
    const std::lock_guard guard(mutex_);
    holders_.erase(std::find(holders_.begin(), holders_.end(), pthread_self()));
  }

 private:
  std::mutex mutex_;
  std::vector<pthread_t> holders_;
};

void compareCriticalSection(const std::string& state, unsigned depth, int threads) {
  // As in the library, the lock is reached through its interface.
  const std::shared_ptr<CUL_Critical_Section> ours = std::make_shared<UNIX_Critical_Section>();
  const auto peer = std::make_shared<std::recursive_mutex>();
  const auto shared = std::make_shared<long>(0);
  const auto peersShared = std::make_shared<long>(0);
  compare(
      "critical section: " + std::to_string(depth) + " deep, " + state,
      [ours, shared, depth] {
        for (unsigned i = 0; i < depth; ++i) {
          ours->request(caller, 1);
        }
        benchmark::DoNotOptimize(++*shared);
        for (unsigned i = 0; i < depth; ++i) {
          ours->release(caller, 1);
        }
      },
      "std::recursive_mutex",
      [peer, peersShared, depth] {
        for (unsigned i = 0; i < depth; ++i) {
          peer->lock();
        }
        benchmark::DoNotOptimize(++*peersShared);
        for (unsigned i = 0; i < depth; ++i) {
          peer->unlock();
        }
      },
      threads);
}

void compareReadWrite(const std::string& state, int threads) {
  const auto ours = std::make_shared<RWlock>(RWlockBase::NoPriority);
  const auto peer = std::make_shared<PosixRWlock>();
  const auto listed = std::make_shared<ListedHolders>();
  const auto hold = [listed] {
    listed->request();
    listed->release();
  };
  compare(
      "RWlock: read, " + state,
      [ours] {
        ours->requestRead();
        ours->release();
      },
      "pthread_rwlock_t",
      [peer] {
        peer->requestRead();
        peer->release();
      },
      threads);
  addBound("RWlock: read, " + state, hold, threads);
  if (threads == 1) {
    compare(
        "RWlock: write, " + state,
        [ours] {
          ours->requestWrite();
          ours->release();
        },
        "pthread_rwlock_t",
        [peer] {
          peer->requestWrite();
          peer->release();
        });
    addBound("RWlock: write, " + state, hold);
  }
}

}  // namespace

void compareLocks(Company company) {
  compareCriticalSection(nameOf(company), 1, 1);
  compareCriticalSection(nameOf(company), 3, 1);
  compareReadWrite(nameOf(company), 1);
  if (company == Company::idle) {
    compareCriticalSection("2 threads", 1, 2);
    compareReadWrite("2 threads", 2);
  }
}
