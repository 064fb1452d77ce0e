#include "tests/torture/Faults.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <dirent.h>
#include <dlfcn.h>
#include <execinfo.h>
#include <fcntl.h>
#include <iconv.h>
#include <iterator>
#include <langinfo.h>
#include <link.h>
#include <locale.h>
#include <new>
#include <poll.h>
#include <pthread.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/vfs.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include "tests/support/StandIn.h"

namespace {

constinit std::atomic<bool> isArmed = false;
constinit std::atomic<unsigned> counted = 0;
constinit std::atomic<int> chosen = -1;  // the function that fails for good
Fault fault;
Count* theCount = nullptr;
constinit thread_local bool isSpared = false;

// The thread sanitizer and the like make calls before there are constructors.
std::vector<FallibleCall>& calls() {
  static auto* const made = new std::vector<FallibleCall>;
  return *made;
}

unsigned enroll(const char* name, std::initializer_list<int> errors) {
  calls().push_back({name, errors});
  return static_cast<unsigned>(calls().size()) - 1;
}

// Whether this call, which counts, fails; with its error then.
bool failsCountedCall(unsigned number, int& error) {
  const unsigned place = counted.fetch_add(1);
  if (place < Count::most) {
    theCount->made[place] = static_cast<unsigned char>(number);
  }
  theCount->calls = place + 1;
  if (fault.kind != Fault::call || place + 1 < fault.first) {
    return false;
  }
  if (place + 1 == fault.first) {
    chosen = static_cast<int>(number);
  } else if (!fault.forGood || chosen != static_cast<int>(number)) {
    return false;
  }
  const std::vector<int>& errors = calls()[number].errors;
  error = errors[std::min<std::size_t>(fault.error, errors.size() - 1)];
  if (__atomic_fetch_add(&theCount->failed, 1, __ATOMIC_RELAXED) == 0) {
    theCount->failedCall = static_cast<int>(number);
  }
  return true;
}

#if defined(CUL_SANITIZED_ADDRESSES)
// Where the sanitizer's code is. What it asks the C library for, for itself, is not the library's
// call; it ends the process where that fails.
struct Range {
  std::uintptr_t begin = 0;
  std::uintptr_t end = 0;
};

Range rangeOfSanitizer() {
  Range range;
  dl_iterate_phdr(
      [](dl_phdr_info* object, std::size_t, void* found) {
        if (std::strstr(object->dlpi_name, "/libasan.so") == nullptr) {
          return 0;
        }
        for (const ElfW(Phdr) & part : std::span(object->dlpi_phdr, object->dlpi_phnum)) {
          if (part.p_type == PT_LOAD && (part.p_flags & PF_X) != 0) {
            const std::uintptr_t begin = object->dlpi_addr + part.p_vaddr;
            *static_cast<Range*>(found) = {begin, begin + part.p_memsz};
          }
        }
        return 1;
      },
      &range);
  return range;
}

Range sanitizer;

bool isOfSanitizer(const void* caller) {
  const auto place = reinterpret_cast<std::uintptr_t>(caller);
  return place >= sanitizer.begin && place < sanitizer.end;
}
#endif

// Whether this call fails; with its error then. Inside the function that stands in.
[[gnu::always_inline]] inline bool failsCall(unsigned number, int& error) {
  if (!isArmed.load(std::memory_order_acquire) || fault.kind == Fault::allocation || isSpared) {
    return false;
  }
#if defined(CUL_SANITIZED_ADDRESSES)
  if (isOfSanitizer(__builtin_return_address(0))) {
    return false;
  }
#endif
  return failsCountedCall(number, error);
}

bool failsAllocation() {
  if (!isArmed.load(std::memory_order_acquire) || fault.kind == Fault::call || isSpared) {
    return false;
  }
  const unsigned place = __atomic_fetch_add(&theCount->allocations, 1, __ATOMIC_RELAXED);
  if (fault.kind != Fault::allocation || place + 1 < fault.first ||
      (place + 1 > fault.first && !fault.forGood)) {
    return false;
  }
  __atomic_add_fetch(&theCount->failed, 1, __ATOMIC_RELAXED);
  return true;
}

}  // namespace

std::span<const FallibleCall> fallibleCalls() { return calls(); }

