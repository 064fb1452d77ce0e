#include "Engine/utilities/TraceImplementation.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <fcntl.h>
#include <memory>
#include <new>
#include <pthread.h>
#include <span>
#include <stdio_ext.h>
#include <string_view>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

#include "Engine/internal/AbandonTraceLines.h"
#include "Engine/internal/AcrossFork.h"
#include "Engine/internal/FixedLayout.h"
#include "Engine/internal/HeldLock.h"
#include "Engine/internal/HoldRequests.h"
#include "Engine/internal/LocalTime.h"
#include "Engine/internal/LockGuard.h"
#include "Engine/internal/PlaceNumber.h"
#include "Engine/internal/Texts.h"
#include "Engine/internal/WriteSignals.h"
#include "Engine/utilities/Descriptor.h"
#include "Engine/utilities/ElapsedTime.h"
#include "Engine/utilities/EncodedString.h"
#include "Engine/utilities/EnvironmentVariables.h"
#include "Engine/utilities/KeepErrno.h"
#include "Engine/utilities/OwningList.h"
#include "Engine/utilities/ProductData.h"
#include "Engine/utilities/StdThread.h"

// The engine knows this layout: docs/contract.md.
CUL_FIXED_FIELD(TraceImplementation, flags, 0);
CUL_FIXED_FIELD(TraceImplementation, excludeList_, 32);
CUL_FIXED_FIELD(TraceImplementation, includeList_, 64);
CUL_FIXED_FIELD(TraceImplementation, ownedBuffer_, 96);
CUL_FIXED_FIELD(TraceImplementation, startCounter_, 104);
CUL_FIXED_FIELD(TraceImplementation, outputName_, 112);
CUL_FIXED_FIELD(TraceImplementation, lock_, 136);
CUL_FIXED_FIELD(TraceImplementation, startTime_, 200);
CUL_FIXED_FIELD(TraceImplementation, output_, 208);
CUL_FIXED_FIELD(TraceImplementation, rewindPoint_, 216);
CUL_FIXED_FIELD(TraceImplementation, sizeLimit_, 220);
CUL_FIXED_FIELD(TraceImplementation, currentSize_, 224);
CUL_FIXED_FIELD(TraceImplementation, pauseCount_, 228);
CUL_FIXED_FIELD(TraceImplementation, state_, 232);
CUL_FIXED_FIELD(TraceImplementation, reopenInChild_, 236);

