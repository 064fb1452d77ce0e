#include "Engine/utilities/signals.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <exception>
#include <new>
#include <string>
#include <string_view>
#include <sys/mman.h>
#include <sys/resource.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Engine/utilities/Reference.h"
#include "Engine/utilities/ReferenceCounted.h"
#include "Engine/utilities/StdThread.h"
#include "Engine/utilities/TraceFlags.h"

#include "tests/support/Child.h"
#include "tests/support/Famine.h"
#include "tests/support/StandIn.h"
#include "tests/support/WaitUntil.h"
#include "tests/threads/SignalSupport.h"
#include "tests/threads/ThreadSupport.h"

namespace {

constexpr int handledSignals[] = {SIGTRAP, SIGHUP, SIGTERM, SIGABRT, SIGFPE, SIGILL, SIGSEGV};

struct sigaction actionOf(int signal) {
  struct sigaction action = {};
  EXPECT_EQ(sigaction(signal, nullptr, &action), 0);
  return action;
}

void ownHandler(int) {}

// The standard has dropped these; the runtime has not.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
void (*unexpectedHandler())() { return std::get_unexpected(); }
void setUnexpectedHandler(void (*handler)()) { std::set_unexpected(handler); }
[[noreturn]] void beUnexpected() { std::unexpected(); }
#pragma GCC diagnostic pop

// An address that no memory is mapped at.
void* unmappedPage() {
  void* page = mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  EXPECT_NE(page, MAP_FAILED);
  return page;
}

void crash() { *static_cast<volatile int*>(unmappedPage()) = 1; }

TracedChild tracedChild(const std::string& name, std::vector<std::string> arguments = {}) {
  ChildOptions options = withoutSanitizerHandlers();
  options.arguments = std::move(arguments);
  return TracedChild(name, options);
}

ChildResult untracedChild(const std::string& name, std::vector<std::string> arguments = {}) {
  ChildOptions options = withoutSanitizerHandlers();
  options.arguments = std::move(arguments);
  return runChild(name, options);
}

constexpr const char* place = "**ERROR: Engine/utilities/UNIX/UNIXsignals";

void expectCallChain(const TracedChild& child) {
  EXPECT_EQ(child.count(std::string(place) + "(122): ---- Callback trace ----"), 1) << child.all();
  EXPECT_EQ(child.count(std::string(place) + "(125): ---- End callback trace ----"), 1)
      << child.all();
  // At least main and what called it, each with an address in brackets.
  EXPECT_GE(child.countContaining(std::string(place) + "(124): "), 3) << child.all();
  EXPECT_LE(child.countContaining(std::string(place) + "(124): "), 50) << child.all();
  EXPECT_GE(child.countContaining("threads_test"), 1) << child.all();
}

}  // namespace

CUL_STAND_IN(char**, backtrace_symbols, (void* const* addresses, int count), noexcept, addresses,
             count)

TEST(SignalOccurred, NamesTheSignalsOfItsTable) {
  const struct {
    int number;
    const char* name;
  } rows[] = {{11, "SIGSEGV"}, {4, "SIGILL"},   {8, "SIGFPE"},   {15, "SIGTERM"}, {6, "SIGABRT"},
              {2, "SIGINT"},   {10, "SIGUSR1"}, {12, "SIGUSR2"}, {1, "SIGHUP"},   {7, "SIGBUS"}};
  for (const auto& [number, name] : rows) {
    EXPECT_STREQ(SignalOccurred(number).signalName(), name);
    EXPECT_EQ(SignalOccurred(number).whichSignal(), number);
  }
}

TEST(SignalOccurred, CallsSignal5SigpipeAndDoesNotKnowSignal13) {
  EXPECT_STREQ(SignalOccurred(5).signalName(), "SIGPIPE");
  EXPECT_STREQ(SignalOccurred(13).signalName(), "Unknown Signal");
}

TEST(SignalOccurred, KnowsNoOtherSignals) {
  for (const int number : {-1, 0, 3, 9, 14, 64, 1000}) {
    EXPECT_STREQ(SignalOccurred(number).signalName(), "Unknown Signal");
    EXPECT_EQ(SignalOccurred(number).whichSignal(), number);
  }
  static_assert(sizeof(SignalOccurred) == sizeof(int));
}

