#include "Engine/internal/WayOut.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <dlfcn.h>
#include <gnu/libc-version.h>
#include <link.h>
#include <pthread.h>
#include <string_view>
#include <unwind.h>

#include "Engine/internal/DivertedReturn.h"
#include "Engine/internal/ExceptionTable.h"
#include "Engine/internal/HoldRequests.h"
#include "Engine/internal/ProcessWide.h"

namespace {

// What a function does that matters here.
enum class Deed : unsigned char {
  nothing,
  mayThrow,         // callers count on it: what they have half done is undone
  allocates,        // as malloc() does
  allocatesObject,  // as operator new does, which may throw
  allocatesArray,   // the same with brackets
  givesMemory,      // whoever ends when it returns may still take the memory for his
  takesLock,        // whoever ends when it returns has a lock that nobody gives back
  takesOwnLock,     // the same, of this library
  givesLock,
  remembers,      // its return address, to return once more
  throws,         // unwinds the stack itself
  looksForCatch,  // called by these before they do
  endsThread      // unwinds the stack for good
};

struct KnownFunction {
  Deed deed;
  const char* name;
};

constexpr KnownFunction knownFunctions[] = {
    {Deed::takesLock, "pthread_mutex_lock"},
    {Deed::takesLock, "pthread_mutex_trylock"},
    {Deed::takesLock, "pthread_mutex_timedlock"},
    {Deed::takesLock, "pthread_mutex_clocklock"},
    {Deed::givesLock, "pthread_mutex_unlock"},
    {Deed::takesLock, "pthread_rwlock_rdlock"},
    {Deed::takesLock, "pthread_rwlock_tryrdlock"},
    {Deed::takesLock, "pthread_rwlock_timedrdlock"},
    {Deed::takesLock, "pthread_rwlock_clockrdlock"},
    {Deed::takesLock, "pthread_rwlock_wrlock"},
    {Deed::takesLock, "pthread_rwlock_trywrlock"},
    {Deed::takesLock, "pthread_rwlock_timedwrlock"},
    {Deed::takesLock, "pthread_rwlock_clockwrlock"},
    {Deed::givesLock, "pthread_rwlock_unlock"},
    {Deed::takesLock, "pthread_spin_lock"},
    {Deed::takesLock, "pthread_spin_trylock"},
    {Deed::givesLock, "pthread_spin_unlock"},
    {Deed::takesLock, "sem_wait"},
    {Deed::takesLock, "sem_trywait"},
    {Deed::takesLock, "sem_timedwait"},
    {Deed::takesLock, "sem_clockwait"},
    {Deed::givesLock, "sem_post"},
    {Deed::takesLock, "mtx_lock"},
    {Deed::takesLock, "mtx_trylock"},
    {Deed::takesLock, "mtx_timedlock"},
    {Deed::givesLock, "mtx_unlock"},
    {Deed::takesLock, "flock"},
    {Deed::takesLock, "lockf"},
    {Deed::takesLock, "semop"},
    {Deed::takesLock, "semtimedop"},
    {Deed::takesLock, "flockfile"},
    {Deed::takesLock, "ftrylockfile"},
    {Deed::givesLock, "funlockfile"},
    {Deed::takesLock, "__cxa_guard_acquire"},
    {Deed::givesLock, "__cxa_guard_release"},
    {Deed::givesLock, "__cxa_guard_abort"},
    {Deed::remembers, "setjmp"},
    {Deed::remembers, "_setjmp"},
    {Deed::remembers, "__sigsetjmp"},
    {Deed::remembers, "getcontext"},
    {Deed::remembers, "swapcontext"},
    {Deed::remembers, "vfork"},
    {Deed::throws, "_Unwind_RaiseException"},
    {Deed::throws, "_Unwind_Resume"},
    {Deed::throws, "_Unwind_Resume_or_Rethrow"},
    {Deed::endsThread, "_Unwind_ForcedUnwind"},
    {Deed::looksForCatch, "_Unwind_Find_FDE"},
    {Deed::allocates, "malloc"},
    {Deed::allocates, "calloc"},
    {Deed::allocatesObject, "_Znwm"},
    {Deed::allocatesArray, "_Znam"},
    {Deed::givesMemory, "realloc"},
    {Deed::givesMemory, "free"},
    {Deed::givesMemory, "_ZdlPv"},
    {Deed::givesMemory, "_ZdlPvm"},
    {Deed::givesMemory, "_ZdaPv"},
    {Deed::givesMemory, "_ZdaPvm"},
    {Deed::givesMemory, "_ZdlPvSt11align_val_t"},
    {Deed::givesMemory, "_ZdlPvmSt11align_val_t"},
    {Deed::givesMemory, "_ZdaPvSt11align_val_t"},
    {Deed::givesMemory, "_ZdaPvmSt11align_val_t"},
    // What the C library does not declare to throw nothing, and operator new.
    {Deed::mayThrow, "_ZnwmSt11align_val_t"},
    {Deed::mayThrow, "_ZnamSt11align_val_t"},
    {Deed::mayThrow, "fopen"},
    {Deed::mayThrow, "fclose"},
    {Deed::mayThrow, "fflush"},
    {Deed::mayThrow, "fread"},
    {Deed::mayThrow, "fwrite"},
    {Deed::mayThrow, "fgets"},
    {Deed::mayThrow, "fgetc"},
    {Deed::mayThrow, "getc"},
    {Deed::mayThrow, "getline"},
    {Deed::mayThrow, "fputs"},
    {Deed::mayThrow, "fputc"},
    {Deed::mayThrow, "putc"},
    {Deed::mayThrow, "puts"},
    {Deed::mayThrow, "printf"},
    {Deed::mayThrow, "fprintf"},
    {Deed::mayThrow, "vprintf"},
    {Deed::mayThrow, "vfprintf"},
    {Deed::mayThrow, "open"},
    {Deed::mayThrow, "open64"},
    {Deed::mayThrow, "openat"},
    {Deed::mayThrow, "close"},
    {Deed::mayThrow, "read"},
    {Deed::mayThrow, "pread"},
    {Deed::mayThrow, "write"},
    {Deed::mayThrow, "pwrite"},
    {Deed::mayThrow, "fsync"},
    {Deed::mayThrow, "poll"},
    {Deed::mayThrow, "select"},
    {Deed::mayThrow, "usleep"},
    {Deed::mayThrow, "nanosleep"},
    {Deed::mayThrow, "waitpid"},
};

// This library's own. The declarations serve for the addresses only.
extern "C" {
// NOLINTBEGIN(bugprone-macro-parentheses): a name that is declared stands without them.
#define CUL_OWN_FUNCTION(id, name) \
  extern const unsigned char id[] __asm__(name) __attribute__((visibility("default")));
// NOLINTEND(bugprone-macro-parentheses)
CUL_OWN_FUNCTION(sectionRequest, "_ZN21UNIX_Critical_Section7requestEPKcj")
CUL_OWN_FUNCTION(mutexRequest, "_ZN10UNIX_Mutex7requestEPKcj")
CUL_OWN_FUNCTION(readRequest, "_ZN6RWlock11requestReadEv")
CUL_OWN_FUNCTION(writeRequest, "_ZN6RWlock12requestWriteEv")
CUL_OWN_FUNCTION(armRecovery, "_ZN9StdThread7_setjmpEv")
CUL_OWN_FUNCTION(poolFree, "_ZN17StringPoolManager10freeBufferEPvj")
CUL_OWN_FUNCTION(traceTagged, "_Z11taggedTracePKcjS0_S0_z")
CUL_OWN_FUNCTION(listAppend, "_ZN18ListImplementation11appendItemsEPPvPKvj")
CUL_OWN_FUNCTION(listInsert, "_ZN18ListImplementation9insert_atEjPPvPKv")
CUL_OWN_FUNCTION(listExtend, "_ZN18ListImplementation6extendEjPPv")
CUL_OWN_FUNCTION(listRemove, "_ZN18ListImplementation6removeEjPKv")
CUL_OWN_FUNCTION(convert, "_Z10iconvDebugPvPKcmPcm")
#undef CUL_OWN_FUNCTION
}

struct OwnFunction {
  Deed deed;
  const unsigned char* start;
};

constexpr OwnFunction ownFunctions[] = {
    {Deed::takesOwnLock, sectionRequest}, {Deed::takesOwnLock, mutexRequest},
    {Deed::takesOwnLock, readRequest},    {Deed::takesOwnLock, writeRequest},
    {Deed::remembers, armRecovery},       {Deed::givesMemory, poolFree},
    {Deed::mayThrow, traceTagged},        {Deed::mayThrow, listAppend},
    {Deed::mayThrow, listInsert},         {Deed::mayThrow, listExtend},
    {Deed::mayThrow, listRemove},         {Deed::mayThrow, convert},
};

// Where they are. A sanitizer stands in for many of them: a program calls its functions, which
// call those of the runtime.
struct Place {
  std::uintptr_t seen = 0;
  std::uintptr_t underneath = 0;
  std::array<std::uintptr_t, 4> further = {};  // of a lock: where the C library's jumps to
};

// What has been found out about the runtime that is there.
struct Learned {
  Learned();

