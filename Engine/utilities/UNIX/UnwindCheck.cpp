#include "Engine/utilities/UNIX/UnwindCheck.h"

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <dlfcn.h>
#include <link.h>
#include <pthread.h>
#include <string_view>
#include <unwind.h>

namespace {

// Encodings of numbers in exception tables.
enum : unsigned char { asPointer = 0, asUleb128 = 1, asUdata2 = 2, asUdata4 = 3, asUdata8 = 4 };
constexpr unsigned char formatMask = 0x07;  // signed formats have the sizes of the unsigned
constexpr unsigned char aligned = 0x50;     // padded before: not written by any compiler
constexpr unsigned char omitted = 0xff;

// Reads no further than to `end`; what cannot be read is 0 and spoils the reader.
class TableReader {
 public:
  TableReader(const unsigned char* at, const unsigned char* end) : at_(at), end_(end) {}

  [[nodiscard]] bool isSound() const { return isSound_; }
  [[nodiscard]] std::size_t left() const { return static_cast<std::size_t>(end_ - at_); }
  [[nodiscard]] unsigned char byte() { return fixed<unsigned char>(); }

  std::uintptr_t uleb128() {
    std::uintptr_t value = 0;
    unsigned shift = 0;
    unsigned char part = 0;
    do {
      part = byte();
      value |= shift < 64 ? static_cast<std::uintptr_t>(part & 0x7f) << shift : 0;
      shift += 7;
    } while ((part & 0x80) != 0);
    return value;
  }

  std::uintptr_t number(unsigned char encoding) {
    if (encoding == aligned) {
      isSound_ = false;
      return 0;
    }
    switch (encoding & formatMask) {
      case asUleb128:
        return uleb128();
      case asUdata2:
        return fixed<std::uint16_t>();
      case asUdata4:
        return fixed<std::uint32_t>();
      case asPointer:
      case asUdata8:
        return fixed<std::uint64_t>();
      default:
        isSound_ = false;
        return 0;
    }
  }

 private:
  template <typename T>
  T fixed() {
    T value = 0;
    if (left() < sizeof value) {
      isSound_ = false;
      at_ = end_;
      return value;
    }
    std::memcpy(&value, at_, sizeof value);
    at_ += sizeof value;
    return value;
  }