CUL_CHILD(HandlersAfterLoading) {
  for (const int signal : handledSignals) {
    const struct sigaction action = actionOf(signal);
    EXPECT_EQ(action.sa_sigaction, &CUL_SignalHandler) << signal;
    EXPECT_NE(action.sa_flags & SA_SIGINFO, 0) << signal;
    EXPECT_NE(static_cast<unsigned>(action.sa_flags) & SA_RESETHAND, 0U) << signal;
    EXPECT_EQ(action.sa_flags & SA_NODEFER, 0) << signal;
    for (int other = 1; other < SIGRTMIN; ++other) {
      EXPECT_EQ(sigismember(&action.sa_mask, other), 0) << signal << " " << other;
    }
  }
  EXPECT_EQ(actionOf(SIGPIPE).sa_handler, SIG_IGN);
  EXPECT_EQ(actionOf(SIGTTIN).sa_handler, SIG_IGN);
  EXPECT_EQ(actionOf(SIGUSR2).sa_handler, SIG_DFL);
  EXPECT_EQ(std::get_terminate(), &CUL_terminate);
  EXPECT_EQ(unexpectedHandler(), &CUL_unexpected);
  EXPECT_EQ(std::get_new_handler(), &newHandler);
}

TEST(registerErrorHandlers, HasRunWhenTheLibraryIsLoaded) {
  const ChildResult child = untracedChild("HandlersAfterLoading");
  EXPECT_EQ(child.status, 0) << child.out << child.err;
}

CUL_CHILD(HandlersOfSeveralThreads) {
  constexpr int faults[] = {SIGTRAP, SIGABRT, SIGFPE, SIGILL, SIGSEGV};
  const auto expectFlags = [&faults](bool isReset) {
    for (const int number : handledSignals) {
      const bool isFault =
          std::find(std::begin(faults), std::end(faults), number) != std::end(faults);
      const struct sigaction action = actionOf(number);
      EXPECT_EQ(action.sa_sigaction, &CUL_SignalHandler) << number;
      EXPECT_EQ((action.sa_flags & SA_ONSTACK) != 0, isFault) << number;
      EXPECT_EQ((static_cast<unsigned>(action.sa_flags) & SA_RESETHAND) != 0, isReset || !isFault)
          << number;
      EXPECT_EQ(sigisemptyset(&action.sa_mask), 1) << number;
    }
  };
  expectFlags(true);
  runOnThread([&expectFlags] { expectFlags(false); });
  signal(SIGFPE, ownHandler);
  runOnThread([] { EXPECT_EQ(actionOf(SIGFPE).sa_handler, &ownHandler); });
}

TEST(registerErrorHandlers, LetsTheFaultsOfSeveralThreadsFindTheHandler) {
  const ChildResult child = untracedChild("HandlersOfSeveralThreads");
  EXPECT_EQ(child.status, 0) << child.out << child.err;
}

CUL_CHILD(PendingIgnoredSignals) {
  sigset_t both;
  sigemptyset(&both);
  sigaddset(&both, SIGPIPE);
  sigaddset(&both, SIGTTIN);
  pthread_sigmask(SIG_BLOCK, &both, nullptr);
  // Blocked, also an ignored signal waits.
  pthread_kill(pthread_self(), SIGPIPE);
  pthread_kill(pthread_self(), SIGTTIN);
  runOnThread([] {});
  sigset_t pending;
  sigpending(&pending);
  EXPECT_EQ(sigismember(&pending, SIGPIPE), 1);
  EXPECT_EQ(sigismember(&pending, SIGTTIN), 1);
}

TEST(registerErrorHandlers, LeavesAloneWhatIsIgnoredAndWhatOtherThreadsHavePendingOfIt) {
  const ChildResult child = untracedChild("PendingIgnoredSignals");
  EXPECT_EQ(child.status, 0) << child.out << child.err;
}

CUL_CHILD(HandlersOfAThread) {
  for (const int number : handledSignals) {
    signal(number, number == SIGHUP ? SIG_IGN : SIG_DFL);
  }
  signal(SIGTERM, ownHandler);
  signal(SIGPIPE, SIG_DFL);
  signal(SIGTTIN, SIG_DFL);
  std::set_terminate(nullptr);
  setUnexpectedHandler(nullptr);
  std::set_new_handler(nullptr);
  runOnThread([] {
    for (const int number : handledSignals) {
      if (number != SIGTERM) {
        EXPECT_EQ(actionOf(number).sa_sigaction, &CUL_SignalHandler) << number;
      }
    }
    EXPECT_EQ(actionOf(SIGTERM).sa_handler, &ownHandler);
    EXPECT_EQ(actionOf(SIGPIPE).sa_handler, SIG_IGN);
    EXPECT_EQ(actionOf(SIGTTIN).sa_handler, SIG_IGN);
    EXPECT_EQ(std::get_terminate(), &CUL_terminate);
    EXPECT_EQ(unexpectedHandler(), &CUL_unexpected);
    EXPECT_EQ(std::get_new_handler(), &newHandler);
  });
}

TEST(registerErrorHandlers, RunsOnEachThreadAndRespectsAHandlerThatIsThere) {
  const ChildResult child = untracedChild("HandlersOfAThread");
  EXPECT_EQ(child.status, 0) << child.out << child.err;
}

