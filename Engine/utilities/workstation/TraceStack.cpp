#include "Engine/utilities/workstation/TraceStack.h"

#include <array>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <span>
#include <string_view>
#include <unwind.h>
#include <vector>

#include "Engine/internal/FixedLayout.h"
#include "Engine/internal/HoldRequests.h"
#include "Engine/internal/PlaceNumber.h"
#include "Engine/internal/ProcessWide.h"
#include "Engine/internal/Texts.h"
#include "Engine/utilities/SharedEntry.h"
#include "Engine/utilities/TraceFlags.h"
#include "Engine/utilities/TraceImplementation.h"

// The engine knows this layout: docs/contract.md.
CUL_FIXED_SIZE(TraceStack, 16);
CUL_FIXED_FIELD(TraceStack, whereis_, 0);
CUL_FIXED_FIELD(TraceStack, lookedUp_, 8);
CUL_FIXED_SIZE(TraceStack::FRAME, 16);
CUL_FIXED_FIELD(TraceStack::FRAME, address, 0);
CUL_FIXED_FIELD(TraceStack::FRAME, next, 8);

namespace {

constexpr const char* sourceFile = "Engine/utilities/workstation/TraceStack";
constexpr const char* title = "Stack Traceback:";
constexpr const char* invalidChain = "Invalid frame chaining pointer!";
// With a newline of its own, besides the one that ends each line: tools look for these texts.
constexpr const char* endOfChain = "--- End of call chain ---\n";

constexpr int addressDigits = 16;

// Answers of the look-up; 3 and 4 stand for the second and third text, others for nothing.
constexpr int allTexts = 0;
constexpr int secondTextOnly = 2;

bool isFound(int answer) { return answer == allTexts || (answer >= secondTextOnly && answer <= 4); }

constexpr std::size_t textSize = 512;

ByteString lastComponent(const char (&text)[textSize]) {
  std::string_view path(text, strnlen(text, textSize));
  path.remove_prefix(path.rfind('/') + 1);
  return {path.data(), static_cast<unsigned>(path.size())};
}

class TracePause {
 public:
  TracePause() noexcept { traceImplementation()->pause(true); }
  TracePause(const TracePause&) = delete;
  TracePause& operator=(const TracePause&) = delete;
  ~TracePause() { traceImplementation()->pause(false); }
};

// Collects where the calls return to that are under way, inner ones first.
class ReturnAddresses {
 public:
  // Fills `addresses` from `first` on, which is the return address of a call under way.
  // \return how many there are now.
  static std::size_t collect(const void* first, std::span<unsigned long> addresses) {
    ReturnAddresses found(first, addresses);
    _Unwind_Backtrace(visit, &found);
    return found.count_;
  }

 private:
  ReturnAddresses(const void* first, std::span<unsigned long> addresses)
      : first_(reinterpret_cast<unsigned long>(first)), addresses_(addresses) {}

  static _Unwind_Reason_Code visit(_Unwind_Context* context, void* object) {
    auto* found = static_cast<ReturnAddresses*>(object);
    const unsigned long address = _Unwind_GetIP(context);
    if (found->count_ == found->addresses_.size() || address == 0) {
      return _URC_END_OF_STACK;
    }
    if (found->count_ != 0 || address == found->first_) {
      found->addresses_[found->count_++] = address;
    }
    return _URC_NO_REASON;
  }

  unsigned long first_;
  std::span<unsigned long> addresses_;
  std::size_t count_ = 0;
};

constexpr std::size_t usualDepth = 128;
constexpr std::size_t maximumDepth = 8192;

}  // namespace

TraceStack& TraceStack::instance() {
  static constinit ProcessWide<TraceStack> traceStack;
  return traceStack.get([] { return new TraceStack; });
}

TraceStack::Whereis TraceStack::lookUp() {
  if (lookedUp_.load(std::memory_order_acquire) == 0) {
    whereis_ =
        reinterpret_cast<Whereis>(loadSharedEntry("libkdebug.a", "qvxdrdr1", "whereis", nullptr));
    lookedUp_.store(1, std::memory_order_release);
  }
  return whereis_;
}