void arm(const Fault& next, Count& count) {
#if defined(CUL_SANITIZED_ADDRESSES)
  sanitizer = rangeOfSanitizer();
#endif
  fault = next;
  theCount = &count;
  counted = 0;
  chosen = -1;
  isArmed.store(true, std::memory_order_release);
}

void disarm() { isArmed.store(false, std::memory_order_release); }

// In builds for coverage, whose calls are none of the work.
extern "C" void countersAreWritten() { disarm(); }

Spared::Spared() : before_(isSpared) { isSpared = true; }
Spared::~Spared() { isSpared = before_; }

// Allocations.

namespace {

constinit std::atomic<long> blocks = 0;
constinit std::atomic<long> poolBytes = 0;

// As the string pool asks for them; it never gives them back.
constexpr std::size_t chunkSizes[] = {8128, 8160};

void* noted(void* block, std::size_t size) {
  if (size == chunkSizes[0] || size == chunkSizes[1]) {
    poolBytes.fetch_add(block != nullptr ? static_cast<long>(size) : 0, std::memory_order_relaxed);
  } else if (block != nullptr) {
    blocks.fetch_add(1, std::memory_order_relaxed);
  }
  return block;
}

void* refused() {
  errno = ENOMEM;
  return nullptr;
}

}  // namespace

Allocated allocated() { return {blocks, poolBytes}; }

extern "C" {

#if defined(CUL_SANITIZED_ADDRESSES)
#define CUL_REAL(name) __interceptor_##name
#else
#define CUL_REAL(name) __libc_##name
#endif

void* CUL_REAL(malloc)(std::size_t size);
void* CUL_REAL(calloc)(std::size_t n, std::size_t size);
void* CUL_REAL(realloc)(void* block, std::size_t size);
void* CUL_REAL(memalign)(std::size_t alignment, std::size_t size);
void CUL_REAL(free)(void* block);

void* malloc(std::size_t size) noexcept {
  return failsAllocation() ? refused() : noted(CUL_REAL(malloc)(size), size);
}

void* calloc(std::size_t n, std::size_t size) noexcept {
  return failsAllocation() ? refused() : noted(CUL_REAL(calloc)(n, size), 0);
}

void* realloc(void* block, std::size_t size) noexcept {
  if (failsAllocation()) {
    return refused();
  }
  void* const result = CUL_REAL(realloc)(block, size);
  return block == nullptr ? noted(result, 0) : result;
}

void* memalign(std::size_t alignment, std::size_t size) noexcept {
  return failsAllocation() ? refused() : noted(CUL_REAL(memalign)(alignment, size), 0);
}

void* aligned_alloc(std::size_t alignment, std::size_t size) noexcept {
  return memalign(alignment, size);
}

int posix_memalign(void** block, std::size_t alignment, std::size_t size) noexcept {
  void* const made = memalign(alignment, size);
  if (made == nullptr) {
    return ENOMEM;
  }
  *block = made;
  return 0;
}

void free(void* block) noexcept {
  if (block != nullptr) {
    blocks.fetch_sub(1, std::memory_order_relaxed);
    CUL_REAL(free)(block);
  }
}
}

#if defined(CUL_SANITIZED_ADDRESSES)
// The first thing that a thread does there.
CUL_DEFINE_STAND_IN(int, pthread_getattr_np, (pthread_t, pthread_attr_t*))
extern "C" int pthread_getattr_np(pthread_t thread, pthread_attr_t* attributes) noexcept {
  const bool wasSpared = isSpared;
  isSpared = wasSpared || isOfSanitizer(__builtin_return_address(0));
  const int result = pthread_getattr_npStandIn.real(thread, attributes);
  isSpared = wasSpared;
  return result;
}

// The blocks are counted; what the C library loses where its own memory is out is not ours.
extern "C" int __lsan_is_turned_off();
extern "C" int __lsan_is_turned_off() { return 1; }