namespace {

constexpr unsigned megabyte = 1048576;
constexpr unsigned defaultSizeInMegabytes = 16;
constexpr unsigned long smallestSizeInMegabytes = 2;
constexpr unsigned long largestSizeInMegabytes = 511;
constexpr unsigned noLimit = UINT_MAX;
constexpr std::uint64_t microsecondsPerSecond = 1000000;

// The types that the header of the output lists and that complete the configured lists, each in
// its place. A name that is missing here, like "TLS", is on unless the configuration excludes it.
struct PlacedType {
  const char* name;
  unsigned place;
};

#define PLACED_TYPE(enumerator, tag, place) {tag, place},
#define PLACED_WISH(name, place) {name, place},
constexpr PlacedType placedTypes[] = {CUL_TRACE_TYPES(PLACED_TYPE, PLACED_WISH)};
#undef PLACED_TYPE
#undef PLACED_WISH

constexpr auto knownTypes = [] {
  constexpr auto isKnown = [](const PlacedType& type) { return type.place != 0; };
  std::array<const char*, std::ranges::count_if(placedTypes, isKnown)> names = {};
  for (const PlacedType& type : placedTypes) {
    if (isKnown(type) && type.place <= names.size()) {
      names[type.place - 1] = type.name;
    }
  }
  return names;
}();
static_assert(std::ranges::find(knownTypes, nullptr) == knownTypes.end(),
              "the places of the known trace types are not 1, 2 and so on, each once");

constexpr std::string_view separatorLine =
    "========================================================================\n";

struct Role {
  const char* name;  // lower case
  const char* variable;
};

constexpr Role roles[] = {{"root", environmentVariable("QVX_DBG_TRACE_ROOT")},
                          {"middle", environmentVariable("QVX_DBG_TRACE_MIDDLE")},
                          {"leaf", environmentVariable("QVX_DBG_TRACE_LEAF")}};
constexpr const char* variableOfOthers = environmentVariable("QVX_DBG_TRACE");

// The trace, or the place where it is being built. Stored before the object is built, so
// that what its construction calls finds it, closed as yet.
constinit std::atomic<TraceImplementation*> theTrace = nullptr;
alignas(TraceImplementation) constinit unsigned char storage[sizeof(TraceImplementation)] = {};

// Whether `text`, which may be null, starts with `letters`, lower-case ones, in any case.
bool startsWithLetters(const char* text, const char* letters) noexcept {
  if (text == nullptr) {
    return false;
  }
  for (; *letters != '\0'; ++text, ++letters) {
    if ((*text | ('a' - 'A')) != *letters) {
      return false;
    }
  }
  return true;
}

const char* processId() noexcept { return std::getenv(environmentVariable("GDIA_ID")); }

void stripBlanks(CharString& text) {
  text.stripLeading(L' ');
  text.stripTrailing(L' ');
}

CharString strippedVariable(const char* name) {
  CharString value = CharString::getEnvVar(name);
  stripBlanks(value);
  return value;
}

const char* traceVariable() noexcept {
  for (const Role& role : roles) {
    if (startsWithLetters(processId(), role.name) && std::getenv(role.variable) != nullptr) {
      return role.variable;
    }
  }
  return variableOfOthers;
}

bool isHostSelected() {
  CharString hosts = strippedVariable(environmentVariable("QVX_DBG_TRACEHOST"));
  if (hosts.length() == 0) {
    return true;
  }
  char name[256];
  errno = 0;
  if (gethostname(name, sizeof name) != 0 || errno != 0) {
    return false;
  }
  name[sizeof name - 1] = '\0';
  CharString fullName;
  fullName.loadFrom(name, static_cast<unsigned>(std::strlen(name)), EncodedString::native);
  CharString rest = fullName;
  const CharString firstPart = rest.firstToken(L".");
  while (hosts.length() != 0) {
    const CharString host = hosts.firstToken(L":");
    if (host.length() != 0 && (host == fullName || host == firstPart)) {
      return true;
    }
  }
  return false;
}

ByteString nameOf(std::string_view text) {
  return {text.data(), static_cast<unsigned>(text.size())};
}

// Index of `name` in `list`, its length when absent. Makes no strings, as that takes the
// string pool's lock, which a child forked by a busy process may find held for ever.
unsigned find(const List<ByteString*>& list, std::string_view name) noexcept {
  unsigned index = 0;
  while (index < list.count() && list[index]->view() != name) {
    ++index;
  }
  return index;
}

bool holds(const List<ByteString*>& list, std::string_view name) noexcept {
  return find(list, name) < list.count();
}

// Whether `text` is a number and nothing else. What does not fit is the largest number.
bool isNumber(const ByteString& text, unsigned long& number) noexcept {
  char behind = '\0';
  const unsigned char* bytes = text;
  return std::sscanf(reinterpret_cast<const char*>(bytes), "%lu%c", &number, &behind) == 1;
}

// Whether the native code page gives `bytes` back as they are when it has read them.
bool isNative(std::string_view bytes) {
  const auto length = static_cast<unsigned>(bytes.size());
  const EncodedString text(bytes.data(), length, EncodedString::native);
  return text.convert(EncodedString::native).view() == bytes;
}

// The output's name as it stands in the variable that a configuration was read from.
std::string_view nameInVariable(std::string_view variable) noexcept {
  const std::size_t start = std::min(variable.find_first_not_of(' '), variable.size());
  const std::string_view name = variable.substr(start, variable.find(',', start) - start);
  return name.substr(0, name.find_last_not_of(' ') + 1);
}

// Makes a stream of the trace's own ready. Each line is flushed anyway: without a buffer it
// goes out whole, in one system call. The trace's lock serves for the stream's.
void prepare(FILE* stream) noexcept {
  std::setvbuf(stream, nullptr, _IONBF, 0);
  __fsetlocking(stream, FSETLOCKING_BYCALLER);
}

// Opens the trace's own output for writing, emptied; null when that fails, also for a FIFO
// that nobody reads. Never waits, and gains no controlling terminal.
FILE* openEmptied(const char* name) noexcept {
  Descriptor file(
      open(name, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOCTTY | O_NONBLOCK, 0666));
  if (!file.isOpen()) {
    return nullptr;
  }
  fcntl(file.get(), F_SETFL, 0);  // a reader that is slow is waited for
  FILE* const stream = fdopen(file.get(), "w");
  if (stream != nullptr) {
    static_cast<void>(file.release());  // now the stream's
    prepare(stream);
  }
  return stream;
}

// Whether a write to `output` can raise SIGPIPE or SIGXFSZ.
bool canRaiseSignals(FILE* output) noexcept {
  struct stat info = {};
  struct rlimit limit = {};
  if (fstat(fileno(output), &info) != 0 || S_ISCHR(info.st_mode)) {
    return false;
  }
  return !S_ISREG(info.st_mode) || getrlimit(RLIMIT_FSIZE, &limit) != 0 ||
         limit.rlim_cur != RLIM_INFINITY;
}

// Writes `text` and flushes it.
// \return how much of it was written.
std::size_t writeToStream(FILE* output, std::string_view text,
                          const WriteSignals& signals) noexcept {
  const std::size_t written = std::fwrite(text.data(), 1, text.size(), output);
  if (written < text.size()) {
    signals.failed();
  }
  if (std::fflush(output) != 0) {
    signals.failed();
  }
  return written;
}

// The same for the trace's own output, in one system call. The first that is heard of a limit
// on file sizes that is new is that not all bytes found room; only the next write raises the
// signal.
std::size_t writeToFile(FILE* output, std::string_view text, WriteSignals& signals) noexcept {
  std::size_t written = 0;
  while (written < text.size()) {
    const ssize_t n = ::write(fileno(output), text.data() + written, text.size() - written);
    if (n <= 0) {
      signals.failed();
      break;
    }
    written += static_cast<std::size_t>(n);
    if (written < text.size()) {
      signals.block();
    }
  }
  return written;
}

// Used under the lock of the trace.
constinit LocalTime localTime;

// The text of ctime(), which ends in a newline.
class TimeText {
 public:
  explicit TimeText(std::time_t time) noexcept {
    std::tm parts = {};
    if (!localTime.breakDown(time, parts) || asctime_r(&parts, text_) == nullptr) {
      text_[0] = '\0';
    }
  }
  const char* get() const noexcept { return text_; }