TEST(registerHandlerForSignal, GivesTheResultOfSigaction) {
  EXPECT_EQ(registerHandlerForSignal(SIGKILL), -1);
  EXPECT_EQ(registerHandlerForSignal(-1), -1);
  EXPECT_EQ(actionOf(SIGUSR1).sa_handler, SIG_DFL);
  EXPECT_EQ(registerHandlerForSignal(SIGUSR1), 0);
  EXPECT_EQ(actionOf(SIGUSR1).sa_sigaction, &CUL_SignalHandler);
  EXPECT_EQ(registerHandlerForSignal(SIGUSR1), 0);
}

CUL_CHILD(OwnHandlersAndActions) {
  struct sigaction own = {};
  own.sa_sigaction = [](int, siginfo_t*, void*) {};
  own.sa_flags = SA_SIGINFO | SA_RESTART;
  sigaddset(&own.sa_mask, SIGUSR1);
  for (const int number : handledSignals) {
    ASSERT_EQ(sigaction(number, &own, nullptr), 0);
  }
  // These two are ignored whatever was there.
  ASSERT_EQ(sigaction(SIGPIPE, &own, nullptr), 0);
  ASSERT_EQ(sigaction(SIGTTIN, &own, nullptr), 0);
  // A process started in the background may begin with interrupts ignored.
  signal(SIGINT, SIG_DFL);
  signal(SIGBUS, SIG_DFL);
  registerErrorHandlers();
  for (const int number : handledSignals) {
    const struct sigaction action = actionOf(number);
    EXPECT_EQ(action.sa_sigaction, own.sa_sigaction) << number;
    EXPECT_EQ(action.sa_flags & (SA_SIGINFO | SA_RESTART), SA_SIGINFO | SA_RESTART) << number;
    EXPECT_EQ(sigismember(&action.sa_mask, SIGUSR1), 1) << number;
  }
  EXPECT_EQ(actionOf(SIGPIPE).sa_handler, SIG_IGN);
  EXPECT_EQ(actionOf(SIGTTIN).sa_handler, SIG_IGN);
  EXPECT_EQ(actionOf(SIGBUS).sa_handler, SIG_DFL);
  EXPECT_EQ(actionOf(SIGINT).sa_handler, SIG_DFL);
}

TEST(registerErrorHandlers, LeavesHandlersAsTheyAreButIgnoresSigpipeAndSigttin) {
  const ChildResult child = untracedChild("OwnHandlersAndActions");
  EXPECT_EQ(child.status, 0) << child.out << child.err;
}

CUL_CHILD(OwnHandlerForSegv) {
  signal(SIGSEGV, [](int) { _exit(42); });
  registerErrorHandlers();
  crash();
}

TEST(registerErrorHandlers, APreviousHandlerForSegvIsTheOneThatRuns) {
  EXPECT_EQ(untracedChild("OwnHandlerForSegv").status, 42);
}

CUL_CHILD(Raise) {
  std::atexit([] { std::printf("exit handlers run"); });
  raise(std::stoi(childArguments()[0]));
  std::printf("raise returned");
}

TEST(CUL_SignalHandler, EndsTheProcessWithStatus99) {
  for (const int signal : handledSignals) {
    const ChildResult child = untracedChild("Raise", {std::to_string(signal)});
    EXPECT_EQ(child.status, 99) << signal;
    EXPECT_EQ(child.out, "exit handlers run") << signal;
    EXPECT_EQ(child.err, "") << signal;
  }
}

TEST(CUL_SignalHandler, TracesTheSignalAndTheCallChain) {
  const TracedChild child = tracedChild("Raise", {std::to_string(SIGTRAP)});
  EXPECT_EQ(child.result.status, 99) << child.all();
  EXPECT_EQ(child.countContaining(std::string(place) + "(56): Signal 5 (SIGPIPE) at location 0x"),
            1)
      << child.all();
  // SI_TKILL: sent by raise().
  EXPECT_EQ(child.countContaining("; code = -6."), 1) << child.all();
  expectCallChain(child);
  EXPECT_EQ(child.count(std::string(place) + "(71): Attempting longjmp recovery"), 1)
      << child.all();
  EXPECT_EQ(child.count(std::string(place) + "(73): No recovery possible"), 1) << child.all();
}

TEST(CUL_SignalHandler, TracesTheSignalFirstAndTheRecoveryLast) {
  const TracedChild child = tracedChild("Raise", {std::to_string(SIGTERM)});
  std::vector<std::string> numbers;
  for (const std::string& line : child.lines) {
    if (const size_t at = line.find(place); at != std::string::npos) {
      const std::string number = line.substr(at + std::strlen(place), 5);
      if (numbers.empty() || numbers.back() != number) {
        numbers.push_back(number);
      }
    }
  }
  EXPECT_THAT(numbers, testing::ElementsAre("(56):", "(122)", "(124)", "(125)", "(71):", "(73):"))
      << child.all();
}