  const unsigned char* at_;
  const unsigned char* end_;
  bool isSound_ = true;
};

enum class Listed { no, withoutCleanup, withCleanup };

// What the exception table of a function says of the instruction at `offset`. A table that
// does not read like one lists nothing.
Listed look(const unsigned char* table, const unsigned char* end, std::uintptr_t offset) {
  TableReader reader(table, end);
  if (const unsigned char encoding = reader.byte(); encoding != omitted) {
    reader.number(encoding);  // base of landing pads
  }
  if (reader.byte() != omitted) {
    reader.uleb128();  // offset of the type table
  }
  const unsigned char encoding = reader.byte();
  const std::uintptr_t length = reader.uleb128();
  if (!reader.isSound() || length > reader.left()) {
    return Listed::no;
  }
  const std::size_t behind = reader.left() - length;
  while (reader.left() > behind) {
    const std::uintptr_t start = reader.number(encoding);
    const std::uintptr_t size = reader.number(encoding);
    const std::uintptr_t landingPad = reader.number(encoding);
    reader.uleb128();  // action
    if (!reader.isSound()) {
      return Listed::no;
    }
    if (offset - start < size) {
      return landingPad == 0 ? Listed::withoutCleanup : Listed::withCleanup;
    }
  }
  return Listed::no;
}

const link_map* moduleOf(const void* instruction) {
  dl_find_object object;
  return _dl_find_object(const_cast<void*>(instruction), &object) == 0 ? object.dlfo_link_map
                                                                       : nullptr;
}

// Finds the table's end, at the latest that of the file it belongs to.
Listed look(const unsigned char* table, std::uintptr_t offset) {
  dl_find_object object;
  if (_dl_find_object(const_cast<unsigned char*>(table), &object) != 0) {
    return Listed::no;
  }
  return look(table, static_cast<const unsigned char*>(object.dlfo_map_end), offset);
}

// The C library and what stands beside it: full of locks that no exception table knows.
bool isRuntime(const void* instruction) {
  static constexpr std::array<std::string_view, 9> names = {
      "libc.so",     "ld-linux",   "libpthread.so", "libstdc++.so", "linux-vdso",
      "libgcc_s.so", "libasan.so", "libtsan.so",    "libubsan.so"};
  const link_map* module = moduleOf(instruction);
  if (module == nullptr || module->l_name == nullptr) {
    return false;
  }
  std::string_view name = module->l_name;
  name.remove_prefix(name.rfind('/') + 1);
  for (const std::string_view runtime : names) {
    if (name.starts_with(runtime)) {
      return true;
    }
  }
  return false;
}

// This library: its objects may be half changed.
bool isOwn(const void* instruction) {
  static const char here = 0;
  return moduleOf(instruction) == moduleOf(&here);
}

// Whether the thread is inside a cancellation point of the C library, which can be left by
// unwinding; other waits, for a mutex say, would be left half counted. The library runs its
// cancellation points with asynchronous cancellation; from version 2.41 on it no longer does,
// and nothing tells the waits apart.
bool isCancellationPoint() {
#if __GLIBC_PREREQ(2, 41)
  return true;
#else
  int type = PTHREAD_CANCEL_DEFERRED;
  pthread_setcanceltype(PTHREAD_CANCEL_DEFERRED, &type);
  if (type != PTHREAD_CANCEL_ASYNCHRONOUS) {
    return false;
  }
  pthread_setcanceltype(PTHREAD_CANCEL_ASYNCHRONOUS, nullptr);
  return true;
#endif
}

// Whether a signal arriving at `instruction` has cut a wait in the kernel short: the system
// call is about to be repeated, or has failed for the signal.
bool isInterruptedWait(const unsigned char* instruction, std::intptr_t rax) {
  constexpr unsigned char systemCall[] = {0x0f, 0x05};
  return (std::memcmp(instruction, systemCall, sizeof systemCall) == 0 ||
          (rax == -EINTR &&
           std::memcmp(instruction - sizeof systemCall, systemCall, sizeof systemCall) == 0)) &&
         isCancellationPoint();
}

struct Walk {
  std::uintptr_t entryFrame;
  bool signalSeen = false;
  bool entrySeen = false;
  bool isSound = true;
};

// Functions of the runtime are C: where they list nothing, they clean nothing up.
bool canLeaveCall(const unsigned char* instruction, Listed listed) {
  return listed != Listed::no || isRuntime(instruction);
}

// A clean-up expects the registers as they are in a call, so there must be none.
bool canLeaveInterrupted(const unsigned char* instruction, Listed listed, std::intptr_t rax) {
  // There may be no code at all: a signal handler of the program may run because of a call
  // through a wild pointer.
  if (moduleOf(instruction) == nullptr) {
    return false;
  }
  if (isRuntime(instruction) || isOwn(instruction)) {
    return isInterruptedWait(instruction, rax);
  }
  return listed == Listed::withoutCleanup;
}

_Unwind_Reason_Code visit(_Unwind_Context* context, void* argument) {
  Walk& walk = *static_cast<Walk*>(argument);
  int isInterrupted = 0;
  const std::uintptr_t next = _Unwind_GetIPInfo(context, &isInterrupted);
  const std::uintptr_t address = isInterrupted != 0 ? next : next - 1;
  // NOLINTBEGIN(performance-no-int-to-ptr): addresses come as integers from the unwinder.
  const auto* instruction = reinterpret_cast<const unsigned char*>(address);
  const auto* table =
      reinterpret_cast<const unsigned char*>(_Unwind_GetLanguageSpecificData(context));
  // NOLINTEND(performance-no-int-to-ptr)
  const Listed listed = table == nullptr ? Listed::withoutCleanup
                                         : look(table, address - _Unwind_GetRegionStart(context));
  if (isInterrupted != 0) {
    constexpr int rax = 0;
    const bool canLeave = canLeaveInterrupted(
        instruction, listed, static_cast<std::intptr_t>(_Unwind_GetGR(context, rax)));
    // What came before the first signal are the frames of its handler, that is, ours.
    walk.isSound = canLeave && (walk.isSound || !walk.signalSeen);
    walk.signalSeen = true;
  } else {
    walk.isSound = walk.isSound && canLeaveCall(instruction, listed);
  }
  walk.entrySeen = walk.entrySeen || _Unwind_GetCFA(context) > walk.entryFrame;
  return _URC_NO_REASON;
}

}  // namespace

bool canUnwind(const void* entryFrame) {
  Walk walk{reinterpret_cast<std::uintptr_t>(entryFrame)};
  _Unwind_Backtrace(visit, &walk);
  return walk.isSound && (entryFrame == nullptr || walk.entrySeen);
}
