#include "Engine/utilities/EBCDICtable.h"

#include <algorithm>
#include <initializer_list>
#include <random>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include "Engine/utilities/Iconv.h"

#include "tests/strings/GuardedBytes.h"

namespace {

using namespace std::string_literals;
using Pair = EBCDICtable::ValuePair;
using Pairs = List<Pair>;

Pairs pairs(std::initializer_list<Pair> values) {
  Pairs result;
  result.append(values.begin(), static_cast<unsigned>(values.size()));
  return result;
}

std::string from(const EBCDICtable& table, std::wstring_view text) {
  return std::string(table.fromUCS(text.data(), static_cast<unsigned>(text.size())).view());
}

std::wstring to(const EBCDICtable& table, std::string_view bytes) {
  const CharString result = table.toUCS(reinterpret_cast<const unsigned char*>(bytes.data()),
                                        static_cast<unsigned>(bytes.size()));
  const wchar_t* const values = result;
  return {values, result.length()};
}

// Two letters, and three ideographs, of which one is a single byte in EBCDIC.
Pairs mixedPairs() {
  return pairs({{L'a', 0x81},
                {L'b', 0x82},
                {0x4E00, 0x4541},
                {0x4E01, 0x4542},
                {0x9F8D, 0x5FFF},
                {0xFF76, 0x46}});
}

// What the C library makes of bytes; empty when they are no text of that code page.
std::wstring published(const char* codePage, std::string_view bytes) {
  const IconvDescriptor descriptor("WCHAR_T", codePage);
  EXPECT_TRUE(descriptor.isOpen()) << codePage;
  std::vector<wchar_t> values(bytes.size() + 1);
  auto* in = const_cast<char*>(bytes.data());
  size_t left = bytes.size();
  auto* out = reinterpret_cast<char*>(values.data());
  size_t room = values.size() * sizeof(wchar_t);
  if (iconv(descriptor.get(), &in, &left, &out, &room) == ~size_t{0}) {
    return {};
  }
  return {values.data(), values.size() - room / sizeof(wchar_t)};
}

std::string asPublished(const char* codePage, std::wstring_view text) {
  const IconvDescriptor descriptor(codePage, "WCHAR_T");
  std::vector<char> bytes(4 * text.size() + 2);
  char* out = bytes.data();
  out += iconvDebug(descriptor.get(), reinterpret_cast<const char*>(text.data()),
                    text.size() * sizeof(wchar_t), bytes.data(), bytes.size());
  // Back to single bytes.
  size_t room = static_cast<size_t>(bytes.data() + bytes.size() - out);
  iconv(descriptor.get(), nullptr, nullptr, &out, &room);
  return {bytes.data(), out};
}

std::string bytesOf(unsigned value) {
  std::string result;
  if (value > 0xFF) {
    result += static_cast<char>(value >> 8);
  }
  return result + static_cast<char>(value);
}

// The values of a code page that the C library takes both ways.
Pairs publishedPairs(const char* codePage) {
  Pairs result(0, nullptr, 4096);
  for (unsigned ebcdic = 0; ebcdic < 0xFFFF; ++ebcdic) {
    const bool isDouble = ebcdic > 0xFF;
    const std::string bytes = isDouble ? "\x0E" + bytesOf(ebcdic) + "\x0F" : bytesOf(ebcdic);
    const std::wstring value = published(codePage, bytes);
    if (value.size() == 1 && static_cast<unsigned>(value[0]) <= 0xFFFF &&
        asPublished(codePage, value) == bytes) {
      result.add({static_cast<unsigned short>(value[0]), static_cast<unsigned short>(ebcdic)});
    }
  }
  return result;
}

TEST(EBCDICtable, HoldsValuesInTheOrderUnicodeEBCDIC) {
  constexpr Pair pair = {1, 2};
  EXPECT_EQ(pair.ucs, 1);
  EXPECT_EQ(pair.ebcdic, 2);
  EXPECT_EQ(sizeof pair, 4U);
  EXPECT_FALSE(std::is_copy_constructible_v<EBCDICtable>);
  EXPECT_FALSE(std::is_copy_assignable_v<EBCDICtable>);
}

TEST(EBCDICtable, BuiltInOneIsThePublishedCodePageWithTheLineFeedsExchanged) {
  const EBCDICtable table;
  EXPECT_EQ(table.getName().view(), "VKT-1047");
  for (unsigned byte = 0; byte < 256; ++byte) {
    const unsigned other = byte == 0x15 ? 0x25 : byte == 0x25 ? 0x15 : byte;
    const std::wstring value = published("IBM1047", std::string(1, static_cast<char>(other)));
    const std::string bytes(1, static_cast<char>(byte));
    EXPECT_EQ(to(table, bytes), value) << byte;
    EXPECT_EQ(from(table, value), bytes) << byte;
  }
}

TEST(EBCDICtable, BuiltInOneHasTheseValues) {
  EXPECT_EQ(to(EBCDICtable(), "\xC1\xAD\xBD\x5F\xB0\x15\x25"), L"A[]^\xAC\n\x85");
  EXPECT_EQ(from(EBCDICtable(), L"A[]^\xAC\n\x85"), "\xC1\xAD\xBD\x5F\xB0\x15\x25");
}

TEST(EBCDICtable, BuiltInOneTakesShiftBytesForOrdinaryOnes) {
  EXPECT_EQ(to(EBCDICtable(), "\x0E\xC1\x0F"),
            L"\x0E"
            L"A\x0F");
  EXPECT_EQ(from(EBCDICtable(), L"\x0E\x0F"), "\x0E\x0F");
}

TEST(EBCDICtable, KeepsItsName) {
  EXPECT_EQ(EBCDICtable(mixedPairs(), "IBM-939").getName().view(), "IBM-939");
  EXPECT_EQ(EBCDICtable(mixedPairs(), nullptr).getName().length(), 0U);
  EXPECT_EQ(EBCDICtable(mixedPairs(), "").getName().length(), 0U);
}

TEST(EBCDICtable, WithoutPairsMapsNothing) {
  const EBCDICtable table(Pairs(), "none");
  EXPECT_EQ(from(table, std::wstring(L"\0A\x7F\x80\xFF\x4E00", 6)), "??????");
  EXPECT_EQ(to(table, "\x00\x0E\x0F\xFF"s), L"\xFF\xFF\xFF\xFF");
}

TEST(EBCDICtable, TurnsValuesWithoutAPairIntoOneByte) {
  const EBCDICtable table;
  EXPECT_EQ(from(table, L"\x100\xFFFF\x10041\x1F600\x7FFFFFFF"), "?????");
  EXPECT_EQ(from(table, std::wstring(1, static_cast<wchar_t>(-1))), "?");
  EXPECT_EQ(from(table, std::wstring(1, static_cast<wchar_t>(0x80000041))), "?");
}

TEST(EBCDICtable, PutsDoubleBytesBetweenShiftBytes) {
  const EBCDICtable table(mixedPairs(), "mixed");
  EXPECT_EQ(from(table,
                 L"a\x4E00"
                 L"b"),
            "\x81\x0E\x45\x41\x0F\x82");
  EXPECT_EQ(from(table, L"\x4E00\x4E01\x9F8D"), "\x0E\x45\x41\x45\x42\x5F\xFF\x0F");
  EXPECT_EQ(from(table, L"a\x4E00"), "\x81\x0E\x45\x41\x0F") << "the end is in single-byte mode";
  EXPECT_EQ(from(table, L"ab"), "\x81\x82");
}

TEST(EBCDICtable, LeavesDoubleByteModeForASingleByteBeyondASCII) {
  EXPECT_EQ(from(EBCDICtable(mixedPairs(), "mixed"), L"\x4E00\xFF76\x4E01"),
            "\x0E\x45\x41\x0F\x46\x0E\x45\x42\x0F");
}

TEST(EBCDICtable, LeavesDoubleByteModeForAValueWithoutAPair) {
  const EBCDICtable table(mixedPairs(), "mixed");
  EXPECT_EQ(from(table, L"\x4E00z\x4E01"), "\x0E\x45\x41\x0F?\x0E\x45\x42\x0F");
  EXPECT_EQ(from(table, L"\x4E00\x4E02"), "\x0E\x45\x41\x0F?");
  EXPECT_EQ(from(table, L"\x4E02\x14E00"), "??");
}

TEST(EBCDICtable, NeedsAtMostFourBytesForAValue) {
  const EBCDICtable table(mixedPairs(), "mixed");
  EXPECT_EQ(from(table, L"\x4E00"), "\x0E\x45\x41\x0F");
  std::wstring text;
  std::string expected;
  for (int i = 0; i < 1000; ++i) {
    text += L"\x4E00z";
    expected += "\x0E\x45\x41\x0F?";
  }
  EXPECT_EQ(from(table, text), expected);
}

TEST(EBCDICtable, ASCIIMayHaveDoubleByteValues) {
  const EBCDICtable table(pairs({{L'a', 0x4281}, {L'b', 0x82}}), "wide letters");
  EXPECT_EQ(from(table, L"aab"), "\x0E\x42\x81\x42\x81\x0F\x82");
  EXPECT_EQ(to(table, "\x0E\x42\x81\x0F\x82"), L"ab");
}

TEST(EBCDICtable, ReadsDoubleBytesBetweenShiftBytes) {
  const EBCDICtable table(mixedPairs(), "mixed");
  EXPECT_EQ(to(table, "\x81\x0E\x45\x41\x45\x42\x0F\x82"),
            L"a\x4E00\x4E01"
            L"b");
  EXPECT_EQ(to(table, "\x0E\x0F"), L"");
  EXPECT_EQ(to(table, "\x0E"), L"");
  EXPECT_EQ(to(table, "\x0E\x5F\xFF"), L"\x9F8D") << "the last shift-in may be missing";
}

TEST(EBCDICtable, ReadsUnknownDoubleBytesAsOneValue) {
  const EBCDICtable table(mixedPairs(), "mixed");
  EXPECT_EQ(to(table, "\x0E\x45\x43\x45\x41\x0F"), L"\xFF\x4E00");
  EXPECT_EQ(to(table, "\x0E\x00\x81\xFF\xFF\x0F"s), L"\xFF\xFF");
  EXPECT_EQ(to(table, "\x83\xFF"), L"\xFF\xFF") << "as unknown single bytes are";
}

TEST(EBCDICtable, ReadsALoneLeadByteAsUnknown) {
  const EBCDICtable table(mixedPairs(), "mixed");
  EXPECT_EQ(to(table, "\x0E\x45"), L"\xFF");
  EXPECT_EQ(to(table, "\x0E\x45\x41\x45"), L"\x4E00\xFF");
}

TEST(EBCDICtable, TakesShiftBytesForOrdinaryOnesWhereTheyShiftNothing) {
  const EBCDICtable table(
      pairs({{L'i', 0x0F}, {0x4E00, 0x4541}, {0x4E01, 0x450F}, {0x4E02, 0x0E45}}), "shifts");
  EXPECT_EQ(to(table, "\x0F"), L"i");
  EXPECT_EQ(to(table, "\x0E\x45\x0F\x0F\x0F"), L"\x4E01i") << "a shift-in as trail byte";
  EXPECT_EQ(to(table, "\x0E\x0E\x45\x0F"), L"\x4E02") << "a shift-out as lead byte";
}

TEST(EBCDICtable, CountsTheEarlierOfTwoPairsForTheSameValue) {
  const EBCDICtable table(pairs({{L'a', 0x81},
                                 {L'a', 0x91},
                                 {L'A', 0x81},
                                 {0x4E00, 0x4541},
                                 {0x4E00, 0x4542},
                                 {0x4E01, 0x4541}}),
                          "twice");
  EXPECT_EQ(from(table, L"aA\x4E00\x4E01"), "\x81\x81\x0E\x45\x41\x45\x41\x0F");
  EXPECT_EQ(to(table, "\x81\x91\x0E\x45\x41\x45\x42\x0F"), L"aa\x4E00\x4E00");
}

// A run of values, a gap and a value given twice: the second one stands where a run without
// the gap would have it.
TEST(EBCDICtable, CountsTheEarlierPairAlsoBehindAGap) {
  const EBCDICtable table(pairs({{0x80, 1}, {0x82, 2}, {0x82, 3}, {0x83, 4}}), "gap");
  EXPECT_EQ(from(table, L"\x80\x81\x82\x83\x84"), "\x01?\x02\x04?");
}

TEST(EBCDICtable, KeepsItsOwnCopyOfThePairs) {
  Pairs given = mixedPairs();
  const EBCDICtable table(given, "mixed");
  given[0] = {L'z', 0x81};
  given[2] = {0x5000, 0x4541};
  EXPECT_EQ(from(table, L"a\x4E00"), "\x81\x0E\x45\x41\x0F");
  EXPECT_EQ(given.count(), 6U);
}

TEST(EBCDICtable, TheLimitsOfTheFieldsAreOrdinaryValues) {
  const EBCDICtable table(
      pairs({{0, 0xFFFF}, {0xFFFF, 0x100}, {0x7F, 0xFF}, {0x80, 0}, {0x81, 0x3F}}), "limits");
  const std::wstring text(L"\0\xFFFF\x7F\x80\x81", 5);
  EXPECT_EQ(from(table, text), "\x0E\xFF\xFF\x01\x00\x0F\xFF\x00\x3F"s);
  EXPECT_EQ(to(table, "\x0E\xFF\xFF\x01\x00\x0F\xFF\x00\x3F"s), text);
}

TEST(EBCDICtable, TakesZerosInsideATextForOrdinaryValues) {
  EXPECT_EQ(from(EBCDICtable(), std::wstring(L"a\0b", 3)), "\x81\0\x82"s);
  EXPECT_EQ(to(EBCDICtable(), "\x81\0\x82"s), std::wstring(L"a\0b", 3));
}

TEST(EBCDICtable, MakesAnEmptyTextOfNothing) {
  const EBCDICtable single;
  const EBCDICtable mixed(mixedPairs(), "mixed");
  for (const EBCDICtable* table : {&single, &mixed}) {
    EXPECT_EQ(table->fromUCS(nullptr, 5).length(), 0U);
    EXPECT_EQ(table->fromUCS(L"a", 0).length(), 0U);
    EXPECT_EQ(table->toUCS(nullptr, 5).length(), 0U);
    EXPECT_EQ(table->toUCS(reinterpret_cast<const unsigned char*>("a"), 0).length(), 0U);
  }
}

TEST(EBCDICtable, ReadsNothingBehindTheBytes) {
  const EBCDICtable table(mixedPairs(), "mixed");
  for (const std::string text : {"\x0E\x45", "\x0E", "\x0E\x45\x41", "\x81"}) {
    const GuardedBytes exact(text);
    EXPECT_EQ(to(table, {exact.data(), text.size()}), to(table, text));
  }
}

TEST(EBCDICtable, ReadsNothingBehindWideText) {
  const std::wstring_view text = L"a\x4E00";
  const GuardedBytes exact(
      std::string_view(reinterpret_cast<const char*>(text.data()), text.size() * sizeof(wchar_t)));
  const auto* const values = reinterpret_cast<const wchar_t*>(exact.data());
  EXPECT_EQ(from(EBCDICtable(mixedPairs(), "mixed"), {values, text.size()}),
            "\x81\x0E\x45\x41\x0F");
  EXPECT_EQ(from(EBCDICtable(), {values, text.size()}), "\x81?");
}

class PublishedCodePage : public testing::TestWithParam<const char*> {};

TEST_P(PublishedCodePage, ConvertsBothWaysLikeTheCLibrary) {
  const Pairs given = publishedPairs(GetParam());
  ASSERT_GT(given.count(), 8000U);
  // In any order.
  Pairs shuffled;
  shuffled.append(given.begin(), given.count());
  std::mt19937 random(7);
  std::shuffle(shuffled.begin(), shuffled.end(), random);
  const EBCDICtable table(shuffled, GetParam());

  std::wstring text;
  for (const Pair& pair : shuffled) {
    // The C library never gives these two out.
    if (pair.ebcdic != 0x0E && pair.ebcdic != 0x0F) {
      text += static_cast<wchar_t>(pair.ucs);
    }
  }
  const std::string bytes = from(table, text);
  // Thousands of characters tell nothing in a report.
  EXPECT_TRUE(bytes == asPublished(GetParam(), text));
  EXPECT_TRUE(to(table, bytes) == published(GetParam(), bytes));
  EXPECT_TRUE(to(table, bytes) == text);
}

INSTANTIATE_TEST_SUITE_P(EBCDICtable, PublishedCodePage,
                         testing::Values("IBM939", "IBM1390", "IBM935", "IBM933"));

}  // namespace