CUL_CHILD(CrashOnAForeignThread) { std::thread(crash).join(); }

TEST(CUL_SignalHandler, TakesTheMainObjectForAThreadThatTheLibraryDidNotMake) {
  const TracedChild child = tracedChild("CrashOnAForeignThread");
  EXPECT_EQ(child.result.status, 99) << child.all();
  EXPECT_EQ(child.countContaining(std::string("(main    )") + place + "(71): Attempting"), 1)
      << child.all();
  EXPECT_EQ(child.count(std::string(place) + "(73): No recovery possible"), 1) << child.all();
}

// The sanitizers' allocators end the process without memory.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
CUL_CHILD(AbortWithoutMemory) {
  std::set_new_handler(nullptr);
  const Famine famine;
  std::abort();
}

TEST(CUL_SignalHandler, EndsTheProcessWithStatus99WithoutMemoryForTheThreadsObject) {
  const ChildResult child = untracedChild("AbortWithoutMemory");
  EXPECT_EQ(child.status, 99);
  EXPECT_EQ(child.err, "");
}
#endif

CUL_CHILD(SigpipeInTheHandler) {
  CUL_TRACE(TraceType::error, "test", 1, "there is a trace");
  siginfo_t info = {};
  CUL_SignalHandler(SIGPIPE, &info, nullptr);
}

TEST(CUL_SignalHandler, TracesNothingForSigpipe) {
  const TracedChild child = tracedChild("SigpipeInTheHandler");
  EXPECT_EQ(child.result.status, 0) << child.all();
  EXPECT_EQ(child.countContaining("**ERROR"), 1) << child.all();
  EXPECT_EQ(child.countContaining("there is a trace"), 1) << child.all();
}

CUL_CHILD(RecoverFromEachSignal) {
  const auto recover = [] {
    for (const int signal : handledSignals) {
      if (const int value = StdThread::currentThread()->_setjmp(); value == 0) {
        raise(signal);
        ADD_FAILURE() << "raise returned for " << signal;
      } else {
        EXPECT_EQ(value, signal);
      }
      for (const int other : handledSignals) {
        const struct sigaction action = actionOf(other);
        if (other == signal) {
          EXPECT_EQ(action.sa_handler, SIG_DFL);
        } else {
          EXPECT_EQ(action.sa_sigaction, &CUL_SignalHandler);
        }
      }
      registerErrorHandlers();
      EXPECT_EQ(actionOf(signal).sa_sigaction, &CUL_SignalHandler);
    }
  };
  recover();
  runOnThread(recover);
  std::printf("recovered");
}

TEST(CUL_SignalHandler, ResumesAtTheRecoveryPointWithTheNumberOfEachSignal) {
  const ChildResult child = untracedChild("RecoverFromEachSignal");
  EXPECT_EQ(child.status, 0) << child.out << child.err;
  EXPECT_EQ(child.out, "recovered");
}

CUL_CHILD(CrashTwiceOnAThread) {
  runOnThread([] {
    if (StdThread::currentThread()->_setjmp() == 0) {
      crash();
    }
    std::printf("recovered");
    std::fflush(stdout);
    if (StdThread::currentThread()->_setjmp() == 0) {
      crash();
    }
    std::printf(" again");
  });
}

TEST(CUL_SignalHandler, DoesNotCatchASecondSignalOnAThreadEither) {
  const ChildResult child = untracedChild("CrashTwiceOnAThread");
  EXPECT_EQ(child.status, 128 + SIGSEGV) << child.out << child.err;
  EXPECT_EQ(child.out, "recovered");
}

CUL_CHILD(Crash) {
  auto* page = static_cast<volatile int*>(unmappedPage());
  std::printf("%p", static_cast<void*>(const_cast<int*>(page)));
  *page = 1;
}

TEST(CUL_SignalHandler, TracesTheAddressThatCouldNotBeAccessed) {
  const TracedChild child = tracedChild("Crash");
  EXPECT_EQ(child.result.status, 99) << child.all();
  // SEGV_ACCERR: the page is there but allows nothing.
  EXPECT_EQ(child.count(std::string(place) + "(56): Signal 11 (SIGSEGV) at location " +
                        child.result.out + "; code = 2."),
            1)
      << child.all();
}

CUL_CHILD(RecoverFromCrash) {
  const auto recover = [] {
    StdThread* self = StdThread::currentThread();
    if (const int value = self->_setjmp(); value == 0) {
      crash();
      ADD_FAILURE() << "survived the crash";
    } else {
      EXPECT_EQ(value, SIGSEGV);
    }
    // The default action is back, the signal is not blocked, the point is disarmed.
    EXPECT_EQ(actionOf(SIGSEGV).sa_handler, SIG_DFL);
    sigset_t blocked;
    pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
    EXPECT_EQ(sigismember(&blocked, SIGSEGV), 0);
    self->longjmp(1, 0);
    registerErrorHandlers();
  };
  recover();
  recover();
  runOnThread(recover);
  std::printf("recovered");
}

