#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include <unicode/ucnv.h>
#include <unicode/ucnv_err.h>
#include <unicode/ustring.h>

#include "Engine/utilities/ByteString.h"
#include "Engine/utilities/EncodedString.h"
#include "Engine/utilities/UnicodeUtilities.h"

#include "benchmarks/Comparison.h"
#include "benchmarks/Texts.h"

namespace {

/// The escapes written the plain way.
std::string printed(const std::string& text) {
  std::string out;
  const char* p = text.data();
  const char* const end = p + text.size();
  while (p < end) {
    wchar_t c;
    p += UnicodeUtilities::utf8Encode(p, static_cast<unsigned>(end - p), c);
    if (c < 0x80) {
      out += static_cast<char>(c);
    } else {
      char escape[16];
      const int n = std::snprintf(escape, sizeof escape, c < 0x10000 ? "\\u%4.4x" : "\\U%8.8x",
                                  static_cast<unsigned>(c));
      out.append(escape, static_cast<std::size_t>(n));
    }
  }
  return out;
}

/// ICU's converter to ASCII, told to write what ASCII lacks as escapes (with upper-case
/// digits).
class Escaper {
 public:
  Escaper() {
    UErrorCode error = U_ZERO_ERROR;
    converter_.reset(ucnv_open("US-ASCII", &error));
    ucnv_setFromUCallBack(converter_.get(), UCNV_FROM_U_CALLBACK_ESCAPE, UCNV_ESCAPE_C, nullptr,
                          nullptr, &error);
    require(U_SUCCESS(error) != 0, "ICU's converter");
  }

  std::string operator()(const std::string& text) {
    UErrorCode error = U_ZERO_ERROR;
    units_.resize(text.size());
    std::int32_t units = 0;
    u_strFromUTF8(units_.data(), static_cast<std::int32_t>(units_.size()), &units, text.data(),
                  static_cast<std::int32_t>(text.size()), &error);
    bytes_.resize(text.size() * 6);
    const std::int32_t n =
        ucnv_fromUChars(converter_.get(), bytes_.data(), static_cast<std::int32_t>(bytes_.size()),
                        units_.data(), units, &error);
    return {bytes_.data(), static_cast<std::size_t>(n)};
  }

 private:
  struct Close {
    void operator()(UConverter* converter) const { ucnv_close(converter); }
  };
  std::unique_ptr<UConverter, Close> converter_;
  std::vector<UChar> units_;
  std::vector<char> bytes_;
};

std::string unescapedInICU(const std::string& text, std::vector<UChar>& units) {
  UErrorCode error = U_ZERO_ERROR;
  units.resize(text.size() + 1);
  const std::int32_t n =
      u_unescape(text.c_str(), units.data(), static_cast<std::int32_t>(units.size()));
  std::string out(static_cast<std::size_t>(n) * 3, '\0');
  std::int32_t length = 0;
  u_strToUTF8(out.data(), static_cast<std::int32_t>(out.size()), &length, units.data(), n, &error);
  out.resize(static_cast<std::size_t>(length));
  return out;
}

std::string lowered(std::string text) {
  for (char& c : text) {
    c = (c >= 'A' && c <= 'F') ? static_cast<char>(c + 32) : c;
  }
  return text;
}

void compareWriting(const std::string& kind, const std::string& text) {
  const std::string what = "slashU: write, " + kind;
  const EncodedString ours(text.data(), static_cast<unsigned>(text.size()), EncodedString::utf8);
  const auto escaper = std::make_shared<Escaper>();
  const std::string escaped = printed(text);
  require(ours.convert(EncodedString::slashU, nullptr).view() == escaped &&
              lowered((*escaper)(text)) == lowered(escaped),
          what);
  compare(
      what,
      [ours] {
        const ByteString bytes = ours.convert(EncodedString::slashU, nullptr);
        benchmark::DoNotOptimize(static_cast<const unsigned char*>(bytes));
      },
      "ICU UCNV_ESCAPE_C",
      [text, escaper] {
        const std::string bytes = (*escaper)(text);
        benchmark::DoNotOptimize(bytes.data());
      });
  addPeer(what, "snprintf", [text] {
    const std::string bytes = printed(text);
    benchmark::DoNotOptimize(bytes.data());
  });
}

void compareReading(const std::string& kind, const std::string& text) {
  const std::string what = "slashU: read, " + kind;
  const std::string escaped = printed(text);
  const auto units = std::make_shared<std::vector<UChar>>();
  const auto read = [escaped] {
    return EncodedString(escaped.data(), static_cast<unsigned>(escaped.size()),
                         EncodedString::slashU);
  };
  require(read().view() == text && unescapedInICU(escaped, *units) == text, what);
  compare(
      what,
      [read] {
        const EncodedString s = read();
        benchmark::DoNotOptimize(static_cast<const char*>(s));
      },
      "u_unescape",
      [escaped, units] {
        const std::string s = unescapedInICU(escaped, *units);
        benchmark::DoNotOptimize(s.data());
      });
}

}  // namespace

void compareEscapes() {
  const std::pair<const char*, std::string> texts[] = {
      {"ASCII 4 KB", asciiText()}, {"Latin 4 KB", latinText()}, {"Japanese 4 KB", japaneseText()}};
  for (const auto& [kind, text] : texts) {
    compareWriting(kind, text);
    compareReading(kind, text);
  }
}
