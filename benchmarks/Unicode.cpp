#include <memory>
#include <string>
#include <vector>

#include <glib.h>
#include <unicode/ustring.h>
#include <unicode/utf8.h>

#include "Engine/utilities/UnicodeUtilities.h"

#include "benchmarks/Comparison.h"
#include "benchmarks/Texts.h"

namespace {

bool validInICU(const char* p, std::size_t n) {
  const auto* const bytes = reinterpret_cast<const std::uint8_t*>(p);
  const auto length = static_cast<std::int32_t>(n);
  std::int32_t i = 0;
  while (i < length) {
    UChar32 c;
    U8_NEXT(bytes, i, length, c);
    if (c < 0) {
      return false;
    }
  }
  return true;
}

unsigned countInICU(const char* p, std::size_t n) {
  const auto* const bytes = reinterpret_cast<const std::uint8_t*>(p);
  const auto length = static_cast<std::int32_t>(n);
  unsigned count = 0;
  for (std::int32_t i = 0; i < length; ++count) {
    U8_FWD_1(bytes, i, length);
  }
  return count;
}

unsigned decodeInICU(const char* p, std::size_t n, UChar32* out) {
  const auto* const bytes = reinterpret_cast<const std::uint8_t*>(p);
  const auto length = static_cast<std::int32_t>(n);
  UChar32* next = out;
  for (std::int32_t i = 0; i < length; ++next) {
    U8_NEXT(bytes, i, length, *next);
  }
  *next++ = 0;
  return static_cast<unsigned>(next - out);
}

/// ICU's own form is UTF-16: as many units as values in the texts here.
unsigned decodeInICU16(const char* p, std::size_t n, UChar* out, std::size_t capacity) {
  UErrorCode error = U_ZERO_ERROR;
  std::int32_t written = 0;
  u_strFromUTF8(out, static_cast<std::int32_t>(capacity), &written, p, static_cast<std::int32_t>(n),
                &error);
  return static_cast<unsigned>(written) + 1;
}

void compareValidity(const std::string& kind, const std::string& text) {
  const std::string what = "UTF-8: validity, " + kind;
  require(UnicodeUtilities::isValid(text.data(), static_cast<unsigned>(text.size())) &&
              g_utf8_validate(text.data(), static_cast<gssize>(text.size()), nullptr) &&
              validInICU(text.data(), text.size()),
          what);
  compare(
      what,
      [text] {
        benchmark::DoNotOptimize(
            UnicodeUtilities::isValid(text.data(), static_cast<unsigned>(text.size())));
      },
      "g_utf8_validate",
      [text] {
        benchmark::DoNotOptimize(
            g_utf8_validate(text.data(), static_cast<gssize>(text.size()), nullptr));
      });
  addPeer(what, "ICU U8_NEXT",
          [text] { benchmark::DoNotOptimize(validInICU(text.data(), text.size())); });
}

void compareCounting(const std::string& kind, const std::string& text) {
  const std::string what = "UTF-8: count, " + kind;
  const auto size = static_cast<unsigned>(text.size());
  const unsigned count = UnicodeUtilities::charCount(text.data(), size);
  require(count == static_cast<unsigned>(g_utf8_strlen(text.data(), size)) &&
              count == countInICU(text.data(), size),
          what);
  compare(
      what,
      [text] {
        benchmark::DoNotOptimize(
            UnicodeUtilities::charCount(text.data(), static_cast<unsigned>(text.size())));
      },
      "g_utf8_strlen",
      [text] {
        benchmark::DoNotOptimize(g_utf8_strlen(text.data(), static_cast<gssize>(text.size())));
      });
  addPeer(what, "ICU U8_FWD_1",
          [text] { benchmark::DoNotOptimize(countInICU(text.data(), text.size())); });
}

void compareDecoding(const std::string& kind, const std::string& text) {
  const auto size = static_cast<unsigned>(text.size());
  const auto ours = std::make_shared<std::vector<wchar_t>>(size + 1);
  const auto icu = std::make_shared<std::vector<UChar32>>(size + 1);
  const auto icu16 = std::make_shared<std::vector<UChar>>(size + 1);

  const std::string into = "UTF-8: decode into an area, " + kind;
  const unsigned count = UnicodeUtilities::utf8toUnicode(text.data(), size, ours->data(), size + 1);
  require(count == decodeInICU(text.data(), size, icu->data()) &&
              count == decodeInICU16(text.data(), size, icu16->data(), size + 1),
          into);
  for (unsigned i = 0; i < count; ++i) {
    require((*ours)[i] == (*icu)[i] && (*icu)[i] == (*icu16)[i], into);
  }
  compare(
      into,
      [text, ours] {
        benchmark::DoNotOptimize(
            UnicodeUtilities::utf8toUnicode(text.data(), static_cast<unsigned>(text.size()),
                                            ours->data(), static_cast<unsigned>(ours->size())));
      },
      "u_strFromUTF8 (to UTF-16)",
      [text, icu16] {
        benchmark::DoNotOptimize(
            decodeInICU16(text.data(), text.size(), icu16->data(), icu16->size()));
      });
  addPeer(into, "ICU U8_NEXT", [text, icu] {
    benchmark::DoNotOptimize(decodeInICU(text.data(), text.size(), icu->data()));
  });

  // GLib counts, then allocates just as much.
  compare(
      "UTF-8: count, allocate and decode, " + kind,
      [text] {
        const auto bytes = static_cast<unsigned>(text.size());
        const unsigned values = UnicodeUtilities::charCount(text.data(), bytes) + 1;
        auto* const area = static_cast<wchar_t*>(g_malloc(values * sizeof(wchar_t)));
        benchmark::DoNotOptimize(UnicodeUtilities::utf8toUnicode(text.data(), bytes, area, values));
        g_free(area);
      },
      "g_utf8_to_ucs4_fast",
      [text] {
        gunichar* const area =
            g_utf8_to_ucs4_fast(text.data(), static_cast<glong>(text.size()), nullptr);
        benchmark::DoNotOptimize(area);
        g_free(area);
      });
}

}  // namespace

void compareUnicode() {
  const std::pair<const char*, std::string> texts[] = {
      {"ASCII 4 KB", asciiText()}, {"Latin 4 KB", latinText()}, {"Japanese 4 KB", japaneseText()}};
  for (const auto& [kind, text] : texts) {
    compareValidity(kind, text);
    compareCounting(kind, text);
    compareDecoding(kind, text);
  }
}