TEST(CUL_SignalHandler, ResumesAtTheRecoveryPointAsOftenAsTheHandlersAreRegisteredAgain) {
  const ChildResult child = untracedChild("RecoverFromCrash");
  EXPECT_EQ(child.status, 0) << child.out << child.err;
  EXPECT_EQ(child.out, "recovered");
}

TEST(CUL_SignalHandler, TracesTheAttemptToRecover) {
  const TracedChild child = tracedChild("RecoverFromCrash");
  EXPECT_EQ(child.result.status, 0) << child.all();
  EXPECT_EQ(child.count(std::string(place) + "(71): Attempting longjmp recovery"), 3)
      << child.all();
  EXPECT_EQ(child.countContaining("No recovery possible"), 0) << child.all();
}

namespace {

// Sends its process a signal from inside of the library, which waits until that is left.
struct Sender : ReferenceCounted {
  ~Sender() override { raise(SIGTERM); }
};

}  // namespace

CUL_STAND_IN(int, timer_settime,
             (timer_t timer, int flags, const itimerspec* time, itimerspec* former), noexcept,
             timer, flags, time, former)

CUL_CHILD(SignalAfterOneThatHadToWait) {
  const Instead look(timer_settimeStandIn, [](timer_t timer, int flags, const itimerspec* time,
                                              itimerspec* former) noexcept {
    EXPECT_EQ(time->it_value.tv_sec, 0);
    EXPECT_EQ(time->it_interval.tv_sec, 0);
    return timer_settimeStandIn.real(timer, flags, time, former);
  });
  // The first thread could take only signals that are meant for all.
  runOnThread([] {
    StdThread* self = StdThread::currentThread();
    if (self->_setjmp() == 0) {
      const Reference<Sender> last(new Sender);
    }
    waitUntil([self] { return !self->isRecoveryArmed(); });
    registerErrorHandlers();
    if (self->_setjmp() == 0) {
      pthread_sigqueue(pthread_self(), SIGTERM, {});
      // The thread sanitizer hands it over later.
      waitUntil([self] { return !self->isRecoveryArmed(); });
    }
  });
}

TEST(CUL_SignalHandler, TellsEachSignalsOwnCauseOnItsThreadAlsoAfterOneThatHadToWait) {
  const TracedChild child = tracedChild("SignalAfterOneThatHadToWait");
  EXPECT_EQ(child.result.status, 0) << child.all();
  for (const int cause : {SI_TKILL, SI_QUEUE}) {
    EXPECT_EQ(child.countContaining("; code = " + std::to_string(cause) + "."), 1) << child.all();
  }
}

CUL_CHILD(TwoSignalsThatHaveToWait) {
  static std::atomic<int> delays = 0;
  const Instead look(timer_settimeStandIn, [](timer_t timer, int flags, const itimerspec* time,
                                              itimerspec* former) noexcept {
    delays += time->it_value.tv_sec == 0 ? 1 : 0;  // others limit an ending
    return timer_settimeStandIn.real(timer, flags, time, former);
  });
  const auto wait = [] {
    StdThread* self = StdThread::currentThread();
    if (self->_setjmp() == 0) {
      const Reference<Sender> last(new Sender);
    }
    waitUntil([self] { return !self->isRecoveryArmed(); });
    registerErrorHandlers();
  };
  runOnThread(wait);
  const int first = delays;
  EXPECT_GT(first, 0);
  runOnThread(wait);
  EXPECT_GT(delays, first);
}

TEST(CUL_SignalHandler, LetsASignalWaitAlsoAfterOneThatHadTo) {
  const ChildResult child = untracedChild("TwoSignalsThatHaveToWait");
  EXPECT_EQ(child.status, 0) << child.out << child.err;
}

CUL_CHILD(FaultOfTheReport) {
  std::atexit([] { std::printf("exit handlers run"); });
  const Instead fault(backtrace_symbolsStandIn, [](auto...) -> char** {
    crash();
    return nullptr;
  });
  crash();
}

TEST(CUL_SignalHandler, RunsExitHandlersAlsoWhenItsReportFails) {
  const TracedChild child = tracedChild("FaultOfTheReport");
  EXPECT_EQ(child.result.status, 99) << child.all();
  EXPECT_EQ(child.result.out, "exit handlers run");
  EXPECT_EQ(child.countContaining("Signal 11 (SIGSEGV)"), 1) << child.all();
}

