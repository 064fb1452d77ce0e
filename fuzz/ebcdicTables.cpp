// EBCDIC: tables of any pairs against a plain search through the pairs, the fixed tables
// against the built-in one, and the store.

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

#include "Engine/utilities/EBCDIC.h"
#include "Engine/utilities/EBCDICtable.h"
#include "Engine/utilities/EBCDICtableStore.h"

#include "fuzz/Fuzz.h"

namespace {

using Pair = EBCDICtable::ValuePair;
using Pairs = List<Pair>;

constexpr char shiftOut = 0x0E;
constexpr char shiftIn = 0x0F;

const unsigned char* unsignedBytes(const char* p) {
  return reinterpret_cast<const unsigned char*>(p);
}

unsigned short value(FuzzInput& input) {
  const unsigned high = input.byte();
  const unsigned low = input.byte();
  return static_cast<unsigned short>(high << 8 | low);
}

// The first pair that counts for a value; null when there is none.
template <unsigned short Pair::*key>
const Pair* first(const Pairs& pairs, unsigned wanted, bool (*counts)(const Pair&)) {
  const auto* const found = std::find_if(pairs.begin(), pairs.end(), [&](const Pair& pair) {
    return pair.*key == wanted && counts(pair);
  });
  return found == pairs.end() ? nullptr : found;
}

std::string plainFrom(const Pairs& pairs, const std::vector<wchar_t>& text) {
  std::string result;
  bool isDouble = false;
  for (const wchar_t c : text) {
    const Pair* const pair =
        first<&Pair::ucs>(pairs, static_cast<unsigned>(c), [](const Pair&) { return true; });
    const unsigned ebcdic = pair == nullptr ? 0x3F : pair->ebcdic;
    if (ebcdic > 0xFF) {
      if (!isDouble) {
        result += shiftOut;
      }
      result += static_cast<char>(ebcdic >> 8);
    } else if (isDouble) {
      result += shiftIn;
    }
    result += static_cast<char>(ebcdic);
    isDouble = ebcdic > 0xFF;
  }
  if (isDouble) {
    result += shiftIn;
  }
  return result;
}

wchar_t ucsOf(const Pairs& pairs, unsigned ebcdic, bool isDouble) {
  const Pair* const pair = first<&Pair::ebcdic>(
      pairs, ebcdic, isDouble ? [](const Pair& p) { return p.ebcdic > 0xFF; } : [](const Pair& p) {
        return p.ebcdic <= 0xFF;
      });
  return pair == nullptr ? 0xFF : pair->ucs;
}

std::vector<wchar_t> plainTo(const Pairs& pairs, std::string_view bytes) {
  const bool shifts =
      std::any_of(pairs.begin(), pairs.end(), [](const Pair& pair) { return pair.ebcdic > 0xFF; });
  std::vector<wchar_t> result;
  bool isDouble = false;
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    const unsigned byte = static_cast<unsigned char>(bytes[i]);
    if (shifts && !isDouble && bytes[i] == shiftOut) {
      isDouble = true;
    } else if (isDouble && bytes[i] == shiftIn) {
      isDouble = false;
    } else if (!isDouble) {
      result.push_back(ucsOf(pairs, byte, false));
    } else if (++i == bytes.size()) {
      result.push_back(0xFF);
    } else {
      result.push_back(ucsOf(pairs, byte << 8 | static_cast<unsigned char>(bytes[i]), true));
    }
  }
  return result;
}

std::string from(const EBCDICtable& table, const std::vector<wchar_t>& text) {
  const ExactBytes exact(
      {reinterpret_cast<const char*>(text.data()), text.size() * sizeof(wchar_t)});
  return bytesOf(table.fromUCS(reinterpret_cast<const wchar_t*>(exact.data()),
                               static_cast<unsigned>(text.size())));
}

std::vector<wchar_t> to(const EBCDICtable& table, std::string_view bytes) {
  const ExactBytes exact(bytes);
  const CharString result = table.toUCS(unsignedBytes(exact.data()), exact.size());
  const wchar_t* const values = result;
  return {values, values + result.length()};
}

// Whether each value belongs to one pair and no byte is one of the shift bytes.
bool isOneToOne(const Pairs& pairs) {
  std::vector<unsigned short> ucs;
  std::vector<unsigned short> ebcdic;
  for (const Pair& pair : pairs) {
    const char lead = static_cast<char>(pair.ebcdic >> 8);
    if (lead == shiftIn || (pair.ebcdic < 0x100 && static_cast<char>(pair.ebcdic) == shiftOut)) {
      return false;
    }
    ucs.push_back(pair.ucs);
    ebcdic.push_back(pair.ebcdic);
  }
  const auto areDifferent = [](std::vector<unsigned short>& values) {
    std::sort(values.begin(), values.end());
    return std::adjacent_find(values.begin(), values.end()) == values.end();
  };
  return areDifferent(ucs) && areDifferent(ebcdic);
}

