#include "CodePageStreams.h"

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <iconv.h>
#include <limits>

#include "Engine/utilities/ByteString.h"
#include "Engine/utilities/CharString.h"
#include "Engine/utilities/EBCDICtableStore.h"
#include "Engine/utilities/EncodedString.h"
#include "Engine/utilities/Iconv.h"

namespace {

constexpr std::string_view nativeName = "native";
constexpr std::string_view escapesName = "escapes";

// Everything passes through wide text. iconv's own name for it would do, but for the one code page
// of that name: "WCHAR_T" is not converted to itself.
constexpr const char* wideName = "UCS-4LE";
static_assert(sizeof(wchar_t) == 4 && std::endian::native == std::endian::little);

constexpr wchar_t questionMark = L'?';

std::string_view bytesOf(std::wstring_view text) {
  return {reinterpret_cast<const char*>(text.data()), text.size() * sizeof(wchar_t)};
}

CharString charStringOf(std::wstring_view text) {
  return {text.data(), static_cast<unsigned>(text.size())};
}

// iconv over a text that comes in pieces, to wide text or from it.
class Pieces {
 public:
  Pieces(const char* to, const char* from)
      : descriptor_(to, from), toWide_(std::strcmp(to, wideName) == 0) {}

  bool isOpen() const { return descriptor_.isOpen(); }

  // A character that is cut at the end of a piece waits for the next one.
  std::string convert(std::string_view piece, bool isLast) {
    std::string output;
    pending_ += piece;
    std::string_view rest = pending_;
    while (!rest.empty()) {
      const int error = call(rest, output);
      if (rest.empty() || (error == EINVAL && !isLast)) {
        break;
      }
      if (error != E2BIG) {
        rest.remove_prefix(std::min(toWide_ ? 1 : sizeof(wchar_t), rest.size()));
        putQuestionMark(output);
      }
    }
    pending_.erase(0, pending_.size() - rest.size());
    if (isLast) {
      // What iconv holds back, and the way back to the initial shift state.
      char area[areaSize];
      char* out = area;
      std::size_t room = sizeof area;
      iconv(descriptor_.get(), nullptr, nullptr, &out, &room);
      output.append(area, out);
    }
    return output;
  }

 private:
  static constexpr std::size_t areaSize = 8192;

  // Takes what it converts off the input. Returns why it stopped, as `errno`.
  int call(std::string_view& input, std::string& output) {
    char area[areaSize];
    auto* in = const_cast<char*>(input.data());
    std::size_t left = input.size();
    char* out = area;
    std::size_t room = sizeof area;
    const bool failed = iconv(descriptor_.get(), &in, &left, &out, &room) == ~std::size_t{0};
    const int error = failed ? errno : 0;
    output.append(area, out);
    input.remove_prefix(input.size() - left);
    return error;
  }

  // In the form and shift state of the output.
  void putQuestionMark(std::string& output) {
    std::string_view mark = bytesOf({&questionMark, 1});
    if (toWide_) {
      output += mark;
    } else {
      call(mark, output);
    }
  }

  IconvDescriptor descriptor_;
  bool toWide_;
  std::string pending_;
};

class IconvReader : public CodePageReader {
 public:
  explicit IconvReader(const char* codePage) : pieces_(wideName, codePage) {}
  bool isOpen() const { return pieces_.isOpen(); }

  std::wstring read(std::string_view piece, bool isLast) override {
    const std::string bytes = pieces_.convert(piece, isLast);
    std::wstring text(bytes.size() / sizeof(wchar_t), L'\0');
    std::memcpy(text.data(), bytes.data(), text.size() * sizeof(wchar_t));
    return text;
  }

 private:
  Pieces pieces_;
};

class IconvWriter : public CodePageWriter {
 public:
  explicit IconvWriter(const char* codePage) : pieces_(codePage, wideName) {}
  bool isOpen() const { return pieces_.isOpen(); }

  std::string write(std::wstring_view piece, bool isLast) override {
    return pieces_.convert(bytesOf(piece), isLast);
  }

 private:
  Pieces pieces_;
};

// The store of this process holds the built-in table alone: one byte, one character.
class TableReader : public CodePageReader {
 public:
  explicit TableReader(const EBCDICtable& table) : table_(table) {}

  std::wstring read(std::string_view piece, bool /*isLast*/) override {
    return std::wstring(table_
                            .toUCS(reinterpret_cast<const unsigned char*>(piece.data()),
                                   static_cast<unsigned>(piece.size()))
                            .view());
  }