namespace {

// Fails inside of the library, so that the end of the process would have a limit.
struct Failing : ReferenceCounted {
  ~Failing() override { crash(); }
};

}  // namespace

CUL_CHILD(FaultsThatMeetInsideTheLibrary) {
  static std::atomic<int> reports = 0;
  const Instead meet(backtrace_symbolsStandIn, [](auto...) -> char** {
    ++reports;
    waitUntil([] { return reports == 2; });
    return nullptr;
  });
  const auto recover = [] {
    if (StdThread::currentThread()->_setjmp() == 0) {
      const Reference<Failing> last(new Failing);
    }
  };
  StdThread::Termination one;
  StdThread::Termination other;
  startThread(recover, &one);
  startThread(recover, &other);
  EXPECT_EQ(one.wait(0), 0);
  EXPECT_EQ(other.wait(0), 0);
  EXPECT_EQ(actionOf(SIGALRM).sa_handler, SIG_DFL);
}

TEST(CUL_SignalHandler, LiftsTheLimitOfAnEndingWhenAllThreadsHaveRecovered) {
  const TracedChild child = tracedChild("FaultsThatMeetInsideTheLibrary");
  EXPECT_EQ(child.result.status, 0) << child.result.out << child.all();
}

CUL_CHILD(CrashTwice) {
  StdThread* self = StdThread::currentThread();
  volatile int crashes = 0;
  const int value = self->_setjmp();
  std::printf("%d ", value);
  std::fflush(stdout);
  if (crashes < 2) {
    crashes = crashes + 1;
    if (value != 0) {
      self->_setjmp();
    }
    crash();
  }
}

TEST(CUL_SignalHandler, DoesNotCatchASecondSignalAfterARecovery) {
  const ChildResult child = untracedChild("CrashTwice");
  EXPECT_EQ(child.status, 128 + SIGSEGV) << child.out << child.err;
  EXPECT_EQ(child.out, "0 11 ");
}

CUL_CHILD(RequestAfterRecovery) {
  // A thread that has recovered can still be asked to end.
  std::atomic<bool> hasRecovered = false;
  StdThread::Termination termination;
  const StdThread* thread = startThread(
      [&hasRecovered] {
        if (StdThread::currentThread()->_setjmp() == 0) {
          crash();
        }
        hasRecovered = true;
        for (;;) {
          usleep(1000);
        }
      },
      &termination);
  waitUntil([&hasRecovered] { return hasRecovered.load(); });
  EXPECT_EQ(thread->requestTerminate(), 0);
  EXPECT_EQ(termination.wait(0), 0);
}

TEST(CUL_SignalHandler, LeavesARecoveredThreadThatCanBeAskedToEnd) {
  const ChildResult child = untracedChild("RequestAfterRecovery");
  EXPECT_EQ(child.status, 0) << child.out << child.err;
}

CUL_CHILD(RecoveryWithoutAContext) {
  // As while the handler runs, and another signal that has nothing to do with it.
  sigset_t some;
  sigemptyset(&some);
  sigaddset(&some, SIGTERM);
  sigaddset(&some, SIGUSR1);
  pthread_sigmask(SIG_BLOCK, &some, nullptr);
  if (const int signal = StdThread::currentThread()->_setjmp(); signal == 0) {
    siginfo_t info = {};
    CUL_SignalHandler(SIGTERM, &info, nullptr);
  } else {
    EXPECT_EQ(signal, SIGTERM);
    sigset_t now;
    pthread_sigmask(SIG_SETMASK, nullptr, &now);
    EXPECT_EQ(sigismember(&now, SIGTERM), 0);
    EXPECT_EQ(sigismember(&now, SIGUSR1), 1);
    std::printf("resumed");
  }
}

TEST(CUL_SignalHandler, UnblocksOnlyItsSignalWhenItIsNotToldWhatWasBlocked) {
  const ChildResult child = untracedChild("RecoveryWithoutAContext");
  EXPECT_EQ(child.status, 0) << child.out << child.err;
  EXPECT_EQ(child.out, "resumed");
}

CUL_CHILD(SecondSigtermWhileTheFirstIsHandled) {
  std::atexit([] { std::printf("ended in order"); });
  // As while the handler of a first signal runs.
  sigset_t term;
  sigemptyset(&term);
  sigaddset(&term, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &term, nullptr);
  raise(SIGTERM);
  siginfo_t info = {};
  CUL_SignalHandler(SIGTERM, &info, nullptr);
}

TEST(CUL_SignalHandler, KeepsASecondSignalOffWhileTheProcessEnds) {
  const ChildResult child = untracedChild("SecondSigtermWhileTheFirstIsHandled");
  EXPECT_EQ(child.status, 99) << child.err;
  EXPECT_EQ(child.out, "ended in order");
}

