// The reader of traces: whatever a file holds, and whenever it was changed last, lines come out
// once, whole and in an order, and the parts of each are parts of it.

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdlib>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

#include "fuzz/Fuzz.h"
#include "programs/enginetrace/LineStart.h"
#include "programs/enginetrace/TraceFile.h"

namespace {

bool isPart(std::string_view part, std::string_view whole) {
  return part.empty() ||
         (part.data() >= whole.data() && part.data() + part.size() <= whole.data() + whole.size());
}

void checkParts(std::string_view line) {
  const ExactBytes exact(line);
  const std::string_view whole(exact.data(), exact.size());
  const Parts parts = partsOf(whole);
  for (const std::string_view part :
       {parts.thread, parts.type, parts.detail, parts.function, parts.text}) {
    FUZZ_CHECK(isPart(part, whole));
  }
  FUZZ_CHECK(whole.ends_with(parts.text));
  FUZZ_CHECK(typeOf(whole) == parts.type);
}

void checkLine(const TraceFile& file, const Line& line, std::string_view bytes) {
  FUZZ_CHECK(line.process != nullptr);
  FUZZ_CHECK(file.place() <= bytes.size());
  FUZZ_CHECK(bytes.substr(file.place(), line.whole.size()) == line.whole);
}

void checkSmall(const std::string& path, const std::string& bytes) {
  TraceFile file(path);
  std::string lines;
  Line line;
  while (file.next(line)) {
    FUZZ_CHECK(beginsLine(line.whole));
    checkLine(file, line, bytes);
    checkParts(line.whole);
    lines += line.whole;
    lines += '\n';
  }
  FUZZ_CHECK(lines.size() <= bytes.size() + 1);
  FUZZ_CHECK(file.facts().unreadBytes <= bytes.size());
  file.rewind();
  std::string again;
  for (std::string_view some; !(some = file.nextBytes()).empty();) {
    again += some;
  }
  FUZZ_CHECK(again == lines);
}

// Others write to the file while it is read: then lines may be missing or mixed, and that is all.
void checkWrittenTo(const MemoryFile& memory, size_t at, const std::string& written) {
  TraceFile file(memory.path());
  if (written.empty()) {
    FUZZ_CHECK(ftruncate(memory.descriptor(), static_cast<off_t>(at)) == 0);
  } else {
    FUZZ_CHECK(pwrite(memory.descriptor(), written.data(), written.size(),
                      static_cast<off_t>(at)) == static_cast<ssize_t>(written.size()));
  }
  const size_t size = std::max<size_t>(memory.bytes().size(), file.facts().size);
  size_t read = 0;
  Line line;
  while (file.next(line)) {
    checkParts(line.whole);
    read += line.whole.size();
  }
  FUZZ_CHECK(read <= size + 1);
  file.rewind();
  read = 0;
  for (std::string_view some; !(some = file.nextBytes()).empty();) {
    read += some.size();
  }
  FUZZ_CHECK(read <= size + 1);
}

// The first lines will do.
void checkLarge(const std::string& path, std::string_view bytes) {
  constexpr int enough = 32;
  TraceFile file(path);
  FUZZ_CHECK(file.facts().size == bytes.size());
  Line line;
  for (int lines = 0; lines < enough && file.next(line); ++lines) {
    checkLine(file, line, bytes);
  }
  file.rewind();
  std::string_view some;
  for (int blocks = 0; blocks < enough && !(some = file.nextBytes()).empty(); ++blocks) {
    FUZZ_CHECK(some.size() <= bytes.size());
  }
}

// "root.1.trc" is process 1 in the role "root", "1.trc" has no role; any other name is a mark only.
void checkName(const std::string& path) {
  const Process process = processOf(path);
  FUZZ_CHECK(process.path == path);
  const size_t slash = path.rfind('/');
  const std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
  const std::string stem = name.ends_with(".trc") ? name.substr(0, name.size() - 4) : "";
  const size_t dot = stem.rfind('.');
  const std::string digits = dot == std::string::npos ? stem : stem.substr(dot + 1);
  const bool isNumber = !digits.empty() && digits.find_first_not_of("0123456789") == digits.npos &&
                        (digits.size() < 20 && std::stoull(digits) <= ~0U);
  FUZZ_CHECK(process.id == (isNumber ? std::stoul(digits) : 0));
  FUZZ_CHECK(process.role == (isNumber && dot != std::string::npos ? stem.substr(0, dot) : ""));
  FUZZ_CHECK(process.mark == (isNumber ? stem : name));
}

// Traces are long: what they have most of can be written as one character.
std::string inFull(const std::string& text) {
  std::string result;
  for (const char c : text) {
    switch (c) {
      case '@':
        result += " (main    )";
        break;
      case '$':
        result += "void TraceImplementation::traceInternal(718): ";
        break;
      case '#':
        result += separatorLine;
        break;
      default:
        result += c;
    }
  }
  return result;
}

std::string stampOf(long second) {
  constexpr long day = 86'400;
  second = (second % day + day) % day;
  std::array<char, 32> text = {};
  std::snprintf(text.data(), text.size(), "%02ld:%02ld:%02ld.000000 (main    )", second / 3600,
                second / 60 % 60, second % 60);
  return text.data();
}

// A file that is too large to be read from end to end when its order is plain. Few of its bytes are
// anything but zero: its beginning, and a line at each of the places that are looked at.
class LargeFile {
 public:
  // The number of the line that is the oldest, that of the first of some that are missing, the
  // seconds between two lines, the beginning, and what stands in the place of other lines, each
  // with its number.
  LargeFile(FuzzInput& input, const MemoryFile& file) {
    constexpr std::array steps = {1L, 0L, 90L, 700L};
    constexpr long newest = (13 * 60 + 37) * 60 + 13;
    const unsigned oldest = input.byte();
    const unsigned silentFrom = input.byte();
    const long step = steps[input.choice(steps.size())];
    put(0, beginningSize, inFull(input.text('\f')));
    for (unsigned i = 1; i <= lines; ++i) {
      const unsigned younger = i < oldest ? oldest - 1 - i : oldest - 1 + lines - i;
      const bool isThere = silentFrom == 0 || i < silentFrom || i >= silentFrom + silentLines;
      put(i * stride, lineSize, isThere ? '\n' + stampOf(newest - step * younger) : "");
    }
    while (!input.isEmpty()) {
      const unsigned at = 1 + input.byte();
      put(at * stride, lineSize, '\n' + inFull(input.text('\f')));
    }
    FUZZ_CHECK(ftruncate(file.descriptor(), 0) == 0);
    FUZZ_CHECK(ftruncate(file.descriptor(), static_cast<off_t>(bytes().size())) == 0);
    write(file, 0, beginningSize);
    for (unsigned i = 1; i <= lines; ++i) {
      write(file, i * stride, lineSize);
    }
  }

