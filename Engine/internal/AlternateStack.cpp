#include "Engine/internal/AlternateStack.h"

#include <sys/mman.h>

namespace {

constexpr std::size_t guardSize = 4096;
constexpr std::size_t mappedSize = guardSize + AlternateStack::size;

}  // namespace

AlternateStack::AlternateStack() noexcept
    : memory_(mmap(nullptr, mappedSize, PROT_READ | PROT_WRITE,
                   MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_STACK, -1, 0)) {
  if (memory_ == MAP_FAILED) {
    memory_ = nullptr;
    return;
  }
  mprotect(memory_, guardSize, PROT_NONE);
  stack_t own = {};
  own.ss_sp = static_cast<char*>(memory_) + guardSize;
  own.ss_size = size;
  stack_t former = {};
  const bool isSet = sigaltstack(&own, &former) == 0;
  const bool hasOne = isSet && (former.ss_flags & SS_DISABLE) == 0;
  if (hasOne) {
    sigaltstack(&former, nullptr);
  }
  if (!isSet || hasOne) {
    munmap(memory_, mappedSize);
    memory_ = nullptr;
  }
}

AlternateStack::~AlternateStack() {
  if (memory_ == nullptr) {
    return;
  }
  stack_t nothing = {};
  nothing.ss_flags = SS_DISABLE;
  stack_t present = {};
  if (sigaltstack(&nothing, &present) != 0) {
    return;  // the thread runs on it
  }
  if (present.ss_sp != static_cast<char*>(memory_) + guardSize) {
    sigaltstack(&present, nullptr);  // the program's
  }
  munmap(memory_, mappedSize);
}