 private:
  char text_[64];
};

// One line under composition. What does not fit is cut; the newline always fits.
class Line {
 public:
  explicit Line(std::span<char> buffer) noexcept
      : start_(buffer.data()), next_(start_), end_(start_ + buffer.size() - 1) {}

  void put(char c) noexcept {
    if (next_ != end_) {
      *next_++ = c;
    }
  }

  void put(std::string_view text) noexcept {
    const std::size_t n = std::min(text.size(), room());
    std::memcpy(next_, text.data(), n);
    next_ += n;
  }

  void put(int number) noexcept {
    char digits[16];
    const char* end = std::to_chars(digits, digits + sizeof digits, number).ptr;
    put({digits, static_cast<std::size_t>(end - digits)});
  }

  void putSixDigits(unsigned number) noexcept {
    char digits[6];
    for (char* digit = digits + sizeof digits; digit != digits; number /= 10) {
      *--digit = static_cast<char>('0' + number % 10);
    }
    put({digits, sizeof digits});
  }

  // Exactly `width` bytes: `text`, cut or padded with blanks.
  void putField(std::string_view text, std::size_t width) noexcept {
    text = text.substr(0, width);
    put(text);
    for (std::size_t n = text.size(); n < width; ++n) {
      put(' ');
    }
  }

  __attribute__((format(printf, 2, 0))) void putFormatted(const char* format,
                                                          va_list arguments) noexcept {
    *next_ = '\0';
    const int n = std::vsnprintf(next_, room() + 1, format, arguments);
    // A conversion that fails leaves the text before it.
    next_ += n < 0 ? strnlen(next_, room()) : std::min(static_cast<std::size_t>(n), room());
  }

  std::string_view finish() noexcept {
    *next_ = '\n';
    return {start_, static_cast<std::size_t>(next_ - start_) + 1};
  }

 private:
  std::size_t room() const noexcept { return static_cast<std::size_t>(end_ - next_); }

  char* start_;
  char* next_;
  char* end_;
};

// The buffers that lines are composed in; used under the lock of the trace.
//
// A line can begin inside another one of the same thread: a fatal-signal handler tells of a
// fault in a trace call, or a lock that the line needs complains in the trace. Such a line
// has a small buffer of its own, and one inside that is dropped. The small buffers also
// serve when there is no memory.
class LineBuffer {
 public:
  LineBuffer() noexcept { ++depth_; }
  LineBuffer(const LineBuffer&) = delete;
  LineBuffer& operator=(const LineBuffer&) = delete;
  ~LineBuffer() { --depth_; }

  bool isUsable() const noexcept { return depth_ <= deepest; }

  // Forgets one of the calling thread's lines, the innermost.
  // \return whether there was one.
  static bool abandon() noexcept {
    if (depth_ == 0) {
      return false;
    }
    --depth_;
    return true;
  }