  std::array<Place, std::size(knownFunctions)> places;
  std::uintptr_t mutexLock;  // the C library's own
  bool tellsWaitsApart;
};
constinit ProcessWide<const Learned> learned;

std::uintptr_t addressOf(void* handle, const char* name) noexcept {
  return reinterpret_cast<std::uintptr_t>(dlsym(handle, name));
}

// The functions that throw are found as the library's own calls find them, whatever the
// program has loaded besides.
std::uintptr_t ownThrower(std::string_view name) noexcept {
  constexpr auto address = [](auto* function) {
    return reinterpret_cast<std::uintptr_t>(function);
  };
  return name == "_Unwind_RaiseException"      ? address(&_Unwind_RaiseException)
         : name == "_Unwind_Resume"            ? address(&_Unwind_Resume)
         : name == "_Unwind_Resume_or_Rethrow" ? address(&_Unwind_Resume_or_Rethrow)
                                               : address(&_Unwind_ForcedUnwind);
}

// Where the function starts that an instruction belongs to; 0: that is not known.
std::uintptr_t startAround(std::uintptr_t instruction) noexcept {
  // NOLINTNEXTLINE(performance-no-int-to-ptr): the unwinder asks for a return address.
  void* const behind = reinterpret_cast<void*>(instruction + 1);
  return reinterpret_cast<std::uintptr_t>(_Unwind_FindEnclosingFunction(behind));
}

// Where a function ends, by halves.
std::uintptr_t endOf(std::uintptr_t function) noexcept {
  constexpr std::uintptr_t longest = 1 << 16;
  std::uintptr_t last = function;
  for (std::uintptr_t step = longest; step != 0; step /= 2) {
    if (startAround(last + step) == function) {
      last += step;
    }
  }
  return last + 1;
}

// Notes where a function goes on that calls another one last: it jumps there, and has no frame
// any more.
void learnJumps(std::uintptr_t function, Place& place) noexcept {
  if (function == 0) {
    return;
  }
  constexpr unsigned char jump = 0xe9;
  constexpr std::size_t jumpSize = 5;
  const std::uintptr_t end = endOf(function);
  std::size_t known = 0;
  for (std::uintptr_t at = function; at + jumpSize <= end && known < place.further.size(); ++at) {
    // NOLINTNEXTLINE(performance-no-int-to-ptr): code is read as bytes.
    const auto* const code = reinterpret_cast<const unsigned char*>(at);
    if (*code != jump) {
      continue;
    }
    std::int32_t distance = 0;
    std::memcpy(&distance, code + 1, sizeof distance);
    const std::uintptr_t target = at + jumpSize + static_cast<std::uintptr_t>(distance);
    // What only looks like a jump, in the middle of an instruction, leads to no function's start.
    if ((target < function || target >= end) && startAround(target) == target) {
      place.further[known++] = target;
    }
  }
}

Learned::Learned()
    : mutexLock(addressOf(RTLD_NEXT, "pthread_mutex_lock")),
      tellsWaitsApart(strverscmp(gnu_get_libc_version(), "2.41") < 0) {
  for (std::size_t i = 0; i < places.size(); ++i) {
    const KnownFunction& function = knownFunctions[i];
    const bool throws = function.deed == Deed::throws || function.deed == Deed::endsThread;
    Place& place = places[i];
    place.seen = throws ? ownThrower(function.name) : addressOf(RTLD_DEFAULT, function.name);
    place.underneath = addressOf(RTLD_NEXT, function.name);
    if (function.deed == Deed::takesLock || function.deed == Deed::givesLock) {
      learnJumps(place.underneath, place);
    }
  }
}

// What the function that starts at an address does.
Deed deedOf(std::uintptr_t function) noexcept {
  for (const OwnFunction& own : ownFunctions) {
    if (function == reinterpret_cast<std::uintptr_t>(own.start)) {
      return own.deed;
    }
  }
  const Learned* const known = learned.present();
  for (std::size_t i = 0; known != nullptr && i < known->places.size(); ++i) {
    const Place& place = known->places[i];
    if (function != 0 &&
        (function == place.seen || function == place.underneath ||
         std::find(place.further.begin(), place.further.end(), function) != place.further.end())) {
      return knownFunctions[i].deed;
    }
  }
  return Deed::nothing;
}

// Whose code an instruction is.
enum class Code {
  none,        // nobody's: perhaps a call through a wild pointer
  program,     // everybody else's
  own,         // this library's: its objects may be half changed
  cxxRuntime,  // made to be unwound
  cRuntime,    // full of locks that no exception table knows
  loader       // may stand for any function that it is about to bind
};

struct Runtime {
  std::string_view name;
  Code code;
};

constexpr Runtime runtimes[] = {
    {"libc.so", Code::cRuntime},        {"libpthread.so", Code::cRuntime},
    {"linux-vdso", Code::cRuntime},     {"ld-linux", Code::loader},
    {"libstdc++.so", Code::cxxRuntime}, {"libgcc_s.so", Code::cxxRuntime},
    {"libasan.so", Code::cxxRuntime},   {"libtsan.so", Code::cxxRuntime},
    {"libubsan.so", Code::cxxRuntime}};

const link_map* moduleOf(const void* instruction) noexcept {
  dl_find_object object;
  return _dl_find_object(const_cast<void*>(instruction), &object) == 0 ? object.dlfo_link_map
                                                                       : nullptr;
}

Code codeOf(const void* instruction) noexcept {
  static const char here = 0;
  const link_map* const module = moduleOf(instruction);
  if (module == nullptr) {
    return Code::none;
  }
  if (module == moduleOf(&here)) {
    return Code::own;
  }
  std::string_view name = module->l_name != nullptr ? module->l_name : "";
  name.remove_prefix(name.rfind('/') + 1);
  for (const Runtime& runtime : runtimes) {
    if (name.starts_with(runtime.name)) {
      return runtime.code;
    }
  }
  return Code::program;
}

// Whether a signal arriving at `instruction` has cut a wait in the kernel short: the system
// call is about to be repeated, or has failed for the signal.
bool isCutShort(const unsigned char* instruction, std::intptr_t rax) noexcept {
  constexpr unsigned char systemCall[] = {0x0f, 0x05};
  return std::memcmp(instruction, systemCall, sizeof systemCall) == 0 ||
         (rax == -EINTR &&
          std::memcmp(instruction - sizeof systemCall, systemCall, sizeof systemCall) == 0);
}

// Whether the thread is inside a cancellation point of the C library, which can be left by
// unwinding; other waits, for a lock of its own say, would be left half counted. The library
// runs its cancellation points with asynchronous cancellation; from version 2.41 on it no longer
// does, and nothing tells the waits apart.
bool isCancellationPoint() noexcept {
  if (const Learned* const known = learned.present(); known != nullptr && !known->tellsWaitsApart) {
    return true;
  }
  int type = PTHREAD_CANCEL_DEFERRED;
  pthread_setcanceltype(PTHREAD_CANCEL_DEFERRED, &type);
  if (type != PTHREAD_CANCEL_ASYNCHRONOUS) {
    return false;
  }
  pthread_setcanceltype(PTHREAD_CANCEL_ASYNCHRONOUS, nullptr);
  return true;
}

// One frame: a call, or the place of a signal.
struct Frame {
  // A frame behind a diversion looks interrupted, for the unwinder's sake, and is not.
  Frame(_Unwind_Context* context, bool isBehindDiversion) noexcept {
    int isAtInstruction = 0;
    next = _Unwind_GetIPInfo(context, &isAtInstruction);
    isInterrupted = isAtInstruction != 0 && !isBehindDiversion;
    // NOLINTBEGIN(performance-no-int-to-ptr): addresses come as integers from the unwinder.
    instruction = reinterpret_cast<const unsigned char*>(isAtInstruction != 0 ? next : next - 1);
    const auto* table =
        reinterpret_cast<const unsigned char*>(_Unwind_GetLanguageSpecificData(context));
    // NOLINTEND(performance-no-int-to-ptr)
    function = _Unwind_GetRegionStart(context);
    hasTable = table != nullptr;
    listed = hasTable ? lookUp(table, reinterpret_cast<std::uintptr_t>(instruction) - function)
                      : Listed::withoutCleanup;
    code = codeOf(instruction);
    stackPointer = _Unwind_GetCFA(context);  // the unwinder's word for that of the frame before
    constexpr int raxNumber = 0;
    rax = isInterrupted ? static_cast<std::intptr_t>(_Unwind_GetGR(context, raxNumber)) : 0;
  }