 private:
  const EBCDICtable& table_;
};

class TableWriter : public CodePageWriter {
 public:
  explicit TableWriter(const EBCDICtable& table) : table_(table) {}

  std::string write(std::wstring_view piece, bool /*isLast*/) override {
    return std::string(table_.fromUCS(piece.data(), static_cast<unsigned>(piece.size())).view());
  }

 private:
  const EBCDICtable& table_;
};

// The characters that escapes are replaced by as EncodedString::convertFromSlashU() does it; a
// value that no character has, which it takes, is one that cannot be read here.
std::wstring withoutEscapes(std::wstring_view text) {
  std::wstring result;
  while (!text.empty()) {
    const std::size_t digits = text.starts_with(L"\\u") ? 4 : text.starts_with(L"\\U") ? 8 : 0;
    const std::wstring number(text.substr(std::min<std::size_t>(2, text.size()), digits));
    if (digits == 0 || number.size() < digits ||
        number.find_first_not_of(L"0123456789abcdefABCDEF") != std::wstring::npos) {
      const std::size_t plain = std::min(text.find(L'\\', 1), text.size());
      result += text.substr(0, plain);
      text.remove_prefix(plain);
      continue;
    }
    const unsigned long value = std::stoul(number, nullptr, 16);
    result += value <= std::numeric_limits<std::int32_t>::max() ? static_cast<wchar_t>(value)
                                                                : questionMark;
    text.remove_prefix(2 + digits);
  }
  return result;
}

class EscapesReader : public IconvReader {
 public:
  EscapesReader() : IconvReader(EncodedString::nativeCodepage()) {}

  std::wstring read(std::string_view piece, bool isLast) override {
    pending_ += IconvReader::read(piece, isLast);
    const std::size_t whole = isLast ? pending_.size() : openEscape(pending_);
    std::wstring result = withoutEscapes(std::wstring_view(pending_).substr(0, whole));
    pending_.erase(0, whole);
    return result;
  }

 private:
  // Where an escape starts that may go on in the next piece; the end when there is none.
  static std::size_t openEscape(std::wstring_view text) {
    constexpr std::size_t shortEscape = sizeof "\\uhhhh" - 1;
    constexpr std::size_t longEscape = sizeof "\\Uhhhhhhhh" - 1;
    const std::size_t start = text.rfind(L'\\');
    if (start == std::wstring_view::npos) {
      return text.size();
    }
    const std::wstring_view escape = text.substr(start);
    const bool isOpen = escape.size() == 1 || (escape[1] == L'u' && escape.size() < shortEscape) ||
                        (escape[1] == L'U' && escape.size() < longEscape);
    return isOpen ? start : text.size();
  }

  std::wstring pending_;
};

class EscapesWriter : public CodePageWriter {
 public:
  std::string write(std::wstring_view piece, bool /*isLast*/) override {
    return std::string(EncodedString(charStringOf(piece)).convert(EncodedString::slashU).view());
  }
};

// Null when iconv does not know the code page. An empty name, also one in front of iconv's
// suffixes, would mean the one of the locale.
template <class Iconv>
std::unique_ptr<Iconv> iconvFor(const char* codePage) {
  if (*codePage == '\0' || *codePage == '/') {
    return nullptr;
  }
  auto result = std::make_unique<Iconv>(codePage);
  return result->isOpen() ? std::move(result) : nullptr;
}

const EBCDICtable* tableFor(const char* name) {
  return *name != '\0' ? EBCDICtableStore::instance().find(name) : nullptr;
}

}  // namespace

std::unique_ptr<CodePageReader> codePageReader(const char* name) {
  if (name == escapesName) {
    auto result = std::make_unique<EscapesReader>();
    return result->isOpen() ? std::move(result) : nullptr;
  }
  if (const EBCDICtable* const table = tableFor(name)) {
    return std::make_unique<TableReader>(*table);
  }
  return iconvFor<IconvReader>(name == nativeName ? EncodedString::nativeCodepage() : name);
}

std::unique_ptr<CodePageWriter> codePageWriter(const char* name) {
  if (name == escapesName) {
    return std::make_unique<EscapesWriter>();
  }
  if (const EBCDICtable* const table = tableFor(name)) {
    return std::make_unique<TableWriter>(*table);
  }
  return iconvFor<IconvWriter>(name == nativeName ? EncodedString::nativeCodepage() : name);
}