bool TraceStack::goesToTrace() const noexcept {
  return lookedUp_.load(std::memory_order_acquire) != 0 && isTraced(TraceType::active);
}

ByteString TraceStack::sourceLoc(unsigned long address) {
  const HoldRequests hold;
  const Whereis whereis = lookUp();
  if (whereis == nullptr) {
    return {};
  }
  unsigned line = 0;
  // The entry need not terminate the texts.
  char first[textSize] = {};
  char second[textSize] = {};
  char third[textSize] = {};
  int answer;
  {
    const TracePause pause;
    answer = whereis(address, &line, first, textSize, second, textSize, third, textSize);
  }
  if (!isFound(answer)) {
    return {};
  }
  ByteString location = lastComponent(second);
  if (answer == secondTextOnly) {
    return location;
  }
  location += ByteString(":");
  location += lastComponent(third);
  if (answer == allTexts) {
    char lineText[16];
    std::snprintf(lineText, sizeof lineText, "(%u)", line);
    location += ByteString(":");
    location += lastComponent(first);
    location += ByteString(lineText);
  }
  return location;
}

void TraceStack::print(unsigned line, const char* text) const {
  if (goesToTrace()) {
    CUL_TRACE(TraceType::active, sourceFile, line, "%s", text);
  } else {
    std::fprintf(stderr, "%s\n", text);
  }
}

void TraceStack::printFrame(const FRAME& frame) {
  const ByteString location = sourceLoc(frame.address);
  char line[4 * textSize];
  if (location.length() != 0) {
    std::snprintf(line, sizeof line, "0x%*.*lx (%s)", addressDigits, addressDigits, frame.address,
                  location.view().data());
  } else {
    std::snprintf(line, sizeof line, "0x%*.*lx ", addressDigits, addressDigits, frame.address);
  }
  print(__LINE__, line);
}

void TraceStack::traceback(FRAME* frame) {
  if (goesToTrace()) {
    print(126_place, title);
  } else {
    std::fprintf(stderr, "\n%s\n", title);
  }
  while (frame != nullptr) {
    printFrame(*frame);
    FRAME* next = frame->next;
    if (next != nullptr && !std::less<>()(frame, next)) {
      if (goesToTrace()) {
        CUL_TRACE(TraceType::error, sourceFile, 137_place, "%s", invalidChain);
      } else {
        std::fprintf(stderr, "%s\n", invalidChain);
      }
      break;
    }
    frame = next;
  }
  print(161_place, endOfChain);
}

__attribute__((noinline)) void TraceStack::dumpStack() {
  const void* caller = __builtin_extract_return_addr(__builtin_return_address(0));
  std::vector<unsigned long> addresses(usualDepth);
  std::size_t depth = ReturnAddresses::collect(caller, addresses);
  while (depth == addresses.size() && depth < maximumDepth) {
    addresses.resize(2 * addresses.size());
    depth = ReturnAddresses::collect(caller, addresses);
  }
  std::vector<FRAME> chain(depth);
  for (std::size_t i = 0; i < depth; ++i) {
    chain[i] = {addresses[i], i + 1 < depth ? &chain[i + 1] : nullptr};
  }
  traceback(chain.data());
}

__attribute__((noinline)) unsigned long TraceStack::callerReturnAddress() {
  static const bool isNearer = [] {
    const char* value = std::getenv("QVX_DBG_FRAME_ADD_DISABLE");
    return value != nullptr && std::strtol(value, nullptr, 10) == 1;
  }();
  const void* own = __builtin_extract_return_addr(__builtin_return_address(0));
  if (isNearer) {
    return reinterpret_cast<unsigned long>(own);
  }
  std::array<unsigned long, 2> addresses = {};
  ReturnAddresses::collect(own, addresses);
  return addresses[1];
}