  [[nodiscard]] bool isListed() const noexcept { return hasTable && listed != Listed::no; }
  [[nodiscard]] bool isProgram() const noexcept {
    return code == Code::program || code == Code::none;
  }
  [[nodiscard]] bool isWait() const noexcept {
    return !isProgram() && isCutShort(instruction, rax) && isCancellationPoint();
  }

  std::uintptr_t next = 0;  // instruction after the call, or the interrupted one
  std::uintptr_t function = 0;
  std::uintptr_t stackPointer = 0;
  const unsigned char* instruction = nullptr;
  std::intptr_t rax = 0;
  Listed listed = Listed::no;
  Code code = Code::none;
  bool isInterrupted = false;
  bool hasTable = false;
};

// The way out, put together frame by frame from the innermost.
class Walk {
 public:
  explicit Walk(const void* entryFrame) noexcept
      : entryFrame_(reinterpret_cast<std::uintptr_t>(entryFrame)) {}

  // Takes the next frame.
  // \return whether there is more to see.
  bool take(const Frame& frame) noexcept {
    if (entryFrame_ != 0 && frame.stackPointer > entryFrame_) {
      isEntrySeen_ = isInside_;
      return false;
    }
    isInside_ = true;
    if (frame.code == Code::own && isDivertedReturn(frame.next)) {
      isBehindDiversion_ = sawDiversion_ = true;
      return true;
    }
    isBehindDiversion_ = false;
    if (frame.isInterrupted && !isInterrupted_) {
      // What came before the first signal are the frames of its handler, that is, ours.
      const std::uintptr_t entryFrame = entryFrame_;
      *this = Walk(nullptr);
      entryFrame_ = entryFrame;
      isInside_ = true;
      isInterrupted_ = true;
      takeInterrupted(frame);
    } else if (isInCall_) {
      takeInsideCall(frame);
    } else {
      takeOutside(frame);
    }
    calledFunction_ = frame.function;
    return !isAmidJump_;
  }

