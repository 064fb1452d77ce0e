#include "Engine/utilities/MD5.h"

#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <string_view>

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include "Engine/utilities/ByteString.h"
#include "Engine/utilities/EncodedString.h"

namespace {

MD5 digestOf(std::string_view text) { return MD5(text.data(), static_cast<unsigned>(text.size())); }

std::string textOf(const MD5& md5, MD5::OutputString form) {
  const EncodedString text = md5.asString(form);
  return std::string(static_cast<const char*>(text), text.length());
}

std::string hexOf(const MD5& md5) { return textOf(md5, MD5::hexadecimal); }

std::string bytesOf(const MD5& md5) {
  return std::string(reinterpret_cast<const char*>(md5.digest), MD5::size);
}

// The digest as libcrypto computes it.
std::string oracle(std::string_view text) {
  std::string digest(MD5::size, '\0');
  unsigned size = MD5::size;
  EXPECT_EQ(EVP_Digest(text.data(), text.size(), reinterpret_cast<unsigned char*>(digest.data()),
                       &size, EVP_md5(), nullptr),
            1);
  return digest;
}

TEST(MD5, GivesThePublishedDigests) {
  EXPECT_EQ(hexOf(digestOf("")), "D41D8CD98F00B204E9800998ECF8427E");
  EXPECT_EQ(hexOf(digestOf("a")), "0CC175B9C0F1B6A831C399E269772661");
  EXPECT_EQ(hexOf(digestOf("abc")), "900150983CD24FB0D6963F7D28E17F72");
  EXPECT_EQ(hexOf(digestOf("message digest")), "F96B697D7CB7938D525A2F31AAF161D0");
  EXPECT_EQ(hexOf(digestOf("abcdefghijklmnopqrstuvwxyz")), "C3FCD3D76192E4007DFB496CCA67E13B");
  EXPECT_EQ(hexOf(digestOf("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789")),
            "D174AB98D277D9F5A5611C2C9F419D9F");
  EXPECT_EQ(hexOf(digestOf("1234567890123456789012345678901234567890123456789012345678901234567890"
                           "1234567890")),
            "57EDF4A22BE3C955AC49DA2E2107B67A");
}

TEST(MD5, AcceptsNoDataAtAll) {
  EXPECT_EQ(hexOf(MD5(nullptr, 0)), "D41D8CD98F00B204E9800998ECF8427E");
}

TEST(MD5, AgreesWithLibcryptoForEveryLengthUpToSomeBlocks) {
  std::mt19937 random(5);
  std::string text;
  for (unsigned length = 0; length <= 400; ++length) {
    ASSERT_EQ(bytesOf(digestOf(text)), oracle(text)) << length;
    text += static_cast<char>(random());
  }
}

TEST(MD5, AgreesWithLibcryptoForMuchDataAtAnyAlignment) {
  std::mt19937 random(6);
  std::string text(1 << 20, '\0');
  for (char& c : text) {
    c = static_cast<char>(random());
  }
  for (unsigned skipped = 0; skipped < 9; ++skipped) {
    const std::string_view piece = std::string_view(text).substr(skipped);
    EXPECT_EQ(bytesOf(digestOf(piece)), oracle(piece)) << skipped;
  }
}

TEST(MD5, TakesAByteString) {
  const ByteString bytes("ab", 2, "c", 1, nullptr, 0);
  EXPECT_EQ(hexOf(MD5(bytes)), "900150983CD24FB0D6963F7D28E17F72");
}

TEST(MD5, ReadsHexadecimalTextOfEitherCase) {
  const MD5 md5 = MD5::fromText("00112233445566778899AaBbCcDdEeFf");
  for (unsigned i = 0; i < MD5::size; ++i) {
    EXPECT_EQ(md5.digest[i], 0x11 * i) << i;
  }
  EXPECT_EQ(hexOf(md5), "00112233445566778899AABBCCDDEEFF");
  EXPECT_EQ(MD5::fromText("d41d8cd98f00b204e9800998ecf8427e"), digestOf(""));
  EXPECT_EQ(MD5::fromText("0123456789abcdef0123456789ABCDEF").digest[0], 0x01);
}

TEST(MD5, CountsOtherCharactersAsZero) {
  // The neighbours of the digits and letters, and bytes above 0x7F.
  EXPECT_EQ(hexOf(MD5::fromText("/1:1@1G1`1g1\xE9"
                                "1 1-1111111111111111")),
            "01010101010101010111111111111111");
}

TEST(MD5, ReadsNothingBehindAShortTextAndIgnoresALongOnesRest) {
  const auto exact = std::make_unique<char[]>(4);
  std::memcpy(exact.get(), "abc", 4);
  EXPECT_EQ(hexOf(MD5::fromText(exact.get())), "ABC00000000000000000000000000000");
  EXPECT_EQ(hexOf(MD5::fromText("")), std::string(32, '0'));
  EXPECT_EQ(hexOf(MD5::fromText(nullptr)), std::string(32, '0'));
  EXPECT_EQ(hexOf(MD5::fromText("1111111111111111111111111111111122")), std::string(32, '1'));
}

std::string hexOfBytes(std::string_view bytes) {
  std::string result;
  for (const char c : bytes) {
    const auto byte = static_cast<unsigned char>(c);
    result += "0123456789ABCDEF"[byte / 16];
    result += "0123456789ABCDEF"[byte % 16];
  }
  return result;
}

TEST(MD5, WritesADigestOfLettersAndDigitsAsItsTextInFormZero) {
  const MD5 md5 = MD5::fromText(hexOfBytes("09azAZmM1234wxYZ").c_str());
  EXPECT_EQ(textOf(md5, MD5::textIfAlphanumeric), "09azAZmM1234wxYZ");
  EXPECT_EQ(textOf(md5, static_cast<MD5::OutputString>(0)), "09azAZmM1234wxYZ");
  for (const int other : {1, 2, 256, -1}) {
    EXPECT_EQ(textOf(md5, static_cast<MD5::OutputString>(other)), hexOfBytes("09azAZmM1234wxYZ"));
  }
}

TEST(MD5, WritesAnyOtherDigestInHexadecimalInEitherForm) {
  for (const char other : {'/', ':', '@', '[', '`', '{', ' ', '\0', '\xE9'}) {
    for (const std::size_t place : {0U, 7U, 15U}) {
      std::string bytes = "0123456789abcdef";
      bytes[place] = other;
      const std::string hex = hexOfBytes(bytes);
      EXPECT_EQ(textOf(MD5::fromText(hex.c_str()), MD5::textIfAlphanumeric), hex);
    }
  }
}

TEST(MD5, ComparesByValue) {
  EXPECT_TRUE(digestOf("a") == digestOf("a"));
  EXPECT_FALSE(digestOf("a") == digestOf("b"));
  EXPECT_TRUE(digestOf("a") != digestOf("b"));
}

}  // namespace