  std::span<char> get() const noexcept {
    if (depth_ > 1) {
      return small_[1];
    }
    if (large_ == nullptr) {
      large_ = static_cast<char*>(std::malloc(largeSize));
    }
    return large_ != nullptr ? std::span<char>(large_, largeSize) : std::span<char>(small_[0]);
  }

 private:
  static constexpr unsigned deepest = 2;
  static constexpr std::size_t largeSize = 128000;

  // Lines that the thread is in.
  inline static constinit thread_local unsigned depth_ __attribute__((tls_model("initial-exec"))) =
      0;
  inline static char* large_ = nullptr;  // kept for the life of the process
  inline static char small_[deepest][2048] = {};
};

// The part of a signature text that is printed.
std::string_view functionName(const char* function) noexcept {
  const char* parenthesis = std::strchr(function, '(');
  return parenthesis != nullptr && parenthesis != function
             ? std::string_view(function, static_cast<std::size_t>(parenthesis - function))
             : std::string_view(function);
}

std::string_view currentThreadName() noexcept {
  try {
    const ByteString& name = StdThread::currentThread()->name();
    return name.view();
  } catch (...) {
    return "main";
  }
}

const char* orNull(const char* text) noexcept { return text != nullptr ? text : "(null)"; }

}  // namespace

// A tag of up to three pieces; null `text`: none.
struct TraceImplementation::Tag {
  const char* text;
  const char* separator = "";
  const char* detail = "";
};

TraceImplementation* TraceImplementation::instance(const wchar_t* configuration) noexcept {
  TraceImplementation* present = theTrace.load(std::memory_order_acquire);
  if (present != nullptr) {
    return present;
  }
  const KeepErrno keepErrno;
  const HoldRequests hold;
  auto* place = reinterpret_cast<TraceImplementation*>(storage);
  if (!theTrace.compare_exchange_strong(present, place, std::memory_order_acq_rel)) {
    return present;
  }
  // Whoever tests a switch while the trace is being built finds it off.
  traceFlags.clear();
  ::new (storage) TraceImplementation(configuration);
  // A line looks its thread up under the trace's lock, where the object "main" must not be made.
  static_cast<void>(currentThreadName());
  return place;
}

TraceImplementation::TraceImplementation(const wchar_t* configuration) noexcept
    : startCounter_(ElapsedTime::now()),
      startTime_(std::time(nullptr)),
      sizeLimit_(defaultSizeInMegabytes * megabyte) {
  try {
    configure(configuration);
  } catch (...) {
    outputName_.clear();
  }
}

TraceImplementation::~TraceImplementation() {
  const KeepErrno keepErrno;
  const HoldRequests hold;
  if (output_ != nullptr) {
    const LockGuard guard(lock_, "TraceImplementation::~TraceImplementation()", __LINE__);
    traceInternal("Trace end at %s", TimeText(std::time(nullptr)).get());
    if (output_ != stdout && output_ != stderr) {
      std::fclose(output_);
    }
    output_ = nullptr;
  }
  state_ = closed;
  flags.clear();
  traceFlags.clear();
  theTrace = nullptr;
  for (List<ByteString*>* list : {&excludeList_, &includeList_}) {
    for (const ByteString* name : *list) {
      delete name;
    }
  }
  std::free(ownedBuffer_);
}

// Taken around every fork, which also keeps a line from being half written in both processes.
bool AcrossFork::holdTrace() noexcept {
  TraceImplementation* const trace = theTrace.load(std::memory_order_acquire);
  if (trace != nullptr) {
    trace->lock_.request("bool AcrossFork::holdTrace()", __LINE__);
    localTime.prepareFork(std::time(nullptr));
  }
  return trace != nullptr;
}

void AcrossFork::releaseTrace() noexcept {
  if (TraceImplementation* trace = theTrace.load(std::memory_order_acquire); trace != nullptr) {
    trace->lock_.release("void AcrossFork::releaseTrace()", __LINE__);
  }
}

void TraceImplementation::abandonLines() noexcept {
  while (LineBuffer::abandon()) {
    lock_.release("void TraceImplementation::abandonLines()", __LINE__);
  }
}

void TraceImplementation::configure(const wchar_t* configuration) {
  const char* variable = configuration != nullptr ? nullptr : traceVariable();
  CharString text =
      configuration != nullptr ? CharString(configuration) : CharString::getEnvVar(variable);
  stripBlanks(text);
  if (text.length() == 0) {
    variable = environmentVariable("WZ4_DBG_TRACE");
    text = strippedVariable(variable);
  }
  if (isHostSelected()) {
    parse(text, variable != nullptr ? std::getenv(variable) : nullptr);
    openFiles();
  }
}