CUL_CHILD(RecoverOnlyOwnThread) {
  static_cast<void>(StdThread::thread1());
  StdThread::Termination termination;
  if (StdThread::currentThread()->_setjmp() == 0) {
    startThread([] { crash(); }, &termination);
    termination.wait(0);
  }
  std::printf("resumed on the wrong thread");
}

TEST(CUL_SignalHandler, DoesNotUseTheRecoveryPointOfAnotherThread) {
  const ChildResult child = untracedChild("RecoverOnlyOwnThread");
  EXPECT_EQ(child.status, 99) << child.err;
  EXPECT_EQ(child.out, "");
}

TEST(CUL_SignalHandler, ReturnsForSigpipeWithTheDefaultActionInForce) {
  siginfo_t info = {};
  CUL_SignalHandler(SIGPIPE, &info, nullptr);
  const struct sigaction action = actionOf(SIGPIPE);
  EXPECT_EQ(action.sa_handler, SIG_DFL);
  EXPECT_EQ(static_cast<unsigned>(action.sa_flags) & (SA_SIGINFO | SA_RESETHAND),
            SA_SIGINFO | SA_RESETHAND);
  EXPECT_EQ(sigisemptyset(&action.sa_mask), 1);
  signal(SIGPIPE, SIG_IGN);
}

CUL_CHILD(DumpToStandardError) { dumpModulesAndChain(true); }

TEST(dumpModulesAndChain, WritesToStandardErrorWhenAskedTo) {
  const ChildResult child = runChild("DumpToStandardError");
  EXPECT_EQ(child.status, 0);
  EXPECT_EQ(child.out, "");
  EXPECT_THAT(child.err, testing::StartsWith("---- Callback trace ----\n"));
  EXPECT_THAT(child.err, testing::EndsWith("\n---- End callback trace ----\n"));
  EXPECT_THAT(child.err, testing::HasSubstr("libcul.so"));
  EXPECT_THAT(child.err, testing::HasSubstr("threads_test"));
  EXPECT_THAT(child.err, testing::Not(testing::HasSubstr("\n\n")));
}

CUL_CHILD(DumpToTrace) { dumpModulesAndChain(false); }

CUL_CHILD(DumpWithoutNames) {
  const Instead noSymbols(backtrace_symbolsStandIn, [](auto...) -> char** { return nullptr; });
  dumpModulesAndChain(true);
}

TEST(dumpModulesAndChain, LeavesTheCallsOutWhenThereIsNoMemoryForTheirNames) {
  const ChildResult child = runChild("DumpWithoutNames");
  EXPECT_EQ(child.status, 0);
  EXPECT_EQ(child.err, "---- Callback trace ----\n---- End callback trace ----\n");
}

TEST(dumpModulesAndChain, WritesToTheTraceOtherwise) {
  const TracedChild child("DumpToTrace");
  EXPECT_EQ(child.result.status, 0) << child.all();
  EXPECT_EQ(child.result.out + child.result.err, "");
  expectCallChain(child);
}

TEST(dumpModulesAndChain, IsSilentWithoutATrace) {
  const ChildResult child = runChild("DumpToTrace");
  EXPECT_EQ(child.status, 0);
  EXPECT_EQ(child.out + child.err, "");
}

CUL_CHILD(DeepDump) {
  const std::function<void(int)> deeper = [&deeper](int depth) {
    depth == 0 ? dumpModulesAndChain(false) : deeper(depth - 1);
  };
  deeper(100);
}

TEST(dumpModulesAndChain, Stops50CallsUp) {
  const TracedChild child("DeepDump");
  EXPECT_EQ(child.countContaining(std::string(place) + "(124): "), 50) << child.all();
}

CUL_CHILD(Terminate) {
  std::atexit([] { std::printf("exit handlers run"); });
  std::terminate();
}

TEST(CUL_terminate, TracesAndEndsWithStatus1) {
  const TracedChild child("Terminate");
  EXPECT_EQ(child.result.status, 1) << child.all();
  EXPECT_EQ(child.result.out, "exit handlers run");
  EXPECT_EQ(child.count("**ERROR: Engine/utilities/signals(77): *** FATAL DEBUGGER ERROR: C++ "
                        "terminate() called"),
            1)
      << child.all();
  expectCallChain(child);
  EXPECT_EQ(runChild("Terminate").status, 1);
}

CUL_CHILD(TerminateOutsideOfTheLibrary) {
  // A limit would be set by an alarm.
  std::atexit(
      [] { std::printf(actionOf(SIGALRM).sa_handler == SIG_DFL ? "no limit" : "limited"); });
  std::terminate();
}

TEST(CUL_terminate, SetsNoLimitToAnEndingThatWaitsForNoLock) {
  EXPECT_EQ(runChild("TerminateOutsideOfTheLibrary").out, "no limit");
}

CUL_CHILD(UncaughtException) { throw 1; }