void checkTable(const EBCDICtable& table, const Pairs& pairs, const std::vector<wchar_t>& text,
                const std::string& bytes) {
  const std::string written = from(table, text);
  FUZZ_CHECK(written.size() <= 4 * text.size());
  FUZZ_CHECK(written == plainFrom(pairs, text));
  const std::vector<wchar_t> read = to(table, bytes);
  FUZZ_CHECK(read.size() <= bytes.size());
  FUZZ_CHECK(read == plainTo(pairs, bytes));

  // What has a pair comes back.
  if (isOneToOne(pairs)) {
    std::vector<wchar_t> known;
    for (const Pair& pair : pairs) {
      known.push_back(pair.ucs);
    }
    FUZZ_CHECK(to(table, from(table, known)) == known);
  }
}

void checkFixedTables(const std::string& bytes) {
  const EBCDICtable& builtIn = *EBCDICtableStore::instance().find(nullptr);
  std::string fromASCII(bytes.size(), '\0');
  std::string toASCII(bytes.size(), '\0');
  const ExactBytes exact(bytes);
  const auto* const source = unsignedBytes(exact.data());
  EBCDIC::fromUCS7bit(reinterpret_cast<unsigned char*>(fromASCII.data()), source, exact.size());
  EBCDIC::toUCS7bit(reinterpret_cast<unsigned char*>(toASCII.data()), source, exact.size());
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    const auto byte = static_cast<unsigned char>(bytes[i]);
    const std::string expected = byte < 0x80 ? from(builtIn, {byte}) : "\xFF";
    FUZZ_CHECK(fromASCII.substr(i, 1) == expected);
    if (byte != 0x22 && byte != 0x26) {
      const wchar_t c = to(builtIn, {&bytes[i], 1}).front();
      FUZZ_CHECK(toASCII[i] == (c < 0x80 ? static_cast<char>(c) : '\x7F'));
    }
  }
  FUZZ_CHECK(from(builtIn, to(builtIn, bytes)) == bytes);

  // The terminated forms see what is before the first zero byte.
  std::string inPlace = upToZero(bytes);
  EBCDIC::fromUCS7bit(reinterpret_cast<unsigned char*>(inPlace.data()));
  FUZZ_CHECK(inPlace == fromASCII.substr(0, inPlace.size()));
  inPlace = upToZero(bytes);
  EBCDIC::toUCS7bit(reinterpret_cast<unsigned char*>(inPlace.data()));
  FUZZ_CHECK(inPlace == toASCII.substr(0, inPlace.size()));
}

void checkStore(const Pairs& pairs, const std::string& name, const std::vector<wchar_t>& text) {
  EBCDICtableStore& store = EBCDICtableStore::instance();
  const EBCDICtable* const builtIn = store.find(nullptr);
  const bool isTaken = name.empty() || name == "VKT-1047";
  const EBCDICtable* const added = store.add(pairs, name.c_str());
  if (isTaken) {
    FUZZ_CHECK(added == (name.empty() ? nullptr : builtIn));
  } else {
    FUZZ_CHECK(bytesOf(added->getName()) == name);
    FUZZ_CHECK(store.find(name.c_str()) == added);
    FUZZ_CHECK(from(*added, text) == plainFrom(pairs, text));
    FUZZ_CHECK(from(*store.add(Pairs(), name.c_str()), text) == plainFrom(Pairs(), text));
  }
  store.remove(name.c_str());
  FUZZ_CHECK(store.find(name.c_str()) == (isTaken ? builtIn : nullptr));
  FUZZ_CHECK(store.find("VKT-1047") == builtIn);
}

}  // namespace

void setUpFuzzing() {}

// Pairs, a name, and a text that is read as UTF-8 on the one way and as bytes on the other.
void fuzz(FuzzInput& input) {
  Pairs pairs;
  for (unsigned count = input.byte() % 64; count != 0 && !input.isEmpty(); --count) {
    const unsigned short ucs = value(input);
    pairs.add({ucs, value(input)});
  }
  const std::string name = upToZero(input.text());
  const std::string bytes = input.rest();
  const CharString wide = wideText(bytes);
  const wchar_t* const values = wide;
  std::vector<wchar_t> text(values, values + wide.length());
  // Texts seldom hit a pair by themselves.
  for (const char c : bytes) {
    if (!pairs.isEmpty()) {
      text.push_back(pairs[static_cast<unsigned char>(c) % pairs.count()].ucs);
    }
  }
  const ExactBytes terminated(std::string_view(name.c_str(), name.size() + 1));
  const EBCDICtable table(pairs, terminated.data());
  FUZZ_CHECK(bytesOf(table.getName()) == name);
  checkTable(table, pairs, text, bytes);
  checkTable(table, pairs, text, from(table, text));
  checkFixedTables(bytes);
  checkStore(pairs, name, text);
}