  [[nodiscard]] bool isBehindDiversion() const noexcept { return isBehindDiversion_; }

  [[nodiscard]] bool canEndInCall() const noexcept {
    return isSound_ && isCallSound_ && (entryFrame_ == 0 || isEntrySeen_);
  }

  [[nodiscard]] WayOut result() const noexcept {
    WayOut way;
    way.anchor = anchor_;
    way.sawAll = !isAmidJump_ && (entryFrame_ == 0 || isEntrySeen_);
    way.sawDiversion = sawDiversion_;
    way.usesRuntimeLocks = callDeed_ == Deed::takesLock || callDeed_ == Deed::givesLock;
    way.unlocks = callDeed_ == Deed::givesLock;
    if (!isSound_ || (entryFrame_ != 0 && !isEntrySeen_)) {
      return way;
    }
    if (isComputing_) {
      way.kind = WayOut::Kind::here;
    } else if (isCallSound_ && (isWait_ || isLookingForCatch_)) {
      way.kind = WayOut::Kind::here;
      way.isCertain = true;
    } else if (isInCall_ || learned.present() == nullptr || callDeed_ == Deed::takesLock ||
               callDeed_ == Deed::takesOwnLock || callDeed_ == Deed::givesMemory ||
               callDeed_ == Deed::remembers || callDeed_ == Deed::throws) {
      return way;
    } else if (returnAddress_ != nullptr && !isCutShort_) {
      // A call that waits in the kernel may wait for a lock, whatever its name.
      way.kind = WayOut::Kind::atReturn;
      // Another function of the library may hand an object over, which would be lost; it ends by
      // itself where it asks for memory (endIfAsked()).
      way.isCertain = mayThrow_ && (callCode_ != Code::own || callDeed_ == Deed::mayThrow);
      way.returnAddress = returnAddress_;
      way.result = callDeed_ == Deed::allocates         ? WayOut::Result::memory
                   : callDeed_ == Deed::allocatesObject ? WayOut::Result::object
                   : callDeed_ == Deed::allocatesArray  ? WayOut::Result::array
                                                        : WayOut::Result::unknown;
    }
    return way;
  }