// The sanitizer's own operators would not ask malloc().
void* operator new(std::size_t size) {
  for (;;) {
    if (void* const block = malloc(size == 0 ? 1 : size); block != nullptr) {
      return block;
    }
    const std::new_handler handler = std::get_new_handler();
    if (handler == nullptr) {
      throw std::bad_alloc();
    }
    handler();
  }
}
void* operator new[](std::size_t size) { return operator new(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  try {
    return operator new(size);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}
void* operator new[](std::size_t size, const std::nothrow_t& none) noexcept {
  return operator new(size, none);
}
void operator delete(void* block) noexcept { free(block); }
void operator delete[](void* block) noexcept { free(block); }
void operator delete(void* block, std::size_t) noexcept { free(block); }
void operator delete[](void* block, std::size_t) noexcept { free(block); }
void operator delete(void* block, const std::nothrow_t&) noexcept { free(block); }
void operator delete[](void* block, const std::nothrow_t&) noexcept { free(block); }
#endif

// Calls. `failed` is what one returns that fails without having done anything.
#define CUL_ERRORS(...) \
  { __VA_ARGS__ }

#define CUL_ENROLL(name, errors) \
  static const unsigned name##Number = enroll(#name, CUL_ERRORS errors);

#define CUL_FALLIBLE(Result, name, parameters, exceptions, failed, errors, ...) \
  CUL_DEFINE_STAND_IN(Result, name, parameters)                                 \
  CUL_ENROLL(name, errors)                                                      \
  extern "C" Result name parameters exceptions {                                \
    int error = 0;                                                              \
    if (failsCall(name##Number, error)) {                                       \
      errno = error;                                                            \
      return failed;                                                            \
    }                                                                           \
    return name##StandIn.real(__VA_ARGS__);                                     \
  }

// What gives something back does so also where it fails, as the system's do: nobody could try
// again.
#define CUL_RELEASING(Result, name, parameters, exceptions, failed, errors, ...) \
  CUL_DEFINE_STAND_IN(Result, name, parameters)                                  \
  CUL_ENROLL(name, errors)                                                       \
  extern "C" Result name parameters exceptions {                                 \
    const Result result = name##StandIn.real(__VA_ARGS__);                       \
    int error = 0;                                                               \
    if (failsCall(name##Number, error)) {                                        \
      errno = error;                                                             \
      return failed;                                                             \
    }                                                                            \
    return result;                                                               \
  }

#define CUL_PATH_ERRORS EACCES, ELOOP, ENAMETOOLONG, ENOENT, ENOMEM, ENOTDIR, EFAULT
#define CUL_OPEN_ERRORS                                                                         \
  CUL_PATH_ERRORS, EMFILE, ENFILE, EINTR, EISDIR, EBUSY, EDQUOT, EEXIST, EFBIG, EINVAL, ENODEV, \
      ENOSPC, ENXIO, EOPNOTSUPP, EOVERFLOW, EPERM, EROFS, ETXTBSY, EWOULDBLOCK, EBADF
#define CUL_WRITE_ERRORS \
  EAGAIN, EBADF, EDESTADDRREQ, EDQUOT, EFAULT, EFBIG, EINTR, EINVAL, EIO, ENOSPC, EPERM, EPIPE

// Files.
CUL_FALLIBLE(int, access, (const char* path, int mode), noexcept, -1,
             (CUL_PATH_ERRORS, EBADF, EINVAL, EIO, EPERM, EROFS, ETXTBSY), path, mode)
CUL_FALLIBLE(int, stat, (const char* path, struct stat* out), noexcept, -1,
             (CUL_PATH_ERRORS, EBADF, EOVERFLOW), path, out)
CUL_FALLIBLE(int, fstat, (int fd, struct stat* out), noexcept, -1,
             (EBADF, EFAULT, ENOMEM, EOVERFLOW), fd, out)
CUL_FALLIBLE(int, fstatat, (int fd, const char* path, struct stat* out, int flags), noexcept, -1,
             (CUL_PATH_ERRORS, EBADF, EINVAL, EOVERFLOW), fd, path, out, flags)
CUL_FALLIBLE(int, fstatfs, (int fd, struct statfs* out), noexcept, -1,
             (EBADF, EFAULT, EINTR, EIO, ENOMEM, ENOSYS, EOVERFLOW), fd, out)
CUL_FALLIBLE(ssize_t, readlink, (const char* path, char* out, size_t size), noexcept, -1,
             (CUL_PATH_ERRORS, EINVAL, EIO), path, out, size)
CUL_FALLIBLE(char*, getcwd, (char* out, size_t size), noexcept, nullptr,
             (EACCES, EFAULT, EINVAL, ENAMETOOLONG, ENOENT, ENOMEM, ERANGE), out, size)
CUL_FALLIBLE(off_t, lseek, (int fd, off_t offset, int whence), noexcept, -1,
             (EBADF, EINVAL, ENXIO, EOVERFLOW, ESPIPE), fd, offset, whence)
CUL_FALLIBLE(off64_t, lseek64, (int fd, off64_t offset, int whence), noexcept, -1,
             (EBADF, EINVAL, ENXIO, EOVERFLOW, ESPIPE), fd, offset, whence)
CUL_FALLIBLE(int, ftruncate, (int fd, off_t length), noexcept, -1,
             (EBADF, EINTR, EFBIG, EINVAL, EIO, EPERM, EROFS, ETXTBSY), fd, length)
CUL_RELEASING(int, close, (int fd), CUL_NOTHING, -1, (EBADF, EINTR, EIO, ENOSPC, EDQUOT), fd)
CUL_FALLIBLE(int, pipe2, (int* ends, int flags), noexcept, -1,
             (EFAULT, EINVAL, EMFILE, ENFILE, ENOPKG), ends, flags)
CUL_FALLIBLE(int, isatty, (int fd), noexcept, 0, (EBADF, ENOTTY), fd)

CUL_DEFINE_STAND_IN(ssize_t, read, (int, void*, size_t))
CUL_ENROLL(read, (EAGAIN, EBADF, EFAULT, EINTR, EINVAL, EIO, EISDIR, shortly))
extern "C" ssize_t read(int fd, void* buffer, size_t size) {
  int error = 0;
  if (failsCall(readNumber, error)) {
    if (error == shortly) {
      return readStandIn.real(fd, buffer, size > 1 ? size / 2 : size);
    }
    errno = error;
    return -1;
  }
  return readStandIn.real(fd, buffer, size);
}

CUL_DEFINE_STAND_IN(ssize_t, write, (int, const void*, size_t))
CUL_ENROLL(write, (CUL_WRITE_ERRORS, shortly))
extern "C" ssize_t write(int fd, const void* data, size_t size) {
  int error = 0;
  if (failsCall(writeNumber, error)) {
    if (error == shortly) {
      return writeStandIn.real(fd, data, size > 1 ? size / 2 : size);
    }
    errno = error;
    return -1;
  }
  return writeStandIn.real(fd, data, size);
}

// The functions with a variable argument take at most one more, of at most a pointer's size, and
// the real ones read it as they need it.
#define CUL_FALLIBLE_VARIABLE(name, parameters, exceptions, last, errors, ...) \
  CUL_DEFINE_STAND_IN(int, name, parameters)                                   \
  CUL_ENROLL(name, errors)                                                     \
  extern "C" int name parameters exceptions {                                  \
    va_list rest;                                                              \
    va_start(rest, last);                                                      \
    void* const more = va_arg(rest, void*);                                    \
    va_end(rest);                                                              \
    int error = 0;                                                             \
    if (failsCall(name##Number, error)) {                                      \
      errno = error;                                                           \
      return -1;                                                               \
    }                                                                          \
    return name##StandIn.real(__VA_ARGS__, more);                              \
  }

CUL_FALLIBLE_VARIABLE(open, (const char* path, int flags, ...), CUL_NOTHING, flags,
                      (CUL_OPEN_ERRORS), path, flags)
CUL_FALLIBLE_VARIABLE(fcntl, (int fd, int command, ...), CUL_NOTHING, command,
                      (EACCES, EAGAIN, EBADF, EBUSY, EDEADLK, EFAULT, EINTR, EINVAL, EMFILE, ENOLCK,
                       ENOTDIR, EPERM),
                      fd, command)
CUL_FALLIBLE_VARIABLE(ioctl, (int fd, unsigned long request, ...), noexcept, request,
                      (EBADF, EFAULT, EINVAL, ENOTTY, EIO), fd, request)

// Folders.
CUL_FALLIBLE(DIR*, opendir, (const char* path), CUL_NOTHING, nullptr,
             (EACCES, EBADF, EMFILE, ENFILE, ENOENT, ENOMEM, ENOTDIR), path)
CUL_FALLIBLE(dirent*, readdir, (DIR * folder), CUL_NOTHING, nullptr, (EBADF), folder)
CUL_RELEASING(int, closedir, (DIR * folder), CUL_NOTHING, -1, (EBADF, EINTR), folder)
CUL_FALLIBLE(int, dirfd, (DIR * folder), noexcept, -1, (EINVAL, ENOTSUP), folder)
CUL_FALLIBLE(ssize_t, getdents64, (int fd, void* out, size_t size), noexcept, -1,
             (EBADF, EFAULT, EINVAL, ENOENT, ENOTDIR), fd, out, size)

// Streams.
CUL_FALLIBLE(FILE*, fopen, (const char* path, const char* mode), CUL_NOTHING, nullptr,
             (CUL_OPEN_ERRORS), path, mode)
CUL_FALLIBLE(FILE*, fdopen, (int fd, const char* mode), noexcept, nullptr,
             (EINVAL, ENOMEM, EBADF, EMFILE), fd, mode)
CUL_RELEASING(int, fclose, (FILE * stream), CUL_NOTHING, EOF, (EBADF, EINTR, EIO, ENOSPC, EDQUOT),
              stream)
CUL_FALLIBLE(int, fflush, (FILE * stream), CUL_NOTHING, EOF, (CUL_WRITE_ERRORS), stream)
CUL_FALLIBLE(int, fileno, (FILE * stream), noexcept, -1, (EBADF), stream)
CUL_FALLIBLE(int, fseeko, (FILE * stream, off_t offset, int whence), CUL_NOTHING, -1,
             (EBADF, EINVAL, ESPIPE, EAGAIN, EFBIG, EINTR, EIO, ENOSPC, EOVERFLOW, EPIPE), stream,
             offset, whence)
CUL_FALLIBLE(int, setvbuf, (FILE * stream, char* buffer, int mode, size_t size), noexcept, EOF,
             (EBADF), stream, buffer, mode, size)
CUL_FALLIBLE(int, puts, (const char* text), CUL_NOTHING, EOF, (CUL_WRITE_ERRORS), text)
CUL_FALLIBLE(ssize_t, __getdelim, (char** line, size_t* room, int end, FILE* stream), CUL_NOTHING,
             -1, (EINVAL, ENOMEM, EIO, EINTR), line, room, end, stream)

CUL_DEFINE_STAND_IN(size_t, fwrite, (const void*, size_t, size_t, FILE*))
CUL_ENROLL(fwrite, (EIO, EINTR, ENOSPC, shortly))
extern "C" size_t fwrite(const void* data, size_t size, size_t n, FILE* stream) {
  int error = 0;
  if (failsCall(fwriteNumber, error)) {
    if (error == shortly) {
      return fwriteStandIn.real(data, size, n / 2, stream);
    }
    errno = error;
    return 0;
  }
  return fwriteStandIn.real(data, size, n, stream);
}

#define CUL_PRINTING_ERRORS EILSEQ, EOVERFLOW, ENOMEM
CUL_FALLIBLE(int, vfprintf, (FILE * stream, const char* format, va_list arguments), CUL_NOTHING, -1,
             (CUL_PRINTING_ERRORS, EIO, EINTR), stream, format, arguments)
CUL_FALLIBLE(int, vsnprintf, (char* out, size_t size, const char* format, va_list arguments),
             noexcept, -1, (CUL_PRINTING_ERRORS), out, size, format, arguments)
CUL_ENROLL(fprintf, (CUL_PRINTING_ERRORS, EIO, EINTR))
extern "C" int fprintf(FILE* stream, const char* format, ...) {
  int error = 0;
  if (failsCall(fprintfNumber, error)) {
    errno = error;
    return -1;
  }
  va_list arguments;
  va_start(arguments, format);
  const int result = vfprintfStandIn.real(stream, format, arguments);
  va_end(arguments);
  return result;
}
CUL_ENROLL(snprintf, (CUL_PRINTING_ERRORS))
extern "C" int snprintf(char* out, size_t size, const char* format, ...) noexcept {
  int error = 0;
  if (failsCall(snprintfNumber, error)) {
    errno = error;
    return -1;
  }
  va_list arguments;
  va_start(arguments, format);
  const int result = vsnprintfStandIn.real(out, size, format, arguments);
  va_end(arguments);
  return result;
}

// Terminals.
CUL_FALLIBLE(int, grantpt, (int fd), noexcept, -1, (EACCES, EBADF, EINVAL), fd)
CUL_FALLIBLE(int, unlockpt, (int fd), noexcept, -1, (EBADF, EINVAL), fd)
CUL_FALLIBLE(char*, ptsname, (int fd), noexcept, nullptr, (EBADF, ENOTTY), fd)
CUL_FALLIBLE(pid_t, setsid, (), noexcept, -1, (EPERM))
CUL_FALLIBLE(int, tcgetattr, (int fd, termios* modes), noexcept, -1, (EBADF, ENOTTY, EIO), fd,
             modes)
CUL_FALLIBLE(int, tcsetattr, (int fd, int when, const termios* modes), noexcept, -1,
             (EBADF, EINTR, EINVAL, EIO, ENOTTY), fd, when, modes)
CUL_FALLIBLE(int, tcflush, (int fd, int queue), noexcept, -1, (EBADF, EINVAL, EIO, ENOTTY), fd,
             queue)
CUL_FALLIBLE(int, poll, (pollfd * fds, nfds_t n, int timeout), CUL_NOTHING, -1,
             (EFAULT, EINTR, EINVAL, ENOMEM), fds, n, timeout)

// Processes and signals.
CUL_FALLIBLE(pid_t, waitpid, (pid_t process, int* status, int options), CUL_NOTHING, -1,
             (EAGAIN, ECHILD, EINTR, EINVAL, ESRCH), process, status, options)
CUL_FALLIBLE(int, kill, (pid_t process, int signal), noexcept, -1, (EINVAL, EPERM, ESRCH), process,
             signal)
CUL_FALLIBLE(int, execvp, (const char* file, char* const* arguments), noexcept, -1,
             (CUL_PATH_ERRORS, E2BIG, EAGAIN, EINVAL, EIO, EISDIR, ELIBBAD, EMFILE, ENFILE, ENOEXEC,
              EPERM, ETXTBSY),
             file, arguments)
CUL_FALLIBLE(int, sigaction, (int signal, const struct sigaction* next, struct sigaction* former),
             noexcept, -1, (EFAULT, EINVAL), signal, next, former)
CUL_FALLIBLE(sighandler_t, signal, (int number, sighandler_t handler), noexcept, SIG_ERR, (EINVAL),
             number, handler)
CUL_FALLIBLE(int, sigaltstack, (const stack_t* next, stack_t* former), noexcept, -1,
             (EFAULT, EINVAL, ENOMEM, EPERM), next, former)
CUL_FALLIBLE(int, sigpending, (sigset_t * set), noexcept, -1, (EFAULT), set)
CUL_FALLIBLE(int, sigtimedwait, (const sigset_t* set, siginfo_t* info, const timespec* limit),
             CUL_NOTHING, -1, (EAGAIN, EINTR, EINVAL), set, info, limit)
CUL_FALLIBLE(int, getrlimit, (__rlimit_resource_t resource, rlimit* limit), noexcept, -1,
             (EFAULT, EINVAL, EPERM), resource, limit)

// Time.
CUL_FALLIBLE(int, clock_gettime, (clockid_t clock, timespec* out), noexcept, -1,
             (EFAULT, EINVAL, ENODEV), clock, out)
CUL_FALLIBLE(int, gettimeofday, (timeval * out, void* zone), noexcept, -1, (EFAULT, EINVAL), out,
             zone)
CUL_FALLIBLE(time_t, time, (time_t * out), noexcept, -1, (EOVERFLOW, EFAULT), out)
CUL_FALLIBLE(time_t, mktime, (tm * parts), noexcept, -1, (EOVERFLOW), parts)
CUL_FALLIBLE(tm*, localtime_r, (const time_t* when, tm* parts), noexcept, nullptr, (EOVERFLOW),
             when, parts)
CUL_FALLIBLE(char*, asctime_r, (const tm* parts, char* out), noexcept, nullptr, (EOVERFLOW), parts,
             out)
CUL_FALLIBLE(int, nanosleep, (const timespec* duration, timespec* left), CUL_NOTHING,
             (left != nullptr ? (*left = {0, 1}, -1) : -1), (EFAULT, EINTR, EINVAL), duration, left)
CUL_FALLIBLE(unsigned, sleep, (unsigned seconds), CUL_NOTHING, 1, (EINTR), seconds)
CUL_FALLIBLE(int, usleep, (useconds_t duration), CUL_NOTHING, -1, (EINTR, EINVAL), duration)
CUL_FALLIBLE(int, timer_create, (clockid_t clock, sigevent* event, timer_t* timer), noexcept, -1,
             (EAGAIN, EINVAL, ENOMEM, ENOTSUP, EPERM), clock, event, timer)
CUL_FALLIBLE(int, timer_settime,
             (timer_t timer, int flags, const itimerspec* next, itimerspec* old), noexcept, -1,
             (EFAULT, EINVAL), timer, flags, next, old)
CUL_RELEASING(int, timer_delete, (timer_t timer), noexcept, -1, (EINVAL), timer)

// Memory and loading.
CUL_FALLIBLE(void*, mmap, (void* at, size_t n, int protection, int flags, int fd, off_t offset),
             noexcept, MAP_FAILED,
             (EACCES, EAGAIN, EBADF, EEXIST, EINVAL, ENFILE, ENODEV, ENOMEM, EOVERFLOW, EPERM,
              ETXTBSY),
             at, n, protection, flags, fd, offset)
CUL_FALLIBLE(int, mprotect, (void* at, size_t n, int protection), noexcept, -1,
             (EACCES, EINVAL, ENOMEM), at, n, protection)
CUL_RELEASING(int, munmap, (void* at, size_t n), noexcept, -1, (EINVAL), at, n)
CUL_FALLIBLE(char**, backtrace_symbols, (void* const* addresses, int n), noexcept, nullptr,
             (ENOMEM), addresses, n)
CUL_FALLIBLE(char*, strndup, (const char* text, size_t n), noexcept, nullptr, (ENOMEM), text, n)
CUL_DEFINE_STAND_IN(long, syscall, (long, long, long, long, long, long, long))
CUL_ENROLL(syscall, (EAGAIN, EINVAL, ENOMEM, ENOSYS))
extern "C" long syscall(long number, ...) noexcept {
  va_list rest;
  va_start(rest, number);
  long more[6];
  for (long& one : more) {
    one = va_arg(rest, long);
  }
  va_end(rest);
  int error = 0;
  if (failsCall(syscallNumber, error)) {
    errno = error;
    return -1;
  }
  return syscallStandIn.real(number, more[0], more[1], more[2], more[3], more[4], more[5]);
}

// So that the loader has something to tell.
CUL_FALLIBLE(void*, dlmopen, (Lmid_t space, const char* file, int mode), noexcept,
             (static_cast<void>(file), dlmopenStandIn.real(space, "/no/such/file", mode)), (ENOENT),
             space, file, mode)

// Locales and code pages.
CUL_FALLIBLE(char*, setlocale, (int category, const char* name), noexcept, nullptr, (ENOENT),
             category, name)
// NOLINTNEXTLINE(performance-no-int-to-ptr): as iconv_open() tells of a failure.
static const auto noDescriptor = reinterpret_cast<iconv_t>(-1);
CUL_FALLIBLE(iconv_t, iconv_open, (const char* to, const char* from), CUL_NOTHING, noDescriptor,
             (EINVAL, EMFILE, ENFILE, ENOMEM), to, from)
CUL_FALLIBLE(size_t, iconv,
             (iconv_t descriptor, char** in, size_t* inLeft, char** out, size_t* left), CUL_NOTHING,
             static_cast<size_t>(-1), (E2BIG, EILSEQ, EINVAL), descriptor, in, inLeft, out, left)
CUL_RELEASING(int, iconv_close, (iconv_t descriptor), CUL_NOTHING, -1, (EBADF), descriptor)

// The environment.
CUL_FALLIBLE(int, gethostname, (char* out, size_t size), noexcept, -1,
             (EFAULT, EINVAL, ENAMETOOLONG, EPERM), out, size)
CUL_FALLIBLE(int, setenv, (const char* name, const char* value, int replaces), noexcept, -1,
             (EINVAL, ENOMEM), name, value, replaces)
CUL_FALLIBLE(int, putenv, (char* text), noexcept, -1, (ENOMEM), text)

// Threads: the result is the error.
CUL_FALLIBLE(int, pthread_create,
             (pthread_t * id, const pthread_attr_t* attributes, void* (*entry)(void*),
              void* argument),
             noexcept, error, (EAGAIN, EINVAL, EPERM), id, attributes, entry, argument)
CUL_RELEASING(int, pthread_join, (pthread_t id, void** value), CUL_NOTHING, error,
              (EDEADLK, EINVAL, ESRCH), id, value)
CUL_FALLIBLE(int, pthread_kill, (pthread_t id, int signal), noexcept, error, (EINVAL, ESRCH), id,
             signal)
CUL_FALLIBLE(int, pthread_key_create, (pthread_key_t * key, void (*destroy)(void*)), noexcept,
             error, (EAGAIN, ENOMEM), key, destroy)
CUL_FALLIBLE(int, pthread_setspecific, (pthread_key_t key, const void* value), noexcept, error,
             (EINVAL, ENOMEM), key, value)
CUL_FALLIBLE(int, pthread_sigmask, (int how, const sigset_t* next, sigset_t* former), noexcept,
             error, (EFAULT, EINVAL), how, next, former)
CUL_FALLIBLE(int, pthread_setcancelstate, (int state, int* former), CUL_NOTHING, error, (EINVAL),
             state, former)
CUL_FALLIBLE(int, pthread_setcanceltype, (int type, int* former), CUL_NOTHING, error, (EINVAL),
             type, former)
CUL_FALLIBLE(int, pthread_attr_init, (pthread_attr_t * attributes), noexcept, error, (ENOMEM),
             attributes)
CUL_RELEASING(int, pthread_attr_destroy, (pthread_attr_t * attributes), noexcept, error, (EINVAL),
              attributes)
CUL_FALLIBLE(int, pthread_attr_setdetachstate, (pthread_attr_t * attributes, int state), noexcept,
             error, (EINVAL), attributes, state)
CUL_FALLIBLE(int, pthread_attr_setscope, (pthread_attr_t * attributes, int scope), noexcept, error,
             (EINVAL, ENOTSUP), attributes, scope)
CUL_FALLIBLE(int, pthread_attr_setstacksize, (pthread_attr_t * attributes, size_t size), noexcept,
             error, (EINVAL), attributes, size)
CUL_FALLIBLE(int, pthread_attr_setsigmask_np,
             (pthread_attr_t * attributes, const sigset_t* signals), CUL_NOTHING, error, (ENOMEM),
             attributes, signals)

// A mutex that was never initialised by a call is that of a std::mutex: none of its kind can fail.
// Others are of a kind of their own, which does the same.
CUL_DEFINE_STAND_IN(int, pthread_mutex_init, (pthread_mutex_t*, const pthread_mutexattr_t*))
CUL_ENROLL(pthread_mutex_init, (EAGAIN, EBUSY, EINVAL, ENOMEM, EPERM))
extern "C" int pthread_mutex_init(pthread_mutex_t* mutex,
                                  const pthread_mutexattr_t* kind) noexcept {
  int error = 0;
  if (failsCall(pthread_mutex_initNumber, error)) {
    return error;
  }
  pthread_mutexattr_t own;
  pthread_mutexattr_init(&own);
  pthread_mutexattr_settype(&own, PTHREAD_MUTEX_ADAPTIVE_NP);
  return pthread_mutex_initStandIn.real(mutex, kind == nullptr ? &own : kind);
}
static bool canFail(const pthread_mutex_t& mutex) {
  return mutex.__data.__kind != PTHREAD_MUTEX_TIMED_NP;
}
CUL_RELEASING(int, pthread_mutex_destroy, (pthread_mutex_t * mutex), noexcept, error,
              (EBUSY, EINVAL), mutex)

// Locked all the same: else two threads would be inside, and anything could come of it.
CUL_DEFINE_STAND_IN(int, pthread_mutex_lock, (pthread_mutex_t*))
CUL_ENROLL(pthread_mutex_lock, (EAGAIN, EDEADLK, EINVAL))
extern "C" int pthread_mutex_lock(pthread_mutex_t* mutex) noexcept {
  const int result = pthread_mutex_lockStandIn.real(mutex);
  int error = 0;
  return canFail(*mutex) && failsCall(pthread_mutex_lockNumber, error) ? error : result;
}
CUL_RELEASING(int, pthread_mutex_unlock, (pthread_mutex_t * mutex), noexcept, error,
              (EAGAIN, EINVAL, EPERM), mutex)
CUL_FALLIBLE(int, pthread_cond_init, (pthread_cond_t * condition, const pthread_condattr_t* kind),
             noexcept, error, (EAGAIN, EBUSY, EINVAL, ENOMEM), condition, kind)
CUL_RELEASING(int, pthread_cond_destroy, (pthread_cond_t * condition), noexcept, error,
              (EBUSY, EINVAL), condition)
CUL_FALLIBLE(int, pthread_cond_wait, (pthread_cond_t * condition, pthread_mutex_t* mutex),
             CUL_NOTHING, error, (EINVAL, EPERM), condition, mutex)
CUL_FALLIBLE(int, pthread_cond_broadcast, (pthread_cond_t * condition), noexcept, error, (EINVAL),
             condition)
