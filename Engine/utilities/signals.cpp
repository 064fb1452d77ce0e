#include "Engine/utilities/signals.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <new>

#include "Engine/internal/FixedLayout.h"
#include "Engine/internal/HoldRequests.h"
#include "Engine/internal/PlaceNumber.h"
#include "Engine/internal/ProcessEnd.h"
#include "Engine/utilities/TraceFlags.h"

// The engine knows this layout: docs/contract.md.
CUL_FIXED_SIZE(SignalOccurred, 4);
CUL_FIXED_FIELD(SignalOccurred, signal_, 0);

namespace {

constexpr const char* sourceFile = "Engine/utilities/signals";

struct NamedSignal {
  int number;
  const char* name;
};

// The first row with a number counts. That 5 is first called "SIGPIPE" is kept for tools that read
// traces.
constexpr NamedSignal namedSignals[] = {
    {11, "SIGSEGV"}, {4, "SIGILL"},   {8, "SIGFPE"},   {15, "SIGTERM"}, {6, "SIGABRT"},
    {2, "SIGINT"},   {10, "SIGUSR1"}, {12, "SIGUSR2"}, {5, "SIGPIPE"},  {5, "SIGTRAP"},
    {1, "SIGHUP"},   {7, "SIGBUS"},   {0, nullptr},
};

// Freed when memory is exhausted, so that the report of it can allocate.
constexpr std::size_t reserveSize = 65536;
constinit std::atomic<void*> reserve = nullptr;

__attribute__((constructor)) void prepareForFailures() {
  registerErrorHandlers();
  reserve = std::malloc(reserveSize);
  watchForExit();
}

// Told to ignore what it ignores already, the system goes through all threads to take away what
// they have pending.
void ignoreSignal(int number) {
  struct sigaction present = {};
  if (sigaction(number, nullptr, &present) != 0 || present.sa_handler != SIG_IGN) {
    signal(number, SIG_IGN);
  }
}

[[noreturn]] void failProcess() {
  dumpModulesAndChain(false);
  endProcess(1, HoldRequests::level() != 0);
}

}  // namespace

const char* SignalOccurred::signalName() const noexcept {
  for (const NamedSignal* row = namedSignals; row->number != 0; ++row) {
    if (row->number == signal_) {
      return row->name;
    }
  }
  return "Unknown Signal";
}

void registerErrorHandlers() {
  registerHandlerForSignal(SIGTRAP);
  registerHandlerForSignal(SIGHUP);
  registerHandlerForSignal(SIGTERM);
  ignoreSignal(SIGPIPE);
  ignoreSignal(SIGTTIN);
  registerHandlerForSignal(SIGABRT);
  registerHandlerForSignal(SIGFPE);
  registerHandlerForSignal(SIGILL);
  registerHandlerForSignal(SIGSEGV);
  std::set_terminate(CUL_terminate);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
  std::set_unexpected(CUL_unexpected);
#pragma GCC diagnostic pop
  std::set_new_handler(newHandler);
}

// In each of these: whoever has got here with a lock never returns to where it was taken, and
// others that have what the report asks for may wait for it.

void CUL_terminate() {
  abandonLocksBehindTrace();
  CUL_TRACE(TraceType::error, sourceFile, 77_place,
            "*** FATAL DEBUGGER ERROR: C++ terminate() called");
  failProcess();
}

void CUL_unexpected() {
  abandonLocksBehindTrace();
  CUL_TRACE(TraceType::error, sourceFile, 91_place,
            "*** FATAL DEBUGGER ERROR: C++ unexpected() called");
  failProcess();
}

void newHandler() {
  std::free(reserve.exchange(nullptr));
  abandonLocksBehindTrace();
  CUL_TRACE(TraceType::error, sourceFile, 111_place, "*** FATAL DEBUGGER ERROR: Out of memory");
  // puts() adds a newline of its own: two end the text, which is kept for those who read it.
  std::puts("*** FATAL DEBUGGER ERROR: Out of memory\n");
  // An ending that is cut short writes no streams out.
  std::fflush(stdout);
  failProcess();
}