 private:
  void takeInterrupted(const Frame& frame) noexcept {
    if (frame.isProgram()) {
      // A clean-up expects the registers as they are in a call, so there must be none.
      isInCall_ = false;
      isComputing_ = true;
      isSound_ = frame.code == Code::program && frame.listed == Listed::withoutCleanup;
      noteAnchor(frame);
      return;
    }
    isWait_ = frame.isWait();
    isCutShort_ = isCutShort(frame.instruction, frame.rax);
    isCallSound_ = frame.listed == Listed::withoutCleanup || frame.code == Code::cRuntime;
    note(frame);
  }

  // Frames of the library and the runtime that the program's innermost call has led to.
  void takeInsideCall(const Frame& frame) noexcept {
    // A mutex that the library or the program waits for; the C library's own are left alone.
    const Learned* const known = learned.present();
    const bool waitsForMutex = isCutShort_ && known != nullptr &&
                               calledFunction_ == known->mutexLock &&
                               (frame.isProgram() || frame.code == Code::own);
    isWait_ = isWait_ || waitsForMutex;
    if (frame.isProgram()) {
      isInCall_ = false;
      // NOLINTNEXTLINE(performance-no-int-to-ptr): registers are numbers.
      auto* const place = reinterpret_cast<std::uintptr_t*>(frame.stackPointer) - 1;
      if (callCode_ != Code::loader && *place == frame.next) {
        returnAddress_ = place;
      }
      takeOutside(frame);
      return;
    }
    // Functions of the C runtime clean nothing up where they list nothing.
    if (frame.listed == Listed::no && frame.code != Code::cRuntime) {
      isCallSound_ = false;
      mayThrow_ = false;
    }
    note(frame);
  }

