#include "Engine/utilities/EBCDIC.h"

#include <iconv.h>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "Engine/utilities/EBCDICtable.h"
#include "Engine/utilities/Iconv.h"
#include "Engine/utilities/UnicodeUtilities.h"

#include "benchmarks/Comparison.h"
#include "benchmarks/Texts.h"

namespace {

/// One of the C library's conversions, into an area that is large enough for it.
class Peer {
 public:
  Peer(const char* to, const char* from, std::size_t room) : descriptor_(to, from), area_(room) {
    require(descriptor_.isOpen(), to);
  }

  std::string_view operator()(std::string_view bytes) {
    iconv(descriptor_.get(), nullptr, nullptr, nullptr, nullptr);
    auto* in = const_cast<char*>(bytes.data());
    std::size_t left = bytes.size();
    char* out = area_.data();
    std::size_t room = area_.size();
    iconv(descriptor_.get(), &in, &left, &out, &room);
    iconv(descriptor_.get(), nullptr, nullptr, &out, &room);
    return {area_.data(), area_.size() - room};
  }

 private:
  IconvDescriptor descriptor_;
  std::vector<char> area_;
};

std::shared_ptr<Peer> peer(const char* to, const char* from, std::size_t room) {
  return std::make_shared<Peer>(to, from, room);
}

const unsigned char* bytesOf(const std::string& text) {
  return reinterpret_cast<const unsigned char*>(text.data());
}

std::string_view asBytes(std::wstring_view text) {
  return {reinterpret_cast<const char*>(text.data()), text.size() * sizeof(wchar_t)};
}

std::wstring wide(const std::string& text) {
  std::wstring result(text.size() + 1, L'\0');
  const unsigned count =
      UnicodeUtilities::utf8toUnicode(text.data(), static_cast<unsigned>(text.size()),
                                      result.data(), static_cast<unsigned>(result.size()));
  result.resize(count - 1);
  return result;
}

/// What both sides take for the same: the line feed is where they differ.
std::string withoutLineFeeds(std::string text) {
  std::erase(text, '\n');
  return text;
}

/// All values that the C library takes both ways.
List<EBCDICtable::ValuePair> pairsOf(const char* codePage) {
  Peer read("WCHAR_T", codePage, 64);
  Peer write(codePage, "WCHAR_T", 64);
  List<EBCDICtable::ValuePair> pairs;
  for (unsigned value = 0; value < 0xFFFF; ++value) {
    const wchar_t c = static_cast<wchar_t>(value);
    const std::string bytes(write(asBytes({&c, 1})));
    if (read(bytes) == asBytes({&c, 1})) {
      const bool isDouble = bytes.size() > 1;
      const auto* const b = bytesOf(bytes);
      pairs.add({static_cast<unsigned short>(value),
                 static_cast<unsigned short>(isDouble ? b[1] << 8 | b[2] : b[0])});
    }
  }
  return pairs;
}

/// Values that have nothing to do with each other, as many as there are.
std::wstring scattered(const List<EBCDICtable::ValuePair>& pairs) {
  std::mt19937 random(5);
  std::wstring text;
  while (text.size() < 2048) {
    const EBCDICtable::ValuePair& pair = pairs[static_cast<unsigned>(random() % pairs.count())];
    if (pair.ebcdic > 0xFF) {
      text += static_cast<wchar_t>(pair.ucs);
    }
  }
  return text;
}

void compareTable(const std::string& kind, const std::shared_ptr<EBCDICtable>& table,
                  const char* codePage, const std::wstring& text) {
  const auto count = static_cast<unsigned>(text.size());
  const std::string bytes(Peer(codePage, "WCHAR_T", 4 * text.size())(asBytes(text)));
  const auto size = static_cast<unsigned>(bytes.size());

  const std::string from = "EBCDIC: write, " + kind;
  const ByteString written = table->fromUCS(text.data(), count);
  const unsigned char* const first = written;
  require(std::string(first, first + written.length()) == std::string(bytes.begin(), bytes.end()),
          from);
  const auto writer = peer(codePage, "WCHAR_T", 4 * text.size());
  compare(
      from,
      [table, text, count] {
        const ByteString result = table->fromUCS(text.data(), count);
        benchmark::DoNotOptimize(static_cast<const unsigned char*>(result));
      },
      "iconv", [writer, text] { benchmark::DoNotOptimize((*writer)(asBytes(text))); });

  const std::string to = "EBCDIC: read, " + kind;
  const CharString read = table->toUCS(bytesOf(bytes), size);
  const wchar_t* const values = read;
  require(std::wstring_view(values, read.length()) == text, to);
  const auto reader = peer("WCHAR_T", codePage, 4 * bytes.size());
  compare(
      to,
      [table, bytes, size] {
        const CharString result = table->toUCS(bytesOf(bytes), size);
        benchmark::DoNotOptimize(static_cast<const wchar_t*>(result));
      },
      "iconv", [reader, bytes] { benchmark::DoNotOptimize((*reader)(bytes)); });
}

void compareFixedTables() {
  const std::string text = withoutLineFeeds(asciiText());
  const auto size = static_cast<unsigned>(text.size());
  const auto area = std::make_shared<std::string>(text);
  const auto target = [area] { return reinterpret_cast<unsigned char*>(area->data()); };

  const std::string from = "EBCDIC: ASCII to 1047, 4 KB";
  const auto writer = peer("IBM1047", "ASCII", text.size());
  EBCDIC::fromUCS7bit(target(), bytesOf(text), size);
  const std::string bytes = *area;
  require((*writer)(text) == bytes, from);
  compare(
      from,
      [text, size, target] {
        benchmark::DoNotOptimize(EBCDIC::fromUCS7bit(target(), bytesOf(text), size));
      },
      "iconv", [writer, text] { benchmark::DoNotOptimize((*writer)(text)); });

  const std::string to = "EBCDIC: 1047 to ASCII, 4 KB";
  const auto reader = peer("ASCII", "IBM1047", text.size());
  EBCDIC::toUCS7bit(target(), bytesOf(bytes), size);
  require(*area == text && (*reader)(bytes) == text, to);
  compare(
      to,
      [bytes, size, target] {
        benchmark::DoNotOptimize(EBCDIC::toUCS7bit(target(), bytesOf(bytes), size));
      },
      "iconv", [reader, bytes] { benchmark::DoNotOptimize((*reader)(bytes)); });
}

}  // namespace

void compareEBCDIC() {
  compareFixedTables();
  const auto builtIn = std::make_shared<EBCDICtable>();
  compareTable("1047, ASCII 4 KB", builtIn, "IBM1047", wide(withoutLineFeeds(asciiText())));
  compareTable("1047, Latin 4 KB", builtIn, "IBM1047", wide(withoutLineFeeds(latinText())));
  const List<EBCDICtable::ValuePair> pairs = pairsOf("IBM939");
  const auto japanese = std::make_shared<EBCDICtable>(pairs, "IBM-939");
  compareTable("939, ASCII 4 KB", japanese, "IBM939", wide(withoutLineFeeds(asciiText())));
  compareTable("939, Japanese 4 KB", japanese, "IBM939", wide(withoutLineFeeds(japaneseText())));
  compareTable("939, scattered 4 KB", japanese, "IBM939", scattered(pairs));
}
