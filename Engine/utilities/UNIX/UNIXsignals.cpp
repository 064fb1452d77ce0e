#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <execinfo.h>
#include <memory>
#include <ucontext.h>

#include "Engine/utilities/StdThread.h"
#include "Engine/utilities/TraceFlags.h"
#include "Engine/utilities/UNIX/HoldRequests.h"
#include "Engine/utilities/signals.h"

namespace {

constexpr const char* sourceFile = "Engine/utilities/UNIX/UNIXsignals";

constexpr int maximumCalls = 50;

struct sigaction actionOf(void (*handler)(int, siginfo_t*, void*)) {
  struct sigaction action = {};
  action.sa_sigaction = handler;
  action.sa_flags = static_cast<int>(SA_SIGINFO | SA_RESETHAND);
  sigemptyset(&action.sa_mask);
  return action;
}

struct sigaction defaultAction() {
  struct sigaction action = actionOf(nullptr);
  action.sa_handler = SIG_DFL;
  return action;
}

// Signals are blocked while a handler runs, and a jump out of it does not undo that.
void unblock(int signal, const void* context) {
  if (context != nullptr) {
    pthread_sigmask(SIG_SETMASK, &static_cast<const ucontext_t*>(context)->uc_sigmask, nullptr);
    return;
  }
  sigset_t one;
  sigemptyset(&one);
  sigaddset(&one, signal);
  pthread_sigmask(SIG_UNBLOCK, &one, nullptr);
}

}  // namespace

int registerHandlerForSignal(int signal) {
  struct sigaction current = {};
  const int result = sigaction(signal, nullptr, &current);
  if (result != 0 || (current.sa_handler != SIG_DFL && current.sa_handler != SIG_IGN)) {
    return result;
  }
  const struct sigaction handled = actionOf(CUL_SignalHandler);
  return sigaction(signal, &handled, nullptr);
}

void CUL_SignalHandler(int signal, siginfo_t* info, void* context) {
  const HoldRequests hold;
  const struct sigaction byDefault = defaultAction();
  sigaction(signal, &byDefault, nullptr);
  if (signal == SIGPIPE) {
    return;
  }
  if (isTraced(TraceType::active)) {
    CUL_TRACE(TraceType::error, sourceFile, 56, "Signal %d (%s) at location %p; code = %d.", signal,
              SignalOccurred(signal).signalName(), info->si_addr, info->si_code);
    dumpModulesAndChain(false);
  }
  StdThread* thread = StdThread::currentThread();
  if (thread != nullptr) {
    CUL_TRACE(TraceType::error, sourceFile, 71, "Attempting longjmp recovery");
    // Without a recovery a second signal must not disturb the end of the process.
    if (thread->isRecoveryArmed()) {
      unblock(signal, context);
    }
    thread->longjmp(signal, 0);
    CUL_TRACE(TraceType::error, sourceFile, 73, "No recovery possible");
  } else {
    CUL_TRACE(TraceType::error, sourceFile, 68, "Not on recoverable thread");
  }
  exit(99);
}

void dumpModulesAndChain(bool toStandardError) {
  if (!toStandardError && !isTraced(TraceType::error)) {
    return;
  }
  void* addresses[maximumCalls];
  const int count = backtrace(addresses, maximumCalls);
  const auto release = [](char** texts) { std::free(static_cast<void*>(texts)); };
  const std::unique_ptr<char*[], decltype(release)> texts(backtrace_symbols(addresses, count));
  const int textCount = texts == nullptr ? 0 : count;
  if (toStandardError) {
    std::fputs("---- Callback trace ----\n", stderr);
    for (int i = 0; i < textCount; ++i) {
      std::fprintf(stderr, "%s\n", texts[static_cast<std::size_t>(i)]);
    }
    std::fputs("---- End callback trace ----\n", stderr);
    return;
  }
  CUL_TRACE(TraceType::error, sourceFile, 122, "---- Callback trace ----");
  for (int i = 0; i < textCount; ++i) {
    CUL_TRACE(TraceType::error, sourceFile, 124, "%s", texts[static_cast<std::size_t>(i)]);
  }
  CUL_TRACE(TraceType::error, sourceFile, 125, "---- End callback trace ----");
}