TEST(CUL_terminate, IsWhatAnUncaughtExceptionCalls) {
  const TracedChild child("UncaughtException");
  EXPECT_EQ(child.result.status, 1) << child.all();
  EXPECT_EQ(child.countContaining("C++ terminate() called"), 1) << child.all();
}

CUL_CHILD(Unexpected) {
  std::atexit([] { std::printf("exit handlers run"); });
  beUnexpected();
}

TEST(CUL_unexpected, TracesAndEndsWithStatus1) {
  const TracedChild child("Unexpected");
  EXPECT_EQ(child.result.status, 1) << child.all();
  EXPECT_EQ(child.result.out, "exit handlers run");
  EXPECT_EQ(child.result.err, "");
  EXPECT_EQ(child.count("**ERROR: Engine/utilities/signals(91): *** FATAL DEBUGGER ERROR: C++ "
                        "unexpected() called"),
            1)
      << child.all();
  EXPECT_EQ(child.countContaining("terminate() called"), 0) << child.all();
  expectCallChain(child);
}

TEST(CUL_unexpected, EndsWithStatus1WithoutATrace) {
  for (const char* name : {"Unexpected", "Terminate"}) {
    const ChildResult child = runChild(name);
    EXPECT_EQ(child.status, 1) << name;
    EXPECT_EQ(child.out, "exit handlers run") << name;
    EXPECT_EQ(child.err, "") << name;
  }
}

CUL_CHILD(OutOfMemory) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  // Their operator new never asks a new-handler.
  std::get_new_handler()();
#else
  EXPECT_EQ(::operator new(static_cast<size_t>(-1) / 4), nullptr) << "the new-handler returned";
#endif
}

TEST(newHandler, ReportsToTheTraceAndToStandardOutputAndEndsWithStatus1) {
  const TracedChild child("OutOfMemory");
  EXPECT_EQ(child.result.status, 1) << child.all();
  EXPECT_EQ(child.result.out, "*** FATAL DEBUGGER ERROR: Out of memory\n\n");
  EXPECT_EQ(child.count("**ERROR: Engine/utilities/signals(111): *** FATAL DEBUGGER ERROR: Out of "
                        "memory"),
            1)
      << child.all();
  expectCallChain(child);
}

TEST(newHandler, ReportsToStandardOutputWithoutATrace) {
  const ChildResult child = runChild("OutOfMemory");
  EXPECT_EQ(child.status, 1);
  EXPECT_EQ(child.out, "*** FATAL DEBUGGER ERROR: Out of memory\n\n");
  EXPECT_EQ(child.err, "");
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
// The sanitizers need the address space for themselves.

namespace {

// Keeps a compiler from dropping an allocation that nobody uses.
void* volatile used = nullptr;

// Takes all memory there is.
void exhaustMemory() {
  const rlimit none = {1, 1};
  ASSERT_EQ(setrlimit(RLIMIT_AS, &none), 0);
  for (size_t size = size_t{1} << 24; size > 2048; size /= 2) {
    do {
      used = malloc(size);
    } while (used != nullptr);
  }
  // Each size has a cache of its own.
  for (size_t size = 2048; size > 0; size -= 8) {
    do {
      used = malloc(size);
    } while (used != nullptr);
  }
}

}  // namespace

CUL_CHILD(ExhaustMemory) {
  if (childArguments()[0] == "traced before") {
    CUL_TRACE(TraceType::error, "test", 1, "there is a trace");
  }
  exhaustMemory();
  used = ::operator new(16);
  std::printf("there was memory left");
}

TEST(newHandler, ReportsTheCallChainWhenNoMemoryIsLeft) {
  const TracedChild child = tracedChild("ExhaustMemory", {"traced before"});
  EXPECT_EQ(child.result.status, 1) << child.all();
  EXPECT_EQ(child.result.out, "*** FATAL DEBUGGER ERROR: Out of memory\n\n");
  EXPECT_EQ(child.count("**ERROR: Engine/utilities/signals(111): *** FATAL DEBUGGER ERROR: Out of "
                        "memory"),
            1)
      << child.all();
  expectCallChain(child);
}

TEST(newHandler, ReportsToStandardOutputWhenNoMemoryIsLeft) {
  const ChildResult child = untracedChild("ExhaustMemory", {"untraced"});
  EXPECT_EQ(child.status, 1);
  EXPECT_EQ(child.out, "*** FATAL DEBUGGER ERROR: Out of memory\n\n");
  EXPECT_EQ(child.err, "");
  // A trace that is not open yet may be more than the reserve can pay for.
  const TracedChild late = tracedChild("ExhaustMemory", {"first traced now"});
  EXPECT_EQ(late.result.status, 1);
  EXPECT_EQ(late.result.out, child.out);
  EXPECT_EQ(late.result.err, "");
}
#endif
