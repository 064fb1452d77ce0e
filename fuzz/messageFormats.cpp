// Messages as formats: what is said of a text that printf() is to read is what printf() makes of
// it, and a text that may stand for another is formatted with the other's arguments.

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <cwchar>
#include <printf.h>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz/Fuzz.h"
#include "programs/messagecompiler/Directives.h"

namespace {

// Far more than any message has.
constexpr unsigned mostArguments = 16;

// Longer ones cost time and prove nothing: no width or precision of more than three digits.
bool isCheap(std::string_view format) {
  size_t run = 0;
  for (const char c : format) {
    run = c >= '0' && c <= '9' ? run + 1 : 0;
    if (run > 3) {
      return false;
    }
  }
  return true;
}

// What the C library says of an argument's type, as far as it tells types apart: "%lc" is "%c".
int typeOf(const std::string& type) {
  switch (type.back()) {
    case 'c':
      return PA_CHAR;
    case 'C':
      return PA_WCHAR;
    case 's':
      return PA_STRING;
    case 'S':
      return PA_WSTRING;
    case 'p':
      return PA_POINTER;
    default:
      return std::strchr("eEfFgGaA", type.back()) != nullptr ? PA_DOUBLE
             : type.starts_with("hh")                        ? PA_CHAR
                                                             : PA_INT;
  }
}

// The arguments in the order of their numbers; none when one is missing in between, which no
// caller could give.
std::vector<std::string> typesOf(const Directives& directives) {
  std::vector<std::string> result;
  for (const auto& [number, type] : directives.arguments) {
    if (number != result.size() + 1) {
      return {};
    }
    result.push_back(type);
  }
  return result;
}

bool isWhole(const Directives& directives) {
  return directives.malformed == 0 && directives.arguments.size() <= mostArguments &&
         typesOf(directives).size() == directives.arguments.size();
}

void checkTypes(const std::string& format, const Directives& directives) {
  std::array<int, mostArguments> types = {};
  const size_t count = parse_printf_format(format.c_str(), types.size(), types.data());
  const std::vector<std::string> own = typesOf(directives);
  FUZZ_CHECK(count == own.size());
  for (size_t i = 0; i < count; ++i) {
    if (own[i].back() == 'n') {
      FUZZ_CHECK((types[i] & PA_FLAG_PTR) != 0);
      continue;
    }
    FUZZ_CHECK((types[i] & ~PA_FLAG_MASK) == typeOf(own[i]));
  }
}

// A list of arguments as the calling convention of x86-64 has those that the registers have no room
// for: one behind the other, in 8 bytes each, a long double in 16.
class Arguments {
 public:
  explicit Arguments(const std::vector<std::string>& types) {
    for (const std::string& type : types) {
      add(type);
    }
  }

  std::string format(const std::string& text) {
    // What a va_list holds: the registers are used up.
    const struct {
      unsigned nextGeneral = 6 * 8;
      unsigned nextFloating = 6 * 8 + 8 * 16;
      const void* inMemory = nullptr;
      const void* inRegisters = nullptr;
    } contents = {.inMemory = area_.data()};
    va_list list;
    static_assert(sizeof list == sizeof contents);
    std::memcpy(static_cast<void*>(list), &contents, sizeof list);
    std::array<char, 4096> result;
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): it is copied above.
    const int length = std::vsnprintf(result.data(), result.size(), text.c_str(), list);
    FUZZ_CHECK(length < 0 || std::strlen(result.data()) ==
                                 std::min(static_cast<size_t>(length), result.size() - 1));
    return result.data();
  }

 private:
  template <class T>
  void put(T value, size_t size) {
    static_assert(sizeof value <= 16);
    used_ = (used_ + size - 1) / size * size;
    FUZZ_CHECK(used_ + size <= area_.size());
    std::memcpy(area_.data() + used_, &value, sizeof value);
    used_ += size;
  }

  void add(const std::string& type) {
    const char conversion = type.back();
    const bool isLong = type.find('l') != std::string::npos;
    if (conversion == '*') {
      put(3, 8);
    } else if (conversion == 'n') {
      put(&written_, 8);
    } else if (conversion == 'S' || (conversion == 's' && isLong)) {
      put(L"wide", 8);
    } else if (conversion == 's') {
      put("text", 8);
    } else if (std::strchr("eEfFgGaA", conversion) != nullptr) {
      // What glibc takes "ll" and "q" for, too.
      const bool isLongDouble =
          type.find_first_of("Lq") != std::string::npos || type.find("ll") != std::string::npos;
      isLongDouble ? put(1.5L, 16) : put(2.5, 8);
    } else {
      put(65L, 8);
    }
  }

  alignas(16) std::array<char, std::size_t{16} * (mostArguments + 1)> area_ = {};
  size_t used_ = 0;
  long long written_ = 0;
};

}  // namespace

void setUpFuzzing() {}

// Two texts with a form feed between them.
void fuzz(FuzzInput& input) {
  const std::string base = upToZero(input.text('\f'));
  const std::string translated = upToZero(input.rest());
  const Directives directives = directivesOf(base);
  FUZZ_CHECK(directives == directivesOf(std::string_view(ExactBytes(base).data(), base.size())));
  if (!isWhole(directives) || !isCheap(base)) {
    return;
  }
  checkTypes(base, directives);
  const std::vector<std::string> types = typesOf(directives);
  Arguments(types).format(base);
  if (directivesOf(translated) == directives && isCheap(translated)) {
    checkTypes(translated, directives);
    Arguments(types).format(translated);
  }
}
