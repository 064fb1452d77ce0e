#include "tests/soak/ProcessState.h"

#include <atomic>
#include <cstdlib>
#include <fcntl.h>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include <gmock/gmock.h>

#include "Engine/utilities/Descriptor.h"

#include "tests/support/Child.h"
#include "tests/support/WaitUntil.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

// Looks at a process whose memory is `memory[i]`.
std::vector<Usage> looksWith(const std::vector<unsigned long>& memory) {
  std::vector<Usage> looks;
  for (const unsigned long resident : memory) {
    Usage usage;
    usage.resident = resident;
    usage.descriptors = 10;
    looks.push_back(usage);
  }
  return looks;
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)

bool isFlat(const std::vector<unsigned long>& memory) {
  return thirdsOf(looksWith(memory), {.resident = 5}).front().isFlat();
}

TEST(UsageThirds, AreFlatUpToTheMargin) {
  EXPECT_TRUE(isFlat({1, 1, 1, 20, 20, 20, 25, 25, 25}));
  EXPECT_FALSE(isFlat({1, 1, 1, 20, 20, 20, 26, 26, 26}));
  EXPECT_TRUE(isFlat({1, 1, 1, 20, 20, 20, 10, 10, 10}));
  EXPECT_TRUE(isFlat({1, 1, 1, 20, 20, 20, 20, 20, 99})) << "one peak";
}

TEST(UsageThirds, AreTheMediansOfTheMiddleThirdAndTheLast) {
  const std::vector<Thirds> thirds = thirdsOf(looksWith({9, 9, 9, 9, 1, 5, 3, 8, 2, 7}));
  ASSERT_EQ(thirds.size(), 4U);
  EXPECT_STREQ(thirds[0].name, "kB resident");
  EXPECT_EQ(thirds[0].middle, 3U);
  EXPECT_EQ(thirds[0].last, 7U);
  EXPECT_STREQ(thirds[1].name, "descriptors");
  EXPECT_EQ(thirds[1].middle, 10U);
}

#endif

TEST(UsageThirds, AreNoneOfAShortSoak) {
  EXPECT_THAT(thirdsOf(looksWith({1, 1, 1, 1, 1, 1, 1, 9})), IsEmpty());
  EXPECT_FALSE(thirdsOf(looksWith({1, 1, 1, 1, 1, 1, 1, 1, 9})).empty());
}

#if defined(__SANITIZE_THREAD__)
constexpr std::size_t ownThreads = 2;
#else
constexpr std::size_t ownThreads = 1;
#endif

// The numbers of threads, descriptors and children are this process's alone.
CUL_CHILD(LookAtOwnUsage) {
  // A first thread brings along one of the sanitizer's. One that has been joined may be listed a
  // moment longer.
  std::thread([] {}).join();
  EXPECT_TRUE(waitUntil([] { return usageNow().threads == ownThreads; }));
  const Usage before = usageNow();
  const Belongings belongingsBefore = belongingsNow();
  EXPECT_EQ(leftovers(belongingsBefore, belongingsNow()), "");
  EXPECT_GT(before.resident, 500U);
  EXPECT_EQ(before.children, 0U);
  {
    const Descriptor file(open("/dev/null", O_RDONLY | O_CLOEXEC));
    std::atomic<bool> ends = false;
    std::thread thread([&ends] {
      pthread_setname_np(pthread_self(), "left");
      while (!ends) {
        std::this_thread::yield();
      }
    });
    const pid_t child = fork();
    if (child == 0) {
      _exit(0);
    }
    EXPECT_TRUE(waitUntil([] { return usageNow().zombies == 1; }));
    const Usage usage = usageNow();
    EXPECT_EQ(usage.descriptors, before.descriptors + 1);
    EXPECT_EQ(usage.threads, before.threads + 1);
    EXPECT_EQ(usage.children, 1U);
    EXPECT_TRUE(waitUntil([&] {
      const std::string left = leftovers(belongingsBefore, belongingsNow());
      return left.find(": left\n") != std::string::npos;
    }));
    const std::string left = leftovers(belongingsBefore, belongingsNow());
    EXPECT_THAT(left, HasSubstr("descriptor " + std::to_string(file.get()) + ": /dev/null\n"));
    EXPECT_THAT(left, HasSubstr("thread "));
    EXPECT_THAT(left, HasSubstr("child " + std::to_string(child) + ": "));
    EXPECT_THAT(left, HasSubstr(", a zombie\n"));
    ends = true;
    thread.join();
    EXPECT_EQ(waitpid(child, nullptr, 0), child);
  }
  EXPECT_TRUE(waitUntil([&] { return leftovers(belongingsBefore, belongingsNow()).empty(); }));
  EXPECT_EQ(usageNow().descriptors, before.descriptors);
}

TEST(ProcessUsage, TellsWhatIsLeftBehind) {
  const ChildResult r = runChild("LookAtOwnUsage");
  EXPECT_EQ(r.status, 0) << r.out << r.err;
}

TEST(ProcessUsage, CountsTheMemoryThatIsInUse) {
  constexpr std::size_t megabytes = 64;
  const unsigned long before = usageNow().resident;
  const std::vector<char> much(megabytes * 1024 * 1024, 'x');
  EXPECT_GE(usageNow().resident, before + (megabytes - 1) * 1024);
}

}  // namespace