void TraceImplementation::parse(CharString configuration, const char* variable) {
  std::string_view bytes;
  if (configuration.length() != 0 && configuration[1] == L',') {
    outputName_ = L"stderr";
  } else {
    outputName_ = configuration.firstToken(L",");
    stripBlanks(outputName_);
    bytes = nameInVariable(variable != nullptr ? variable : "");
  }
  ByteString nativeName = outputName_.encoded().convert(EncodedString::native);
  if (!isNative(bytes)) {
    nativeName = nameOf(bytes);
  }
  ownedBuffer_ = strndup(nativeName.view().data(), nativeName.length());
  if (ownedBuffer_ == nullptr) {
    throw std::bad_alloc();
  }
  while (configuration.length() != 0) {
    CharString token = configuration.firstToken(L",");
    // Between two commas, and behind the last, there is no token; blanks are one.
    if (token.length() != 0) {
      stripBlanks(token);
      token.upper();
      parseToken(token);
    }
  }
  completeLists();
}

void TraceImplementation::parseToken(const CharString& token) {
  const ByteString name = token.encoded().convert(EncodedString::utf8);
  const std::string_view text = name.view();
  unsigned long size = 0;
  if (text.starts_with('~') || text.starts_with('!')) {
    const ByteString excluded = nameOf(text.substr(1));
    add(excludeList_, excluded);
    remove(includeList_, excluded);
  } else if (isNumber(name, size)) {
    if (size >= smallestSizeInMegabytes && size <= largestSizeInMegabytes) {
      sizeLimit_ = static_cast<unsigned>(size) * megabyte;
    }
  } else {
    add(includeList_, name);
    remove(excludeList_, name);
  }
}

void TraceImplementation::completeLists() {
  const bool includesSome = !includeList_.isEmpty() && !holds(includeList_, "ALL");
  if (includesSome) {
    for (const char* type : knownTypes) {
      excludeUnlessNamed(type);
    }
  } else {
    const bool includesAll = !includeList_.isEmpty();
    const bool excludesSome = !excludeList_.isEmpty();
    excludeUnlessNamed("CHILD");
    if (includesAll || excludesSome) {
      excludeUnlessNamed("TLS");
    }
    if (includesAll) {
      excludeUnlessNamed("ISD");
    }
    for (const char* type : knownTypes) {
      if (!holds(excludeList_, type)) {
        add(includeList_, nameOf(type));
      }
    }
  }
  for (const char* type : {"ERROR", "WARNING"}) {
    remove(excludeList_, nameOf(type));
    if (!includeList_.isEmpty()) {
      add(includeList_, nameOf(type));
    }
  }
}

void TraceImplementation::excludeUnlessNamed(const char* type) {
  if (!holds(includeList_, type)) {
    add(excludeList_, nameOf(type));
  }
}

void TraceImplementation::add(List<ByteString*>& list, const ByteString& name) {
  if (!holds(list, name.view())) {
    auto copy = std::make_unique<ByteString>(name);
    addOwned(list, copy.get(), copy);
  }
}

void TraceImplementation::remove(List<ByteString*>& list, const ByteString& name) {
  const unsigned index = find(list, name.view());
  if (index < list.count()) {
    delete list[index];
    list.removeAt(index);
  }
}

bool TraceImplementation::isIncluded(const ByteString& type) const noexcept {
  return holds(includeList_, type.view());
}

bool TraceImplementation::isExcluded(const ByteString& type) const noexcept {
  return holds(excludeList_, type.view());
}

bool TraceImplementation::isTraceBitSet(const char* type) const noexcept {
  if (outputName_.length() == 0) {
    return false;
  }
  return type == nullptr || holds(includeList_, type) || !holds(excludeList_, type);
}

bool TraceImplementation::isActive() const noexcept {
  return state_.load(std::memory_order_acquire) == active;
}

void TraceImplementation::refreshFlags() noexcept {
  flags.set(*this);
  for (unsigned type = 0; type < TraceFlags::size; ++type) {
    __atomic_store_n(&traceFlags.bytes[type], flags.bytes[type], __ATOMIC_RELEASE);
  }
}

