// Property files of any bytes, against a plain reading of them; and properties that are set,
// replaced and walked over, against a map.

#include <algorithm>
#include <cstdlib>
#include <map>
#include <optional>
#include <vector>

#include "Engine/utilities/FileName.h"
#include "Engine/utilities/Properties.h"
#include "Engine/utilities/StdException.h"

#include "fuzz/Fuzz.h"

namespace {

using Map = std::map<std::string, std::string>;

std::string stripped(const std::string& text) {
  constexpr const char* whiteSpace = " \t\n\r";
  const size_t first = text.find_first_not_of(whiteSpace);
  return first == std::string::npos
             ? std::string()
             : text.substr(first, text.find_last_not_of(whiteSpace) - first + 1);
}

// How many bytes follow a first byte of UTF-8; nothing for what is none.
std::optional<size_t> continuations(unsigned char c) {
  if (c < 0x80) {
    return 0;
  }
  for (size_t count = 1; count <= 5; ++count) {
    const unsigned ones = 0xFF00U >> (count + 1) & 0xFF;
    if ((c & (ones | 0x80U >> (count + 1))) == ones) {
      return count;
    }
  }
  return std::nullopt;
}

bool isUtf8(const std::string& text) {
  for (size_t at = 0; at < text.size();) {
    const std::optional<size_t> count = continuations(static_cast<unsigned char>(text[at]));
    if (!count || text.size() - at <= *count) {
      return false;
    }
    for (size_t i = 1; i <= *count; ++i) {
      if ((text[at + i] & 0xC0) != 0x80) {
        return false;
      }
    }
    at += *count + 1;
  }
  return true;
}

// The native code page is Latin-1.
std::string decoded(const std::string& bytes) {
  if (isUtf8(bytes)) {
    return bytes;
  }
  std::string result;
  for (const char c : upToZero(bytes)) {
    const auto code = static_cast<unsigned char>(c);
    if (code < 0x80) {
      result += c;
    } else {
      result += static_cast<char>(0xC0 | code >> 6);
      result += static_cast<char>(0x80 | (code & 0x3F));
    }
  }
  return result;
}

void readLine(Map& expected, std::string line) {
  line = line.substr(0, line.find('#'));
  const size_t equals = std::min(line.find('='), line.size());
  const size_t behind = std::min(line.find_first_not_of('=', equals), line.size());
  const std::string key = decoded(stripped(line.substr(0, equals)));
  if (!key.empty()) {
    expected[key] = decoded(stripped(line.substr(behind)));
  }
}

void readLines(Map& expected, const std::string& bytes) {
  for (size_t at = 0; at < bytes.size();) {
    const size_t end = std::min(bytes.find('\n', at), bytes.size());
    readLine(expected, bytes.substr(at, end - at));
    at = end + 1;
  }
}

// A file of these bytes.
const FileName& fileOf(const std::string& bytes) {
  static const MemoryFile file;
  static const FileName name(file.path().c_str(), EncodedString::utf8);
  file.assign(bytes);
  return name;
}

// What "%d" and then nothing more makes of a zero-terminated text.
std::optional<int> integerIn(const std::string& text) {
  const char* const start = text.c_str();
  char* end = nullptr;
  const long number = std::strtol(start, &end, 10);
  if (end == start || *end != '\0') {
    return std::nullopt;
  }
  return static_cast<int>(number);
}

void checkInteger(const Properties& properties, const EncodedString& key,
                  const std::optional<int>& expected) {
  try {
    FUZZ_CHECK(properties.getInteger(key) == expected);
  } catch (const StdException& e) {
    FUZZ_CHECK(!expected && bytesOf(e.text) == "Invalid property format.");
  }
}

void checkLookUps(const Properties& properties, const Map& expected) {
  FUZZ_CHECK(properties.numItems() == expected.size());
  FUZZ_CHECK(properties.isEmpty() == expected.empty());
  for (const auto& [key, value] : expected) {
    FUZZ_CHECK(properties.doesContain(utf8Text(key)));
    FUZZ_CHECK(bytesOf(properties.getString(utf8Text(key))) == value);
    if (!utf8Text(value).isNLS()) {
      checkInteger(properties, utf8Text(key), integerIn(value));
    }
    const std::string other = key + '#';
    FUZZ_CHECK(properties.doesContain(utf8Text(other)) == expected.contains(other));
  }
  FUZZ_CHECK(!properties.doesContain(EncodedString()));
}

void checkWalks(Properties& properties, const Map& expected) {
  Map forward;
  Map backward;
  Properties::TableCursor cursor = properties.cursor();
  for (bool any = cursor.first(); any; any = cursor.next()) {
    forward[bytesOf(cursor.element()->key)] = bytesOf(cursor.element()->value);
  }
  for (bool any = cursor.last(); any; any = cursor.previous()) {
    backward[bytesOf(cursor.element()->key)] = bytesOf(cursor.element()->value);
  }
  FUZZ_CHECK(forward == expected && backward == expected);
}

// A table of few buckets from which elements go again, with cursors on many of them.
void checkRemovals(const Map& expected, unsigned buckets, unsigned every) {
  Properties::Table table(buckets, 2, 0, nullptr);
  std::vector<Properties::TableCursor> cursors;
  for (const auto& [key, value] : expected) {
    FUZZ_CHECK(table.add({utf8Text(key), utf8Text(value)}));
    FUZZ_CHECK(!table.add({utf8Text(key), utf8Text("other")}));
    cursors.push_back(table.cursor());
  }
  Map left = expected;
  unsigned at = 0;
  for (const auto& [key, value] : expected) {
    if (at % every == 0) {
      FUZZ_CHECK(at % 2 == 0 ? table.remove(cursors[at]) : table.remove(utf8Text(key)));
      FUZZ_CHECK(!table.remove(cursors[at]));
      left.erase(key);
    }
    ++at;
  }
  FUZZ_CHECK(table.count() == left.size());
  at = 0;
  for (const auto& [key, value] : expected) {
    const Properties::HashElement* const element = cursors[at++].element();
    FUZZ_CHECK((element != nullptr) == left.contains(key));
    FUZZ_CHECK(element == nullptr || bytesOf(element->value) == value);
    FUZZ_CHECK(table.find(utf8Text(key)) == element);
  }
  table.removeAll();
  for (Properties::TableCursor& cursor : cursors) {
    FUZZ_CHECK(cursor.element() == nullptr && !cursor.next() && !cursor.previous());
  }
}

}  // namespace

void setUpFuzzing() { setenv("QVX_DBG_CODEPAGE", "ISO-8859-1", 1); }

void fuzz(FuzzInput& input) {
  const unsigned buckets = input.choice(4);
  const unsigned every = input.choice(3) + 1;
  const std::string key = input.text();
  const std::string value = input.text();
  const std::string bytes = input.rest();
  Properties properties(nullptr);
  Map expected;
  properties.setProperty(utf8Text(key), utf8Text(value));
  if (!key.empty()) {
    expected[key] = value;
  }
  const FileName& file = fileOf(bytes);
  FUZZ_CHECK(!properties.set(file));
  FUZZ_CHECK(properties.set(FileName("no/such", EncodedString::utf8)));
  readLines(expected, bytes);
  checkLookUps(properties, expected);
  Map ofFile;
  readLines(ofFile, bytes);
  FUZZ_CHECK(Properties(&file).numItems() == ofFile.size());
  checkWalks(properties, expected);
  checkRemovals(expected, buckets, every);
}
