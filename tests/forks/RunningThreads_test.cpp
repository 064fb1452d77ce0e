#include "Engine/utilities/RunningThreads.h"

#include <cstdlib>
#include <memory>
#include <new>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "Engine/utilities/StdThread.h"
#include "Engine/utilities/TraceFlags.h"

#include "tests/support/Child.h"
#include "tests/support/TemporaryFolder.h"

// The free store of this program asks the new-handler for each block, if it is told to.
namespace {

class IdleThread : public StdThread {
 public:
  IdleThread() : StdThread("idle", 0, nullptr) {}
  void run() override {}
};

thread_local bool asksHandler = false;

void* allocate(std::size_t size) {
  if (std::exchange(asksHandler, false)) {
    std::get_new_handler()();
    asksHandler = true;
  }
  return std::malloc(size == 0 ? 1 : size);
}

}  // namespace

void* operator new(std::size_t size) {
  if (void* const block = allocate(size); block != nullptr) {
    return block;
  }
  throw std::bad_alloc();
}
void* operator new[](std::size_t size) { return operator new(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return std::malloc(size); }
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept { return std::malloc(size); }
void operator delete(void* block) noexcept { std::free(block); }
void operator delete[](void* block) noexcept { std::free(block); }
void operator delete(void* block, std::size_t) noexcept { std::free(block); }
void operator delete[](void* block, std::size_t) noexcept { std::free(block); }

CUL_CHILD(NewHandlerThatWaitsForATrace) {
  static_cast<void>(StdThread::currentThread());
  static unsigned asked = 0;
  std::set_new_handler([] {
    ++asked;
    std::thread([] {
      taggedTrace("CUL_CHILD", __LINE__, "ERROR", "memory is out on %p",
                  static_cast<void*>(StdThread::currentThread()));
    }).join();
  });
  std::vector<std::unique_ptr<StdThread>> threads(200);
  asksHandler = true;
  for (std::unique_ptr<StdThread>& thread : threads) {
    thread = std::make_unique<IdleThread>();
  }
  asksHandler = false;
  EXPECT_GT(asked, threads.size());
}

TEST(RunningThreads, AsksForMemoryWhileOtherThreadsMayTrace) {
  const TemporaryFolder folder;
  const ChildResult r =
      runChild("NewHandlerThatWaitsForATrace",
               {.environment = {{"GDIA_ID", "root"}, {"QVX_DBG_TRACE", folder.path() + ",ERROR,2"}},
                .limitInSeconds = 30});
  EXPECT_EQ(r.status, 0) << r.out;
}