void TraceImplementation::openFiles() noexcept {
  const KeepErrno keepErrno;
  const HoldRequests hold;
  State expected = closed;
  if (!state_.compare_exchange_strong(expected, opening)) {
    return;
  }
  refreshFlags();
  if (outputName_.length() == 0) {
    return;
  }
  const bool hasRole = std::any_of(std::begin(roles), std::end(roles), [](const Role& role) {
    return startsWithLetters(processId(), role.name);
  });
  // Without the type "PMD" only a process with a role traces: scripts configure it so.
  if (!flags[TraceType::pmd] && !hasRole) {
    return;
  }
  output_ = openOutput();
  if (output_ == nullptr) {
    reopenInChild_ = false;
    return;
  }
  reopenInChild_ = reopenInChild_ && isTraceBitSet("CHILD");
  rewindPoint_ = 0;
  currentSize_ = 0;
  inspectOutput();
  state_.store(active, std::memory_order_release);
  refreshFlags();
  writeHeader();
  setRewindPoint();
}

bool TraceImplementation::isStandard() const noexcept {
  return std::wcscmp(outputName_, L"stdout") == 0 || std::wcscmp(outputName_, L"stderr") == 0;
}

FILE* TraceImplementation::openOutput() noexcept {
  if (isStandard()) {
    reopenInChild_ = true;
    return openStandard(std::wcscmp(outputName_, L"stdout") == 0 ? stdout : stderr);
  }
  return openNamed();
}

FILE* TraceImplementation::openStandard(FILE* stream) noexcept {
  if (standardCopy_ == notTaken) {
    return stream;
  }
  FILE* copy = fdopen(standardCopy_, "w");
  if (copy != nullptr) {
    prepare(copy);
  } else if (const int unused = std::exchange(standardCopy_, noCopy); unused >= 0) {
    close(unused);
  }
  return copy;
}

FILE* TraceImplementation::openNamed() noexcept {
  const char* name = ownedBuffer_;
  char path[PATH_MAX];
  struct stat info;
  reopenInChild_ = stat(name, &info) == 0 && S_ISDIR(info.st_mode);
  if (reopenInChild_) {
    const char last = name[std::strlen(name) - 1];
    const char* id = processId();
    const int length = std::snprintf(
        path, sizeof path, "%s%s%s%s%ld.trc", name, last == '\\' || last == '/' ? "" : "/",
        id != nullptr ? id : "", id != nullptr ? "." : "", static_cast<long>(getpid()));
    if (static_cast<unsigned>(length) >= sizeof path) {
      return nullptr;
    }
    name = path;
  }
  return openEmptied(name);
}

void TraceImplementation::writeHeader() {
  const LockGuard guard(lock_, "void TraceImplementation::writeHeader()", __LINE__);
  const ProductData& product = productData();
  traceInternal("Trace start at %s", TimeText(startTime_).get());
  traceInternal("Debugger: %s;  Version: %s", product.name, product.version);
  traceInternal("Build Date: %s\n", product.buildDateAndTime);
  traceInternal("Included Trace types:");
  writeTypes(true);
  traceInternal("Excluded Trace types:");
  writeTypes(false);
  traceInternal("Trace size: %dMb", static_cast<int>(sizeLimit_ / megabyte));
}

void TraceImplementation::writeTypes(bool included) {
  for (const char* type : knownTypes) {
    if (isTraceBitSet(type) == included) {
      traceInternal("  %s", type);
    }
  }
}

void TraceImplementation::taggedTrace(const char* function, unsigned line, const char* tag,
                                      const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  writeLine(function, line, {tag}, format, arguments);
  va_end(arguments);
}

void TraceImplementation::trace(const char* function, unsigned line, const char* tag,
                                const char* format, va_list arguments) {
  writeLine(function, line, {tag}, format, arguments);
}

void TraceImplementation::traceInternal(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  writeLine("void TraceImplementation::traceInternal(const char*, ...)", 718_place, {nullptr},
            format, arguments);
  va_end(arguments);
}

void TraceImplementation::_traceGMH(const char* function, unsigned line, const char* tag,
                                    const GMH_HandlerDiagnostic* handler, const char* format, ...) {
  const KeepErrno keepErrno;
  const Tag composed =
      handler != nullptr ? Tag{orNull(tag), "/", orNull(handler->diagnosticText())} : Tag{tag};
  va_list arguments;
  va_start(arguments, format);
  writeLine(function, line, composed, format, arguments);
  va_end(arguments);
}

void TraceImplementation::traceSession(const char* function, unsigned line, const char* tag,
                                       const void* session, const char* format, ...) {
  char address[32];
  std::snprintf(address, sizeof address, "%p", session);
  va_list arguments;
  va_start(arguments, format);
  writeLine(function, line, session != nullptr ? Tag{orNull(tag), " ", address} : Tag{tag}, format,
            arguments);
  va_end(arguments);
}

