// Arguments of processes: this one writes any bytes over its own, and what is stored of them is
// what the kernel gives to a plain reader, up to the end of the buffer and not beyond it. The line
// that the host shows of them can be read back.

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <memory>
#include <span>
#include <unistd.h>
#include <vector>

#include "Engine/utilities/ProcessTable.h"

#include "fuzz/Fuzz.h"
#include "programs/enginehost/ArgumentList.h"

namespace {

constexpr char unused = '~';

// Where the kernel reads the arguments of this process.
std::span<char> argumentArea() {
  static const std::span<char> area = [] {
    std::ifstream file("/proc/self/stat");
    std::string text;
    std::getline(file, text);
    // Fields 48 and 49; the name of the program, field 2, ends with the last ")".
    size_t at = text.rfind(')');
    for (int field = 2; field < 48; ++field) {
      at = text.find(' ', at) + 1;
    }
    char* end = nullptr;
    const unsigned long first = std::strtoul(text.c_str() + at, &end, 10);
    const unsigned long behind = std::strtoul(end, nullptr, 10);
    // NOLINTNEXTLINE(performance-no-int-to-ptr): the kernel writes it so.
    return std::span<char>(reinterpret_cast<char*>(first), behind - first);
  }();
  return area;
}

std::string argumentsOfThisProcess() {
  const int fd = open("/proc/self/cmdline", O_RDONLY | O_CLOEXEC);
  FUZZ_CHECK(fd >= 0);
  std::string result;
  char bytes[100];
  for (ssize_t n = 0; (n = read(fd, bytes, sizeof bytes)) > 0;) {
    result.append(bytes, static_cast<size_t>(n));
  }
  close(fd);
  return result;
}

void checkArguments(const std::string& expected, int length) {
  procentry64 entry = {getpid()};
  FUZZ_CHECK(getargs(nullptr, 0, nullptr, length) == -1);
  if (length <= 0) {
    char byte = unused;
    FUZZ_CHECK(getargs(&entry, sizeof entry, &byte, length) == -1);
    FUZZ_CHECK(byte == unused);
    return;
  }
  // The sanitizer guards what is behind.
  const auto size = static_cast<size_t>(length);
  const std::unique_ptr<char[]> bytes(new char[size]);
  std::memset(bytes.get(), unused, size);
  FUZZ_CHECK(getargs(&entry, sizeof entry, bytes.get(), length) == 0);
  const size_t stored = std::min(expected.size(), size - 1);
  FUZZ_CHECK(std::memcmp(bytes.get(), expected.data(), stored) == 0);
  FUZZ_CHECK(bytes[stored] == '\0');
  FUZZ_CHECK(std::all_of(bytes.get() + stored + 1, bytes.get() + size,
                         [](char c) { return c == unused; }));
}

// No process has a number below 1.
void checkNobody(int number) {
  procentry64 entry = {-number};
  char bytes[2] = {unused, unused};
  FUZZ_CHECK(getargs(&entry, sizeof entry, bytes, sizeof bytes) == -1);
  FUZZ_CHECK(bytes[0] == unused && bytes[1] == unused);
  FUZZ_CHECK(!argumentsOf(-number));
}

std::vector<std::string> split(const std::string& bytes) {
  std::vector<std::string> result;
  for (size_t at = 0; at < bytes.size();) {
    const size_t end = std::min(bytes.find('\0', at), bytes.size());
    result.push_back(bytes.substr(at, end - at));
    at = end + 1;
  }
  return result;
}

// Each argument as it is read back from the line that people are shown, by a reader of its own.
std::vector<std::string> readBack(const std::string& line, bool& isCut) {
  std::vector<std::string> result;
  isCut = false;
  size_t at = 0;
  while (at < line.size()) {
    FUZZ_CHECK(!isCut);
    std::string argument;
    if (line[at] != '"') {
      const size_t end = std::min(line.find(' ', at), line.size());
      argument = line.substr(at, end - at);
      at = end;
      FUZZ_CHECK(argument.find_first_of("\"\\") == std::string::npos && !argument.empty());
      isCut = argument == "...";
    } else {
      for (++at; line.at(at) != '"'; ++at) {
        const bool isEscape = line[at] == '\\';
        if (isEscape) {
          ++at;
        }
        if (isEscape && line.at(at) == 'x') {
          argument += static_cast<char>(std::stoi(line.substr(at + 1, 2), nullptr, 16));
          at += 2;
        } else {
          argument += line.at(at);
        }
      }
      ++at;
    }
    if (!isCut) {
      result.push_back(argument);
    }
    FUZZ_CHECK(at == line.size() || line[at] == ' ');
    at += at < line.size() ? 1 : 0;
  }
  return result;
}

void checkListing(const std::string& bytes, bool cut) {
  const ArgumentList list = {split(bytes), cut};
  const std::string line = shown(list);
  FUZZ_CHECK(std::none_of(line.begin(), line.end(), [](char c) {
    return static_cast<unsigned char>(c) < 0x20 || c == 0x7F;
  }));
  bool isCut = false;
  FUZZ_CHECK(readBack(line, isCut) == list.arguments);
  FUZZ_CHECK(isCut == cut);
}

}  // namespace

void setUpFuzzing() { static_cast<void>(argumentArea()); }

// The length of the buffer, whether the list is shown as cut, and the bytes.
void fuzz(FuzzInput& input) {
  const auto kind = input.choice(4);
  const bool isCut = input.choice(2) == 1;
  const unsigned number = input.byte();
  const std::string bytes = input.rest();
  checkListing(bytes, isCut);

  const std::span<char> area = argumentArea();
  const std::string before(area.begin(), area.end());
  // What does not fill the area leaves the old arguments behind it, or ends there.
  std::memcpy(area.data(), bytes.data(), std::min(bytes.size(), area.size()));
  const std::string expected = argumentsOfThisProcess();
  const auto size = static_cast<int>(expected.size());
  switch (kind) {
    case 0:
      checkArguments(expected, static_cast<int>(number));
      break;
    case 1:  // Around the size of the list.
      checkArguments(expected, size + static_cast<int>(number % 8) - 3);
      break;
    case 2:
      checkArguments(expected, number < 128 ? -static_cast<int>(number) : INT_MIN);
      checkNobody(static_cast<int>(number));
      break;
    default:
      checkArguments(expected, 4096 + static_cast<int>(number));
      FUZZ_CHECK(argumentsOf(getpid())->arguments == split(expected));
      break;
  }
  std::memcpy(area.data(), before.data(), before.size());
}
