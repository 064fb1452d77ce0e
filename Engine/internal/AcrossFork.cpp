#include "Engine/internal/AcrossFork.h"

#include <iterator>
#include <pthread.h>

#include "Engine/internal/HoldRequests.h"

namespace {

// Which participants the calling thread, which is forking, has taken.
constinit thread_local unsigned int held __attribute__((tls_model("initial-exec"))) = 0;

}  // namespace

struct AcrossFork::Participant {
  bool (*hold)() noexcept;
  void (*release)() noexcept;
  void (*renew)() noexcept;
};

// In the order of the locks.
constexpr AcrossFork::Participant AcrossFork::participants[] = {
    {holdLoader, releaseLoader, nullptr},
    {holdEvents, releaseEvents, renewEvents},
    {holdStarts, releaseStarts, renewStarts},
    {holdStrings, releaseStrings, renewStrings},
    {holdTrace, releaseTrace, nullptr},
    {holdThreads, releaseThreads, renewThreads},
    {holdConversions, releaseConversions, nullptr},
    {holdLocalTime, releaseLocalTime, nullptr},
};

constinit std::atomic<unsigned int> AcrossFork::generation_ = 0;

// Registered before the program's own handlers, which therefore run outside of these.
struct AcrossFork::Handlers {
  __attribute__((constructor)) static void add() {
    pthread_atfork(prepare, resumeParent, resumeChild);
  }
};

void AcrossFork::prepare() noexcept {
  HoldRequests::enter();
  held = 0;
  for (unsigned int i = 0; i < std::size(participants); ++i) {
    if (participants[i].hold()) {
      held |= 1U << i;
    }
  }
}

void AcrossFork::resumeParent() noexcept {
  // What has come into being meanwhile was not taken.
  for (unsigned int i = std::size(participants); i > 0; --i) {
    if ((held & 1U << (i - 1)) != 0) {
      participants[i - 1].release();
    }
  }
  HoldRequests::leave();
}

void AcrossFork::resumeChild() noexcept {
  generation_.fetch_add(1, std::memory_order_acq_rel);
  for (unsigned int i = 0; i < std::size(participants); ++i) {
    if ((held & 1U << i) != 0 && participants[i].renew != nullptr) {
      participants[i].renew();
    }
  }
  resumeParent();
}
