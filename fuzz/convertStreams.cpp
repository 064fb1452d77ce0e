// Text that comes in pieces from one code page to another, as the host's "-convert" does it: where
// the pieces end makes no difference, nothing is dropped, and what a code page can hold comes back.

#include <algorithm>
#include <array>
#include <memory>
#include <numeric>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz/Fuzz.h"
#include "programs/enginehost/CodePageStreams.h"
#include "programs/messagecompiler/Utf8.h"

namespace {

constexpr std::array codePages = {"UTF-8",
                                  "native",
                                  "escapes",
                                  "ISO-8859-1",
                                  "CP1252",
                                  "CP1258",
                                  "IBM1047",
                                  "Cp1047",
                                  "IBM939",
                                  "SHIFT_JIS",
                                  "EUC-JP",
                                  "ISO-2022-JP",
                                  "ISO-2022-KR",
                                  "BIG5",
                                  "GB18030",
                                  "BIG5-HKSCS",
                                  "UTF-16",
                                  "UTF-16LE",
                                  "UTF-32",
                                  "WCHAR_T",
                                  "UTF-7",
                                  "TSCII",
                                  "TCVN5712-1",
                                  "ASCII",
                                  "ISO-8859-1//TRANSLIT",
                                  "VKT-1047",
                                  "UCS-4",
                                  "no such",
                                  ""};

bool isKnown(std::string_view codePage) { return !codePage.empty() && codePage != "no such"; }

// Reads and writes the pieces, and an empty one behind them, as the end of a stream is noticed.
std::string converted(const char* from, const char* to,
                      const std::vector<std::string_view>& pieces) {
  const std::unique_ptr<CodePageReader> reader = codePageReader(from);
  const std::unique_ptr<CodePageWriter> writer = codePageWriter(to);
  FUZZ_CHECK(reader != nullptr && writer != nullptr);
  std::string result;
  for (const std::string_view piece : pieces) {
    const ExactBytes exact(piece);
    result += writer->write(reader->read({exact.data(), exact.size()}, false), false);
  }
  return result + writer->write(reader->read({}, true), true);
}

std::vector<std::string_view> cut(std::string_view text, size_t first, size_t length) {
  std::vector<std::string_view> pieces = {text.substr(0, std::min(first, text.size()))};
  for (size_t at = pieces[0].size(); at < text.size(); at += length) {
    pieces.push_back(text.substr(at, length));
  }
  return pieces;
}

}  // namespace

void setUpFuzzing() {
  for (const char* const codePage : codePages) {
    keepConversions(codePage);
  }
}

// The two code pages, the size of the first piece and of the others, and the text.
void fuzz(FuzzInput& input) {
  const char* const from = codePages[input.choice(codePages.size())];
  const char* const to = codePages[input.choice(codePages.size())];
  const size_t first = input.choice(64);
  const size_t others = 1 + input.choice(16);
  const std::string text = input.rest();
  FUZZ_CHECK((codePageReader(from) != nullptr) == isKnown(from));
  FUZZ_CHECK((codePageWriter(to) != nullptr) == isKnown(to));
  if (!isKnown(from) || !isKnown(to)) {
    return;
  }

  const std::string whole = converted(from, to, {text});
  FUZZ_CHECK(converted(from, to, cut(text, first, others)) == whole);

  // UTF-8 can hold all that is read; with values that are no characters, where iconv lets them
  // pass.
  const std::string read = converted(from, "UTF-8", {text});
  FUZZ_CHECK(utf8Text(read).isValid());
  const std::string written = converted("UTF-8", "UCS-4BE", {read});
  FUZZ_CHECK(converted("UCS-4BE", "UTF-8", {written}) == read);
  if (isUtf8(text)) {
    FUZZ_CHECK(converted("UTF-8", "UTF-8", {text}) == text);
    FUZZ_CHECK(converted("UTF-32", "native", {converted("native", "UTF-32", {text})}) == text);
  }
  // One byte, one character, in iconv's table and in the library's own.
  FUZZ_CHECK(converted("Cp1047", "UTF-32LE", {text}).size() == 4 * text.size());
  FUZZ_CHECK(converted("VKT-1047", "UTF-32LE", {text}).size() == 4 * text.size());
  FUZZ_CHECK(converted("VKT-1047", "VKT-1047", {text}) == text);
}