  static std::string& bytes() {
    static std::string all(lines * stride + stride / 2, '\0');
    return all;
  }

 private:
  static constexpr unsigned lines = 256;
  static constexpr unsigned silentLines = 20;
  static constexpr size_t stride = 65'536;
  static constexpr size_t lineSize = 128;
  static constexpr size_t beginningSize = 4096;

  static void put(size_t place, size_t size, std::string text) {
    text.resize(size);
    bytes().replace(place, size, text);
  }

  static void write(const MemoryFile& file, size_t place, size_t size) {
    FUZZ_CHECK(pwrite(file.descriptor(), bytes().data() + place, size, static_cast<off_t>(place)) ==
               static_cast<ssize_t>(size));
  }
};

// In this time zone just behind the usual newest line, in another one, some whole second, now,
// never, or some days later.
void date(const MemoryFile& file, unsigned kind) {
  constexpr time_t usual = 1'795'354'634;  // 2026-11-22 13:37:14 UTC
  const std::array<timespec, 6> changes = {{{usual, 500'000},
                                            {usual - 19'800, 500'000},
                                            {usual, 0},
                                            {0, UTIME_NOW},
                                            {-1, 0},
                                            {usual + 259'200, 1'000}}};
  const std::array<timespec, 2> times = {changes[kind], changes[kind]};
  FUZZ_CHECK(futimens(file.descriptor(), times.data()) == 0);
}

}  // namespace

void setUpFuzzing() { setenv("TZ", "UTC0", 1); }

// How the bytes are written, when they were written, how large the file is, whether it changes
// while it is read, a name of a file, and the bytes.
void fuzz(FuzzInput& input) {
  static const MemoryFile file;
  const bool isInFull = input.choice(2) == 0;
  const unsigned change = input.choice(6);
  const bool isLarge = input.choice(64) == 63;
  const bool isWrittenTo = input.choice(2) == 1;
  checkName(input.text());
  if (isLarge) {
    const LargeFile large(input, file);
    date(file, change);
  }
  const size_t changedAt = isWrittenTo ? input.word() % 1024 : 0;
  const std::string written = isWrittenTo ? inFull(input.text('\f')) : "";
  const std::string small = isInFull ? input.rest() : inFull(input.rest());
  if (!isLarge) {
    file.assign(small);
    date(file, change);
  }
  const std::string& bytes = isLarge ? LargeFile::bytes() : small;
  const bool isTrace = looksLikeATrace(bytes);
  try {
    if (isLarge) {
      checkLarge(file.path(), bytes);
    } else if (isWrittenTo) {
      checkWrittenTo(file, changedAt, written);
    } else {
      checkSmall(file.path(), bytes);
    }
    FUZZ_CHECK(isTrace);
  } catch (const NotATrace&) {
    FUZZ_CHECK(!isTrace);
  }
}