  // The calls that led to it.
  void takeOutside(const Frame& frame) noexcept {
    if (frame.isInterrupted) {
      isSound_ = isSound_ && frame.isWait();  // another handler, of the program's
    } else if (frame.code == Code::cRuntime || frame.code == Code::loader) {
      // Where the C library calls the program, say from dlopen() or exit(), it may have a lock.
      isBehindRuntime_ = isBehindRuntime_ || !frame.isListed();
      isAnchorInRuntime_ = isBehindRuntime_ && entryFrame_ != 0;
    } else {
      isSound_ = isSound_ && frame.listed != Listed::no && !(isBehindRuntime_ && entryFrame_ != 0);
      noteAnchor(frame);
    }
  }

  void note(const Frame& frame) noexcept {
    const Deed inner = callDeed_;
    callDeed_ = deedOf(frame.function);
    callCode_ = frame.code;
    mayThrow_ = mayThrow_ || callDeed_ == Deed::mayThrow || callDeed_ == Deed::allocatesObject ||
                callDeed_ == Deed::allocatesArray;
    seesSearch_ = seesSearch_ || inner == Deed::looksForCatch;
    isLookingForCatch_ = isLookingForCatch_ || (callDeed_ == Deed::throws && seesSearch_);
    // A function that unwinds the stack gets ready for the jump in its own frame: what lies
    // behind it can be looked at only while it still searches.
    isAmidJump_ = callDeed_ == Deed::endsThread || (callDeed_ == Deed::throws && !seesSearch_);
    isSound_ = isSound_ && !isAmidJump_;
  }

