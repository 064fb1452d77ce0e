// Part of each library and program whose lines are counted, in builds for coverage only.
//
// Counters are written by the destructors of their library or program. A process that ends by
// _exit() would lose them, and one that may open no file or write nothing any more would say so on
// its standard error, where tests look.

#include <atomic>
#include <csignal>
#include <dlfcn.h>
#include <fcntl.h>
#include <new>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

// NOLINTNEXTLINE(readability-identifier-naming): of libgcov, whose header only g++ has
extern "C" void __gcov_dump();

// Called before a program's counters are written, when the program has it.
extern "C" __attribute__((weak)) void countersAreWritten();

namespace {

using Exit = void (*)(int);

std::atomic<Exit> nextExit = nullptr;
std::atomic<pid_t> writer = 0;

// A program may fork thousands of children that all do the same: of those, the first write, and
// then one of several.
constexpr unsigned firstChildren = 50;
constexpr unsigned oneOf = 16;
pid_t starter = 0;
std::atomic<unsigned>* children = nullptr;  // shared with them

bool isPassedOver() {
  if (getpid() == starter || children == nullptr) {
    return false;
  }
  const unsigned before = (*children)++;
  return before >= firstChildren && before % oneOf != 0;
}

// Children of forks cannot look for the next function: another thread may have held the loader's
// lock.
__attribute__((constructor)) void prepare() {
  nextExit = reinterpret_cast<Exit>(dlsym(RTLD_NEXT, "_exit"));
  starter = getpid();
  void* const shared =
      mmap(nullptr, sizeof *children, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  children = shared == MAP_FAILED ? nullptr : ::new (shared) std::atomic<unsigned>(0);
}

void allow(__rlimit_resource resource) {
  rlimit limit = {RLIM_INFINITY, RLIM_INFINITY};
  if (setrlimit(resource, &limit) != 0 && getrlimit(resource, &limit) == 0) {
    limit.rlim_cur = limit.rlim_max;
    setrlimit(resource, &limit);
  }
}

// Another user's process cannot write at all: libgcov would say so for each file.
__attribute__((destructor(101))) void writeCounters() {
  if (countersAreWritten != nullptr) {
    countersAreWritten();
  }
  std::signal(SIGXFSZ, SIG_IGN);
  allow(RLIMIT_FSIZE);
  allow(RLIMIT_NOFILE);
  const int kept = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
  dup2(null, STDERR_FILENO);
  __gcov_dump();
  close(null);
  if (kept < 0) {
    close(STDERR_FILENO);
  } else {
    dup2(kept, STDERR_FILENO);
    close(kept);
  }
}

// Another thread that ends the process meanwhile waits.
void writeCountersOnce() {
  if (isPassedOver()) {
    return;
  }
  const pid_t self = getpid();
  if (writer.exchange(self) == self) {
    for (;;) {
      pause();
    }
  }
  sigset_t all;
  sigfillset(&all);
  pthread_sigmask(SIG_BLOCK, &all, nullptr);
  writeCounters();
}

}  // namespace

// Of the program, the library and the C library, the one of the first is called from everywhere: it
// hands on to the next.
extern "C" __attribute__((visibility("default"))) void _exit(int status) {
  writeCountersOnce();
  if (const Exit next = nextExit; next != nullptr) {
    next(status);
  }
  for (;;) {
    syscall(SYS_exit_group, status);
  }
}

extern "C" __attribute__((visibility("default"))) void _Exit(int status) noexcept { _exit(status); }