void TraceImplementation::writeLine(const char* function, unsigned line, const Tag& tag,
                                    const char* format, va_list arguments) {
  if (!isActive() || !flags[TraceType::active]) {
    return;
  }
  const KeepErrno keepErrno;
  const HeldLock held(
      lock_,
      "void TraceImplementation::trace(const char*, unsigned int, const char*, const char*, "
      "va_list)",
      __LINE__);
  const LineBuffer buffer;
  if (output_ == nullptr || !buffer.isUsable()) {
    return;
  }
  Line text(buffer.get());
  if (*format == '\n') {
    text.put('\n');
    ++format;
  }
  const std::uint64_t elapsed = ElapsedTime::now() - startCounter_;
  text.put(clockText(startTime_ + static_cast<std::time_t>(elapsed / microsecondsPerSecond)));
  text.putSixDigits(static_cast<unsigned>(elapsed % microsecondsPerSecond));
  text.put(" (");
  text.putField(currentThreadName(), 8);
  text.put(')');
  if (tag.text != nullptr) {
    text.put("**");
    text.put(tag.text);
    text.put(tag.separator);
    text.put(tag.detail);
    text.put(": ");
  }
  if (function != nullptr) {
    text.put(functionName(function));
    if (line != 0) {
      text.put('(');
      text.put(static_cast<int>(line));
      text.put(')');
    }
    text.put(": ");
  }
  text.putFormatted(format, arguments);
  write(text.finish(), sizeLimit_);
}

// Hours, minutes and seconds of `second`, broken down anew only when it has changed. What the
// program may do to the output's file and its limits is looked at as often.
const char* TraceImplementation::clockText(std::time_t second) noexcept {
  if (second != clockSecond_) {
    std::tm parts = {};
    static_cast<void>(localTime.breakDown(second, parts));
    std::snprintf(clockText_, sizeof clockText_, "%.2u:%.2u:%.2u.",
                  static_cast<unsigned>(parts.tm_hour), static_cast<unsigned>(parts.tm_min),
                  static_cast<unsigned>(parts.tm_sec));
    clockSecond_ = second;
    mayRaiseSignals_ = canRaiseSignals(output_);
  }
  return clockText_;
}

// What a new output is. Whether a file holds anything yet is seen before the first line.
void TraceImplementation::inspectOutput() noexcept {
  struct stat info = {};
  const int fd = fileno(output_);
  const bool isFile = fstat(fd, &info) == 0 && S_ISREG(info.st_mode);
  isShared_ = isStandard();
  const bool appends = isShared_ && (fcntl(fd, F_GETFL) & O_APPEND) != 0;
  layout_ = isFile && !appends ? Layout::ring : Layout::stream;
  fileSize_ = 0;
  if (isFile) {
    append(true);
  }
  mayRaiseSignals_ = canRaiseSignals(output_);
}

// Lines at the end of the trace's own file are appended, so that what somebody else has added
// meanwhile is not written over. A description that others share is left as they want it.
void TraceImplementation::append(bool on) noexcept {
  if (!isShared_) {
    fcntl(fileno(output_), F_SETFL, on ? O_APPEND : 0);
  }
}

// Whether the output stands where the trace has left it and, when asked for or at the end of
// the file anyway, whether the file has the size that the trace has given it. If not, the
// trace goes on at the end: for good where anybody else has written, behind a new rewind point
// where the file was cut.
bool TraceImplementation::isAsLeft(bool asksForSize) noexcept {
  const int fd = fileno(output_);
  const bool isAtEnd = currentSize_ == fileSize_;
  struct stat info = {};
  if (lseek(fd, 0, isAtEnd ? SEEK_END : SEEK_CUR) == off_t{currentSize_} &&
      (isAtEnd || !asksForSize || (fstat(fd, &info) == 0 && info.st_size == fileSize_))) {
    return true;
  }
  append(true);
  if (isShared_) {
    fseeko(output_, 0, SEEK_END);  // the stream keeps count of its position, too
  }
  const off_t size = lseek(fd, 0, SEEK_END);
  if (size >= 0 && size < fileSize_) {
    fileSize_ = size;
    currentSize_ = static_cast<unsigned>(size);
    rewindPoint_ = currentSize_;
  } else {
    layout_ = isShared_ ? Layout::mixed : Layout::stream;
  }
  return false;
}

