#include "Engine/utilities/EBCDIC.h"

#include <array>
#include <cstring>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <type_traits>

#include <gtest/gtest.h>

#include "Engine/utilities/Iconv.h"

#include "tests/strings/GuardedBytes.h"

namespace {

// Whether a length is told from a source.
template <class Length>
constexpr bool takesLength = requires(unsigned char* p) {
  EBCDIC::fromUCS7bit(p, Length{});
};
template <class Pointer>
constexpr bool takesLiteralZero = requires(Pointer p) {
  EBCDIC::fromUCS7bit(p, 0);
};

// The C library's code page 1047, with the two line feeds exchanged.
std::array<unsigned, 256> publishedCodePage() {
  const IconvDescriptor descriptor("UTF-32LE", "IBM1047");
  std::array<unsigned, 256> result = {};
  for (unsigned i = 0; i < 256; ++i) {
    const char byte = static_cast<char>(i == 0x15 ? 0x25 : i == 0x25 ? 0x15 : i);
    char value[5];
    EXPECT_EQ(iconvDebug(descriptor.get(), &byte, 1, value, sizeof value), 4U) << i;
    std::memcpy(&result[i], value, 4);
  }
  return result;
}

unsigned char* bytesAt(char* p) { return reinterpret_cast<unsigned char*>(p); }

unsigned char fromASCII(unsigned char byte) {
  EBCDIC::fromUCS7bit(&byte, 1);
  return byte;
}

unsigned char toASCII(unsigned char byte) {
  EBCDIC::toUCS7bit(&byte, 1);
  return byte;
}

// "Hello\n" in EBCDIC.
constexpr std::string_view greeting = "\xC8\x85\x93\x93\x96\x15";

TEST(EBCDIC, TakesALengthOf0UAndNoLiteral0) {
  static_assert(takesLength<unsigned>);
  static_assert(!takesLiteralZero<unsigned char*>);
  unsigned char bytes[] = {'a'};
  EXPECT_EQ(EBCDIC::fromUCS7bit(bytes, 0U), bytes);
  EXPECT_EQ(bytes[0], 'a');
}

TEST(EBCDIC, HoldsThePublishedCodePageWithTheLineFeedsExchanged) {
  const std::array<unsigned, 256> published = publishedCodePage();
  for (unsigned byte = 0; byte < 256; ++byte) {
    EXPECT_EQ(EBCDIC::codePage1047[byte], published[byte]) << byte;
  }
  EXPECT_EQ(EBCDIC::codePage1047[0x15], 0x0A);
  EXPECT_EQ(EBCDIC::codePage1047[0x25], 0x85);
}

TEST(EBCDIC, MapsAllBytesToDifferentValues) {
  const std::set<unsigned> values(EBCDIC::codePage1047.begin(), EBCDIC::codePage1047.end());
  EXPECT_EQ(values.size(), 256U);
}

TEST(EBCDIC, FromASCIIIsTheInverseOfTheCodePage) {
  const std::array<unsigned, 256> published = publishedCodePage();
  for (unsigned byte = 0; byte < 256; ++byte) {
    if (published[byte] < 0x80) {
      EXPECT_EQ(fromASCII(static_cast<unsigned char>(published[byte])), byte);
    }
  }
  EXPECT_EQ(fromASCII('\n'), 0x15);
  EXPECT_EQ(fromASCII('A'), 0xC1);
  EXPECT_EQ(fromASCII(0x17), 0x26);
}

TEST(EBCDIC, FromASCIITurnsEveryByteBeyondASCIIInto0xFF) {
  for (unsigned byte = 0x80; byte < 256; ++byte) {
    EXPECT_EQ(fromASCII(static_cast<unsigned char>(byte)), 0xFF) << byte;
  }
  EXPECT_EQ(fromASCII(0x7F), 0x07);
}

TEST(EBCDIC, ToASCIIIsTheCodePageButForTwoBytes) {
  const std::array<unsigned, 256> published = publishedCodePage();
  for (unsigned byte = 0; byte < 256; ++byte) {
    if (byte != 0x26 && byte != 0x22) {
      const unsigned expected = published[byte] < 0x80 ? published[byte] : 0x7F;
      EXPECT_EQ(toASCII(static_cast<unsigned char>(byte)), expected) << byte;
    }
  }
  EXPECT_EQ(toASCII(0x26), 0x7F);
  EXPECT_EQ(toASCII(0x22), 0x17);
}

TEST(EBCDIC, OnlyAZeroByteBecomesAZeroByte) {
  EXPECT_EQ(fromASCII(0), 0);
  EXPECT_EQ(toASCII(0), 0);
  for (unsigned byte = 1; byte < 256; ++byte) {
    EXPECT_NE(fromASCII(static_cast<unsigned char>(byte)), 0) << byte;
    EXPECT_NE(toASCII(static_cast<unsigned char>(byte)), 0) << byte;
  }
}

TEST(EBCDIC, TranslatesJustTheGivenBytesOfABuffer) {
  const GuardedBytes buffer(std::string_view("A\0BCD", 5));
  unsigned char* const bytes = bytesAt(buffer.data());
  EXPECT_EQ(EBCDIC::fromUCS7bit(bytes, 3), bytes);
  EXPECT_EQ(std::string(buffer.data(), 5), std::string("\xC1\0\xC2"
                                                       "CD",
                                                       5));
  EXPECT_EQ(EBCDIC::toUCS7bit(bytes, 3), bytes);
  EXPECT_EQ(std::string(buffer.data(), 5), std::string("A\0BCD", 5));
  EXPECT_EQ(EBCDIC::fromUCS7bit(bytes, 5), bytes) << "up to the end of what can be written";
  EXPECT_EQ(EBCDIC::toUCS7bit(bytes, 0U), bytes);
  EXPECT_EQ(std::string(buffer.data(), 5), std::string("\xC1\0\xC2\xC3\xC4", 5));
}

TEST(EBCDIC, TranslatesATerminatedBufferUpToItsEnd) {
  const GuardedBytes buffer(std::string_view("Hello\n\0", 7));
  unsigned char* const bytes = bytesAt(buffer.data());
  EXPECT_EQ(EBCDIC::fromUCS7bit(bytes), bytes);
  EXPECT_EQ(std::string(buffer.data()), greeting);
  EXPECT_EQ(EBCDIC::toUCS7bit(bytes), bytes);
  EXPECT_STREQ(buffer.data(), "Hello\n");

  const GuardedBytes empty(std::string_view("\0A", 2));
  EBCDIC::fromUCS7bit(bytesAt(empty.data()));
  EXPECT_EQ(empty.data()[1], 'A') << "what is behind the terminator stays";
}

TEST(EBCDIC, TranslatesWhileCopying) {
  const GuardedBytes source(std::string_view("Hello\n\0x", 8));
  const GuardedBytes target(8);
  unsigned char* const to = bytesAt(target.data());
  EXPECT_EQ(EBCDIC::fromUCS7bit(to, bytesAt(source.data()), 8), to);
  EXPECT_EQ(std::string(target.data(), 8), std::string(greeting) + std::string("\0\xA7", 2));
  EXPECT_EQ(std::string(source.data(), 8), std::string("Hello\n\0x", 8));

  const GuardedBytes back(8);
  unsigned char* const again = bytesAt(back.data());
  EXPECT_EQ(EBCDIC::toUCS7bit(again, to, 8), again);
  EXPECT_EQ(std::string(back.data(), 8), std::string("Hello\n\0x", 8));
}

TEST(EBCDIC, CopiesTheTerminator) {
  const GuardedBytes source(std::string_view("Hello\n\0", 7));
  const GuardedBytes target(7);
  unsigned char* const to = bytesAt(target.data());
  EXPECT_EQ(EBCDIC::fromUCS7bit(to, bytesAt(source.data())), to);
  EXPECT_EQ(std::string(target.data(), 7), std::string(greeting) + '\0');
  const GuardedBytes back(8);
  unsigned char* const again = bytesAt(back.data());
  EXPECT_EQ(EBCDIC::toUCS7bit(again, to), again);
  EXPECT_STREQ(back.data(), "Hello\n");
  EXPECT_EQ(back.data()[7], '\xEE') << "nothing is written behind it";
}

TEST(EBCDIC, TakesNullForNothing) {
  unsigned char target[] = "ab";
  EXPECT_EQ(EBCDIC::fromUCS7bit(nullptr), nullptr);
  EXPECT_EQ(EBCDIC::toUCS7bit(nullptr), nullptr);
  EXPECT_EQ(EBCDIC::fromUCS7bit(nullptr, 3U), nullptr);
  EXPECT_EQ(EBCDIC::toUCS7bit(nullptr, 3U), nullptr);
  EXPECT_EQ(EBCDIC::fromUCS7bit(nullptr, target), nullptr);
  EXPECT_EQ(EBCDIC::toUCS7bit(nullptr, target, 2), nullptr);
  EXPECT_EQ(EBCDIC::fromUCS7bit(target, nullptr, 2), target);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(target)), "ab");
  const unsigned char* const none = nullptr;
  EXPECT_EQ(EBCDIC::toUCS7bit(target, none), target);
  EXPECT_EQ(target[0], 0) << "an empty text has a terminator";
  EXPECT_EQ(target[1], 'b');
}

TEST(EBCDIC, HasNoObjects) { EXPECT_FALSE(std::is_default_constructible_v<EBCDIC>); }

}  // namespace
