// Code pages: the native one, here a single-byte one in which ASCII lies elsewhere, and the
// ones named per call, through iconv.

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "Engine/utilities/Iconv.h"
#include "Engine/utilities/UTF8Converter.h"
#include "Engine/utilities/UnicodeUtilities.h"

#include "fuzz/Fuzz.h"

namespace {

constexpr const char* native = "IBM1047";

constexpr std::array codePages = {
    "UTF-8",    "utf-8",       "ISO-8859-1", "ISO-8859-15", "CP1252", "ASCII",
    "IBM1047",  "IBM037",      "IBM939",     "SHIFT_JIS",   "EUC-JP", "ISO-2022-JP",
    "EUC-KR",   "ISO-2022-KR", "BIG5",       "GB18030",     "GBK",    "UTF-16",
    "UTF-16LE", "UTF-32",      "UTF-7",      "TIS620",      "KOI8-R", "no such",
    "",         "//IGNORE"};

bool isKnown(const char* codePage) {
  return *codePage != 0 && IconvDescriptor("UTF-8", codePage).isOpen();
}

// All bytes of the native code page are characters, and every character has a byte.
void checkNative(const std::string& text) {
  const ExactBytes bytes(text);
  const EncodedString read(bytes.data(), bytes.size(), EncodedString::native);
  FUZZ_CHECK(read.isValid());
  FUZZ_CHECK(read.charCount() == upToZero(text).size());
  FUZZ_CHECK(bytesOf(read.convert(EncodedString::native)) == upToZero(text));
  FUZZ_CHECK(std::strcmp(EncodedString::nativeCodepage(), native) == 0);
  EncodedString inPlace = utf8Text(text);
  inPlace.convertToUTF8();
  FUZZ_CHECK(inPlace == read);

  FUZZ_CHECK(UTF8Converter::instance().convertToUTF8(bytes.data(), bytes.size()) == read);
  FUZZ_CHECK(bytesOf(UTF8Converter::instance().convertFromUTF8(bytes.data(), 0)).empty());

  // Any bytes for UTF-8, on the way out.
  const std::string out = bytesOf(utf8Text(text).convert(EncodedString::native));
  FUZZ_CHECK(out.size() <= text.size());
  FUZZ_CHECK(out.find('\0') == std::string::npos);

  CharString wide;
  wide.loadFrom(bytes.data(), bytes.size(), EncodedString::native);
  FUZZ_CHECK(bytesOf(wide) == bytesOf(read));
}

void checkNamed(const std::string& text, const char* codePage) {
  const std::string whole = upToZero(text);
  const ExactBytes terminated(std::string_view(whole.c_str(), whole.size() + 1));
  const EncodedString read = UnicodeUtilities::convertFromCP(terminated.data(), codePage);
  if (std::strcmp(codePage, "UTF-8") == 0) {
    FUZZ_CHECK(bytesOf(read) == whole);
  } else {
    FUZZ_CHECK(read.isValid());
    FUZZ_CHECK(bytesOf(read).find('\0') == std::string::npos);
  }
  if (!isKnown(codePage)) {
    FUZZ_CHECK(read == EncodedString(whole.c_str(), EncodedString::native));
  }

  // The other direction, which a constructor has.
  const ExactBytes bytes(text);
  const ByteString given(bytes.data(), bytes.size());
  const std::string converted = bytesOf(EncodedString(given, codePage));
  FUZZ_CHECK(converted.find('\0') == std::string::npos);
  FUZZ_CHECK(converted.size() <= 6 * text.size());
  EncodedString inPlace = utf8Text(text);
  inPlace.convertToUTF8(codePage);
  FUZZ_CHECK(bytesOf(inPlace) == converted);
  if (*codePage != 0 && !isKnown(codePage)) {
    std::string expected = upToZero(text);
    std::replace_if(
        expected.begin(), expected.end(), [](char c) { return c < 0; }, '?');
    FUZZ_CHECK(converted == expected);
  }
}

// What iconvDebug() writes into an area of `size` bytes.
std::string converted(iconv_t descriptor, const ExactBytes& bytes, size_t size) {
  std::vector<char> area(size, 'x');
  errno = 1234;
  const size_t length =
      iconvDebug(descriptor, bytes.data(), bytes.size(), area.data(), area.size());
  FUZZ_CHECK(errno == 1234);
  if (size == 0) {
    FUZZ_CHECK(length == 0);
    return {};
  }
  FUZZ_CHECK(length < size);
  FUZZ_CHECK(area[length] == 0);
  return {area.data(), length};
}

// The C library's decoders of these keep the byte order that they met first: no reset of a
// descriptor makes them forget it.
bool keepsByteOrder(const char* codePage) {
  return std::strcmp(codePage, "UTF-16") == 0 || std::strcmp(codePage, "UTF-32") == 0;
}

void checkAreas(const std::string& text, const char* to, const char* from, size_t room) {
  const IconvDescriptor descriptor(to, from);
  const IconvDescriptor other(to, from);
  const IconvDescriptor third(to, from);
  if (!descriptor.isOpen()) {
    return;
  }
  const ExactBytes bytes(text);
  const size_t enough = 8 * text.size() + 16;
  const std::string all = converted(descriptor.get(), bytes, enough);
  FUZZ_CHECK(converted(other.get(), bytes, enough) == all);
  if (!keepsByteOrder(from)) {
    FUZZ_CHECK(converted(descriptor.get(), bytes, enough) == all);
  }
  const std::string part = converted(third.get(), bytes, room);
  FUZZ_CHECK(all.starts_with(part));
  if (std::strcmp(to, "UTF-8") == 0) {
    FUZZ_CHECK(UnicodeUtilities::isValid(all.data(), static_cast<unsigned>(all.size())));
    FUZZ_CHECK(UnicodeUtilities::isValid(part.data(), static_cast<unsigned>(part.size())));
  }
}

}  // namespace

void setUpFuzzing() {
  setenv("QVX_DBG_CODEPAGE", native, 1);
  for (const char* const codePage : codePages) {
    keepConversions(codePage);
  }
}

void fuzz(FuzzInput& input) {
  const char* const codePage = codePages[input.choice(codePages.size())];
  const char* const other = codePages[input.choice(codePages.size())];
  const size_t room = input.byte();
  const std::string text = input.rest();
  checkNative(text);
  checkNamed(text, codePage);
  checkAreas(text, codePage, other, room);
  checkAreas(text, "UTF-8", codePage, room);
}