  // What the C library calls, in qsort() say, belongs to the call that has led there, and cannot
  // be left.
  void noteAnchor(const Frame& frame) noexcept {
    if ((anchor_ == 0 || isAnchorInRuntime_) && frame.listed == Listed::withCleanup) {
      anchor_ = frame.next ^ frame.stackPointer << 16;
      isAnchorInRuntime_ = false;
    }
  }

  std::uintptr_t entryFrame_;
  std::uintptr_t calledFunction_ = 0;
  std::uintptr_t* returnAddress_ = nullptr;
  std::uintptr_t anchor_ = 0;
  Deed callDeed_ = Deed::nothing;  // of the function that the program has called
  Code callCode_ = Code::none;
  bool isInside_ = false;  // on the stack of the entry function, not on one above it
  bool isEntrySeen_ = false;
  bool isInterrupted_ = false;
  bool isInCall_ = true;      // no frame of the program so far
  bool isComputing_ = false;  // the signal came between two calls of the program
  bool isWait_ = false;
  bool isCutShort_ = false;
  bool seesSearch_ = false;
  bool isLookingForCatch_ = false;
  bool mayThrow_ = false;    // a function inside of the call does, and nothing outside of it minds
  bool isCallSound_ = true;  // the frames inside of the call
  bool isSound_ = true;      // the frames from the call outward
  bool isBehindRuntime_ = false;
  bool isAnchorInRuntime_ = false;  // a function of the C library has called the anchor's
  bool isAmidJump_ = false;
  bool sawDiversion_ = false;
  bool isBehindDiversion_ = false;
};

_Unwind_Reason_Code visit(_Unwind_Context* context, void* walk) noexcept {
  Walk& own = *static_cast<Walk*>(walk);
  return own.take(Frame(context, own.isBehindDiversion())) ? _URC_NO_REASON : _URC_NORMAL_STOP;
}

}  // namespace

void learnRuntime() {
  const HoldRequests hold;
  static_cast<void>(learned.get([] { return new Learned; }));
}

bool canLookFrom(const void* instruction) noexcept { return moduleOf(instruction) != nullptr; }

WayOut findWayOut(const void* entryFrame) {
  Walk walk(entryFrame);
  _Unwind_Backtrace(visit, &walk);
  return walk.result();
}

bool canLeaveCall(const void* entryFrame) {
  Walk walk(entryFrame);
  _Unwind_Backtrace(visit, &walk);
  return walk.canEndInCall();
}