// Puts the output where the next `length` bytes belong: behind the last line; or at the rewind
// point, when more than `limit` bytes would stand behind that. Cuts and overwrites only what
// the trace has written.
void TraceImplementation::findPlace(unsigned length, unsigned limit) noexcept {
  const bool isFull = limit < currentSize_ + length - rewindPoint_;
  const int fd = fileno(output_);
  if (layout_ == Layout::mixed) {
    lseek(fd, 0, SEEK_END);
  } else if (layout_ == Layout::ring) {
    // The line that passes the end of the pass before: from there on the file grows again.
    const bool outgrows = currentSize_ < fileSize_ && fileSize_ < off_t{currentSize_} + length;
    const bool cuts = isFull || outgrows;
    if ((cuts || isShared_) && isAsLeft(cuts) && cuts) {
      // What the present pass has not overwritten of the one before would stay behind it.
      if (ftruncate(fd, currentSize_) == 0) {
        fileSize_ = currentSize_;
      }
      append(!isFull);
      if (isFull) {
        fseeko(output_, rewindPoint_, SEEK_SET);
      }
    }
  }
  if (isFull) {
    currentSize_ = rewindPoint_;
  }
}

// Writes and flushes `text`, a line or, without `limit`, the separator.
void TraceImplementation::write(std::string_view text, unsigned limit) noexcept {
  WriteSignals signals;
  if (mayRaiseSignals_) {
    signals.block();
  }
  // What the program has printed comes first.
  if (isShared_ && layout_ != Layout::stream && std::fflush(output_) != 0) {
    signals.failed();
  }
  findPlace(static_cast<unsigned>(text.size()), limit);
  const std::size_t written =
      isShared_ ? writeToStream(output_, text, signals) : writeToFile(output_, text, signals);
  mayRaiseSignals_ = signals.areBlocked();
  currentSize_ += static_cast<unsigned>(written);
  fileSize_ = std::max(fileSize_, off_t{currentSize_});
}

unsigned TraceImplementation::setRewindPoint() {
  const KeepErrno keepErrno;
  const HeldLock held(lock_, "unsigned int TraceImplementation::setRewindPoint()", __LINE__);
  if (output_ != nullptr) {
    write(separatorLine, noLimit);
    rewindPoint_ = currentSize_;
  }
  return rewindPoint_;
}

int TraceImplementation::wrap() {
  return flags[TraceType::active] ? static_cast<int>(setRewindPoint()) : 0;
}

bool TraceImplementation::pause(bool on) noexcept {
  if (!flags[TraceType::active]) {
    return true;
  }
  if (on) {
    ++pauseCount_;
  } else if (pauseCount_ > 0) {
    --pauseCount_;
  }
  state_.store(pauseCount_ != 0 ? paused : active, std::memory_order_release);
  return pauseCount_ != 0;
}

void TraceImplementation::processForked() noexcept {
  if (!flags[TraceType::active] || output_ == nullptr) {
    return;
  }
  const KeepErrno keepErrno;
  const HoldRequests hold;
  if (isStandard()) {
    // Without a copy there is none to go on with: the stream itself must not be used again.
    standardCopy_ =
        reopenInChild_ ? fcntl(fileno(output_), F_DUPFD_CLOEXEC, STDERR_FILENO + 1) : noCopy;
  }
  WriteSignals signals;
  signals.block();
  if (std::fflush(output_) != 0) {
    signals.failed();
    __fpurge(output_);  // or it would be tried again
  }
  std::fclose(output_);
  output_ = nullptr;
  state_.store(closed, std::memory_order_release);
  refreshFlags();
  if (reopenInChild_) {
    openFiles();
  }
}

TraceImplementation* traceImplementation() noexcept {
  return TraceImplementation::instance(nullptr);
}

// The low interface of TraceFlags.h.

void TraceFlags::set(TraceImplementation& trace) {
  const auto store = [this](TraceType type, bool value) {
    __atomic_store_n(&bytes[static_cast<unsigned>(type)], static_cast<unsigned char>(value),
                     __ATOMIC_RELEASE);
  };
  for (unsigned type = 1; type < size; ++type) {
    const auto kind = static_cast<TraceType>(type);
    store(kind, trace.isTraceBitSet(traceTag(kind)));
  }
  store(TraceType::active, trace.isActive());
}

bool decideTrace(TraceType type) {
  static_cast<void>(traceImplementation());
  return traceFlags[type];
}

void abandonTraceLines() noexcept {
  if (TraceImplementation* trace = theTrace.load(std::memory_order_acquire); trace != nullptr) {
    trace->abandonLines();
  }
}

void taggedTrace(const char* function, unsigned line, const char* tag, const char* format, ...) {
  if (!isTraced(TraceType::active)) {
    return;
  }
  va_list arguments;
  va_start(arguments, format);
  traceImplementation()->trace(function, line, tag, format, arguments);
  va_end(arguments);
}
