#include <cstdint>
#include <iconv.h>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Engine/utilities/ASCII.h"
#include "Engine/utilities/AssertionFail.h"
#include "Engine/utilities/AssertionMode.h"
#include "Engine/utilities/ByteString.h"
#include "Engine/utilities/CUL_SemaphoreError.h"
#include "Engine/utilities/CharString.h"
#include "Engine/utilities/Checksums.h"
#include "Engine/utilities/EBCDIC.h"
#include "Engine/utilities/EBCDICtable.h"
#include "Engine/utilities/EBCDICtableStore.h"
#include "Engine/utilities/ElapsedTime.h"
#include "Engine/utilities/EncodedString.h"
#include "Engine/utilities/Iconv.h"
#include "Engine/utilities/List.h"
#include "Engine/utilities/MD5.h"
#include "Engine/utilities/ProductData.h"
#include "Engine/utilities/Reference.h"
#include "Engine/utilities/ReferenceCounted.h"
#include "Engine/utilities/StdException.h"
#include "Engine/utilities/StringPoolManager.h"
#include "Engine/utilities/TimeDateStamp.h"
#include "Engine/utilities/UTF8Converter.h"
#include "Engine/utilities/UnicodeUtilities.h"
#include "Engine/utilities/checkParameter.h"

#include "tests/torture/Workload.h"

namespace {

using Encoding = EncodedString::Encoding;

EncodedString utf8(const char* text) { return {text, Encoding::utf8}; }

// Long enough that no class of the string pool serves it.
constexpr const char* longText =
    "a text of more than sixty-four bytes, which the string pool takes from the heap each time";

template <class T, unsigned n>
void useBuffers(const T (&letters)[n]) {
  using Buffer = StringBuffer<T>;
  const Buffer text(letters, n - 1);
  Buffer copy(text);
  Buffer empty;
  CUL_EXPECT_THAT(copy == text && !(copy != text) && empty.length() == 0);
  CUL_EXPECT_THAT(!(copy < text) && !(copy > text));
  CUL_EXPECT_THAT(Buffer(text, 2).length() == n - 2 && Buffer(text, 2, 20, T{'x'}).length() == 20);
  copy += text;
  CUL_EXPECT_THAT(copy.length() == 2 * (n - 1));
  CUL_EXPECT_THAT(copy.occurrencesOf(text) == 2 && copy.indexOf(text, 2) == n);
  copy.change(text, Buffer(letters, 1));
  CUL_EXPECT_THAT(copy.length() == n);
  copy.remove(1, 1);
  copy.rightJustify(100, T{'.'});
  CUL_EXPECT_THAT(copy.length() == 100 && copy.indexOf(T{'.'}) == 1);
  CUL_EXPECT_THAT(copy.lastIndexOf(T{'.'}, 100) == 100 - (n - 1));
  CUL_EXPECT_THAT(copy.indexOfAnyBut(T{'.'}) == 100 - (n - 2));
  CUL_EXPECT_THAT(copy.lastIndexOfAnyBut(T{'.'}, 100) == 100);
  empty = copy;
  Buffer moved(std::move(empty));
  empty = std::move(moved);
  CUL_EXPECT_THAT(empty == copy && empty.hashValue() == copy.hashValue());
  CUL_EXPECT_THAT(empty.hashValue8() == copy.hashValue8());
  CUL_EXPECT_THAT(!empty.isDigits() && !empty.isHexDigits() && !empty.isBinaryDigits());
  const Buffer& fixed = empty;
  CUL_EXPECT_THAT(fixed[1] == empty[1] && fixed[1U] == empty[1U]);
  CUL_EXPECT_THAT(static_cast<const T*>(fixed) == static_cast<T*>(empty));
  const std::unique_ptr<Buffer> owned = std::make_unique<Buffer>(empty);
  empty.clear();
  empty.deleteBuffer();
  empty.makeBuffer(0);
}

void useByteBuffers() {
  constexpr unsigned char letters[] = "a text of bytes";
  useBuffers(letters);
}
void useWideBuffers() { useBuffers(L"a wide text"); }
void useEncodedBuffers() { useBuffers("a text of this and that"); }

void useByteStrings() {
  const ByteString text("  bytes, more  ");
  CUL_EXPECT_THAT(stripWhiteSpace(text) == ByteString("bytes, more"));
  ByteString copy(text);
  copy.stripLeading(' ');
  copy.stripTrailing(' ');
  CUL_EXPECT_THAT(copy.firstToken(",") == ByteString("bytes"));
  CUL_EXPECT_THAT((ByteString("a") + ByteString(longText)).length() == 90);
  CUL_EXPECT_THAT(ByteString("abc", 1, "def", 2, "ghi", 3) == ByteString("adeghi"));
  CUL_EXPECT_THAT(ByteString::hexFormat("\x12\xAB", 2).length() != 0);
  CUL_EXPECT_THAT(ByteString(static_cast<unsigned short>(0x6162), 50).length() == 100);
  CUL_EXPECT_THAT(ByteString(text, 3).length() == 13 && ByteString(text, 3, 5, ' ').length() == 5);
  ByteString pointer("0x1234 ");
  pointer.stripPointerWhiteSpace();
  ByteString moved(std::move(copy));
  copy = std::move(moved);
  copy += text;
  copy = text;
  CUL_EXPECT_THAT(copy == text);
}

void useCharStrings() {
  const CharString text(L"  Wide, \"quoted text\" and more  ");
  CharString copy(text);
  copy.stripLeading(L' ');
  copy.stripTrailing(L' ');
  copy.lower();
  copy.upper();
  CUL_EXPECT_THAT(copy.firstToken(L",") == L"WIDE");
  copy.stripLeading(L',');
  copy.stripLeading(L' ');
  CUL_EXPECT_THAT(copy.firstQuotedToken(L" ") == L"\"QUOTED TEXT\"");
  CUL_EXPECT_THAT(CharString(L'x', 3) == L"xxx" && CharString(L"abcdef", 2) == L"ab");
  CUL_EXPECT_THAT((CharString(L"ab") + CharString(L"cd")) == CharString(L"abcd"));
  CUL_EXPECT_THAT(CharString(text, 3, 4, L' ') == L"Wide" && CharString(text, 3).length() == 30);
  copy = L"assigned";
  copy += CharString(L" and more");
  copy.change(CharString(L"more"), CharString(L"all of the rest"));
  CUL_EXPECT_THAT(copy == L"assigned and all of the rest");
  CUL_EXPECT_THAT(copy.startsWith(CharString(L"ass")) && copy.endsWith(CharString(L"rest")));
  CUL_EXPECT_THAT(copy.matchLength(CharString(L"assigned"), 1) != 0);
  CUL_EXPECT_THAT(copy.skipChars(1, L"as") == 4);
  CharString moved(std::move(copy));
  copy = std::move(moved);
  copy = text;
}

void scanCharStrings() {
  const CharString text(L"12 1F word next");
  unsigned position = 1;
  CUL_EXPECT_THAT(text.scanUnsigned(position) == 12);
  position = 4;
  CUL_EXPECT_THAT(text.scanHex(position) == 0x1F);
  position = 7;
  CUL_EXPECT_THAT(text.scanString(position, L" ") == L"word");
  int value = 0;
  unsigned number = 0;
  long great = 0;
  unsigned long greater = 0;
  const CharString digits(L"42");
  CUL_EXPECT_THAT(digits.asValue(value) && digits.asValue(number));
  CUL_EXPECT_THAT(digits.asValue(great) && digits.asValue(greater) && greater == 42);
  CUL_EXPECT_THAT(CharString::makeFromNumeric(-42L) == L"-42");
  CUL_EXPECT_THAT(CharString::makeFromNumeric(42UL) == L"42" && digits.d2x() == digits);
  CUL_EXPECT_THAT(text.makeQuotedToken().length() == text.length() + 2);
  CUL_EXPECT_THAT(text.makeToken().length() != 0 && text.makeToken(L" ").length() != 0);
  CharString arg(L"/name=value");
  CUL_EXPECT_THAT(checkParameter(arg, L"/name", 2, 0, L"="));
  CharString again(L"/name=value");
  CUL_EXPECT_THAT(checkParameter(again, CharString(L"/name"), 2, 0, L"="));
}

void readVariables() {
  CUL_EXPECT_THAT(CharString::getEnvVar("PATH").length() != 0);
  CUL_EXPECT_THAT(CharString::getEnvVar(L"PATH").length() != 0);
  CUL_EXPECT_THAT(CharString::getEnvVar(CharString(L"NO_SUCH_VARIABLE")).length() == 0);
}

void useEncodedStrings() {
  const EncodedString text(utf8("  token, rest  "));
  EncodedString copy(text);
  copy.stripWhiteSpace();
  CUL_EXPECT_THAT(copy.firstToken(",").view() == "token");
  copy = text;
  copy.stripLeadingWhiteSpace();
  CUL_EXPECT_THAT(copy.hasTrailingWhiteSpace());
  copy.stripTrailingWhiteSpace();
  CUL_EXPECT_THAT(copy.allBefore(',').view() == "token" && copy.allAfter(',').view() == " rest");
  CUL_EXPECT_THAT(copy.splitAt(',').length() != 0);
  EncodedString hex = utf8("0x12");
  hex.stripHexPrefix();
  CUL_EXPECT_THAT(hex.view() == "12" && text.subString(3).length() == 13);
  CUL_EXPECT_THAT(text.subString(3, 5, L' ').view() == "token" && text.charCount() == 15);
  CUL_EXPECT_THAT(text.isValid() && !text.isNLS() && EncodedString::isWhiteSpace(' '));
  CUL_EXPECT_THAT((text + utf8(longText)).length() == 15 + std::string_view(longText).size());
  CUL_EXPECT_THAT(compareCaseInsensitive("TOKEN", utf8("token")));
  EncodedString moved(std::move(copy));
  copy = std::move(moved);
  copy += text;
}

void makeEncodedStrings() {
  const auto* const bytes = reinterpret_cast<const unsigned char*>("bytes");
  const auto* const signedBytes = reinterpret_cast<const signed char*>("bytes");
  CUL_EXPECT_THAT(EncodedString(bytes, Encoding::utf8).length() == 5);
  CUL_EXPECT_THAT(EncodedString(signedBytes, Encoding::utf8).length() == 5);
  CUL_EXPECT_THAT(EncodedString("bytes", 3, Encoding::autodetect).length() == 3);
  CUL_EXPECT_THAT(EncodedString(bytes, 3, Encoding::utf8).length() == 3);
  CUL_EXPECT_THAT(EncodedString(signedBytes, 3, Encoding::utf8).length() == 3);
  CUL_EXPECT_THAT(EncodedString(ByteString("bytes"), Encoding::utf8).length() == 5);
  CUL_EXPECT_THAT(EncodedString(CharString(L"wide \u20ac")).length() == 8);
  CUL_EXPECT_THAT(EncodedString(L"wide \u20ac").length() == 8);
  CUL_EXPECT_THAT(EncodedString(L'\u20ac', 30).length() == 90);
  EncodedString text;
  text = CharString(L"assigned");
  text = L"assigned";
  text += CharString(L" more");
  text += L" and more";
  CUL_EXPECT_THAT(text.view() == "assigned more and more");
  CharString wide;
  wide.loadFrom("slash \\u20ac", 12, Encoding::slashU);
  CUL_EXPECT_THAT(wide.encoded().length() == 9);
}

void makeNumbers() {
  CUL_EXPECT_THAT(EncodedString::number(-1).view() == "-1");
  CUL_EXPECT_THAT(EncodedString::number(1U).view() == "1");
  CUL_EXPECT_THAT(EncodedString::number(-1L).view() == "-1");
  CUL_EXPECT_THAT(EncodedString::number(1UL).view() == "1");
  CUL_EXPECT_THAT(EncodedString::number(1.5F).length() != 0);
  CUL_EXPECT_THAT(EncodedString::number(1.5).length() != 0);
  CUL_EXPECT_THAT(EncodedString::number(1.5L).length() != 0);
}

void convertNatively() {
  const EncodedString text("caf\xE9", Encoding::native);
  CUL_EXPECT_THAT(text.view() == "caf\xC3\xA9");
  CUL_EXPECT_THAT(text.convert(Encoding::native) == ByteString("caf\xE9"));
  CUL_EXPECT_THAT(text.convertToNative() == ByteString("caf\xE9"));
  CUL_EXPECT_THAT(std::string_view(EncodedString::nativeCodepage()) == "ISO-8859-1");
  const UTF8Converter& converter = UTF8Converter::instance();
  CUL_EXPECT_THAT(converter.convertToUTF8("caf\xE9", 4).length() == 5);
  CUL_EXPECT_THAT(converter.convertFromUTF8("caf\xC3\xA9", 5).length() == 4);
}

void convertOtherCodePages() {
  CUL_EXPECT_THAT(UnicodeUtilities::convertFromCP("\x82\xA0", "SHIFT_JIS").length() == 3);
  CUL_EXPECT_THAT(EncodedString(ByteString("\xD0\xB0"), "KOI8-R").view() == "\xC1");
  EncodedString text = utf8("\xD0\xB0");
  text.convertToUTF8("KOI8-R");
  CUL_EXPECT_THAT(text.view() == "\xC1");
  CUL_EXPECT_THAT(utf8("\xE2\x82\xAC").convertToNative("ISO-8859-15").length() != 0);
  CUL_EXPECT_THAT(
      UTF8Converter::instance().convertToUTF8("\xE2\x82\xAC", 3, "ISO-8859-15").length() == 1);
}

void convertSlashU() {
  EncodedString text = utf8("euro \xE2\x82\xAC");
  CUL_EXPECT_THAT(text.convert(Encoding::slashU).length() == 11);
  text = utf8("euro \\u20ac");
  text.convertFromSlashU();
  CUL_EXPECT_THAT(text.length() == 8);
}

void callIconv() {
  const IconvDescriptor descriptor("UTF-8", "ISO-8859-1");
  CUL_EXPECT_THAT(descriptor.isOpen());
  char output[20];
  CUL_EXPECT_THAT(iconvDebug(descriptor.get(), "caf\xE9", 4, output, sizeof output) == 5);
}

void lookAtCharacters() {
  wchar_t value = 0;
  CUL_EXPECT_THAT(UnicodeUtilities::utf8Encode("\xE2\x82\xAC", value) == 3 && value == L'\u20ac');
  CUL_EXPECT_THAT(UnicodeUtilities::utf8Encode("\xE2\x82\xAC", 3, value) == 3);
  wchar_t wide[8];
  CUL_EXPECT_THAT(UnicodeUtilities::utf8toUnicode("\xE2\x82\xAC", 3, wide, 8) == 2);
  char bytes[8];
  CUL_EXPECT_THAT(UnicodeUtilities::unicodeToUTF8(0x20AC, bytes, sizeof bytes) == 3);
  CUL_EXPECT_THAT(UnicodeUtilities::unicodeToUTF8(L"\u20ac", 1, bytes, sizeof bytes) == 4);
  CUL_EXPECT_THAT(UnicodeUtilities::utf8Length(L"\u20ac", 1) == 3);
  CUL_EXPECT_THAT(UnicodeUtilities::charCount("\xE2\x82\xAC", 3) == 1);
  CUL_EXPECT_THAT(UnicodeUtilities::findCharacter("ab", 2, 2) != nullptr);
  CUL_EXPECT_THAT(UnicodeUtilities::isValid("ab", 2) &&
                  UnicodeUtilities::asciiLength("ab", 2) == 2);
  CUL_EXPECT_THAT(UnicodeUtilities::isBaseChar(L'a') && UnicodeUtilities::isLetter(L'a'));
  CUL_EXPECT_THAT(UnicodeUtilities::isCombiningChar(L'\u0300') && UnicodeUtilities::isDigit(L'1'));
  CUL_EXPECT_THAT(UnicodeUtilities::isExtender(L'\u00b7') &&
                  UnicodeUtilities::isIdeographic(L'\u4e00'));
}

void useEBCDIC() {
  unsigned char text[] = "abc";
  unsigned char other[4] = {};
  EBCDIC::fromUCS7bit(text);
  EBCDIC::toUCS7bit(text);
  EBCDIC::fromUCS7bit(text, 3);
  EBCDIC::toUCS7bit(text, 3);
  EBCDIC::fromUCS7bit(other, text);
  EBCDIC::toUCS7bit(text, other);
  EBCDIC::fromUCS7bit(other, text, 3);
  EBCDIC::toUCS7bit(text, other, 3);
  CUL_EXPECT_THAT(text[0] == 'a' && text[2] == 'c');
}

void useEBCDICTables() {
  EBCDICtableStore& store = EBCDICtableStore::instance();
  const EBCDICtable* const standard = store.find(nullptr);
  const ByteString bytes = standard->fromUCS(L"torture", 7);
  CUL_EXPECT_THAT(standard->toUCS(bytes, 7) == CharString(L"torture"));
  List<EBCDICtable::ValuePair> pairs;
  pairs.add({0x41, 0xC1});
  pairs.add({0x4E00, 0x4145});
  pairs.add({0x00E9, 0x51});
  struct Removal {
    EBCDICtableStore& store;
    ~Removal() { store.remove("mine"); }
  } const removal{store};
  const EBCDICtable* const mine = store.add(pairs, "mine");
  CUL_EXPECT_THAT(store.find("mine") == mine && mine->getName() == ByteString("mine"));
  const ByteString mixed = mine->fromUCS(L"A\u4e00\u00e9A", 4);
  CUL_EXPECT_THAT(mine->toUCS(mixed, mixed.length()) == CharString(L"A\u4e00\u00e9A"));
}

void useChecksums() {
  CUL_EXPECT_THAT(crc8(3U, "abc", 0U) != 0 && crc32(3U, "abc", 0U) != 0);
  const MD5 digest(ByteString("abc"));
  CUL_EXPECT_THAT(digest == MD5("abc", 3));
  const EncodedString text = digest.asString(MD5::hexadecimal);
  CUL_EXPECT_THAT(text.view() == "900150983CD24FB0D6963F7D28E17F72");
  CUL_EXPECT_THAT(MD5::fromText(text.view().data()) == digest);
  CUL_EXPECT_THAT(digest.asString(MD5::textIfAlphanumeric).length() != 0);
}

void tellTheTime() {
  const TimeDateStamp stamp(2001, 2, 3, 4, 5, 6);
  const TimeDateStamp later("20010203040507");
  CUL_EXPECT_THAT(stamp.asString(true).view() == "20010203040506");
  CUL_EXPECT_THAT(stamp.asString(false).length() != 0);
  CUL_EXPECT_THAT(stamp < later && stamp <= later && later > stamp && later >= stamp);
  CUL_EXPECT_THAT(stamp != later && !(stamp == later) && stamp.difference(later) != 0);
  ElapsedTime elapsed;
  elapsed.start = ElapsedTime::now();
  CUL_EXPECT_THAT(std::string_view(elapsed.elapsedTime()).size() != 0);
}

void throwAndCatch() {
  const auto statusOf = [](auto throwing) {
    try {
      throwing();
    } catch (const StdException& exception) {
      exception.trace("StringWorkloads", 1);
      return exception.status;
    }
    return 0;
  };
  CUL_EXPECT_THAT(statusOf([] { StdException::throwException("torture", 1, 7); }) == 7);
  CUL_EXPECT_THAT(statusOf([] { StdException::throwException("torture", 1, longText, 8); }) == 8);
  CUL_EXPECT_THAT(statusOf([] { throw StdException("torture", 1, 9); }) == 9);
  CUL_EXPECT_THAT(statusOf([] { throw StdException("torture", 1, "text", 10); }) == 10);
  CUL_EXPECT_THAT(statusOf([] { throw CUL_SemaphoreError("torture", 1, nullptr, 11); }) == 11);
}

void assertSomething() {
  CUL_EXPECT_THAT(assertionMode() == 0);
  AssertionFail(0, "torture", "void assertSomething()", 1, "asserted");
  AssertionFail(1, "torture", "void assertSomething()", 1, "holds");
}

class Counted : public ReferenceCounted {};

void useReferences() {
  const Reference<ReferenceCounted> reference(new ReferenceCounted);
  const Reference<Counted> own(new Counted);
  const Reference<ReferenceCounted> same = own;
  CUL_EXPECT_THAT(same->referenceCount() == 2 && same == own && !(same == reference));
}

void useThePool() {
  StringPoolManager& pool = StringPoolManager::instance();
  for (const unsigned size : {1U, 8U, 16U, 24U, 32U, 48U, 64U, 65U, 500U}) {
    void* const block = pool.getBuffer(size);
    pool.freeBuffer(block, size);
    CUL_EXPECT_THAT(size <= StringPoolManager::maximumPooledSize || pool.freeBlocks(size) == 0);
  }
}

// All classes run out of blocks.
void fillThePool() {
  struct Taken {
    std::vector<void*> blocks;
    unsigned size;
    ~Taken() {
      for (void* const block : blocks) {
        StringPoolManager::instance().freeBuffer(block, size);
      }
    }
  };
  for (const unsigned size : {8U, 24U}) {
    Taken taken{{}, size};
    taken.blocks.reserve(2000);
    for (int i = 0; i < 2000; ++i) {
      taken.blocks.push_back(StringPoolManager::instance().getBuffer(size));
    }
  }
}

void askForTheProduct() { CUL_EXPECT_THAT(*productData().name != 0); }

// What cannot be converted is told as it is, or as nothing.
constexpr const char* conversion = "malloc iconv iconv_open";

const Workload workloads[] = {
    {"byte buffers", useByteBuffers},
    {"wide buffers", useWideBuffers},
    {"encoded buffers", useEncodedBuffers},
    {"byte strings", useByteStrings},
    {.name = "wide strings", .work = useCharStrings, .shortens = true},
    {"scanning", scanCharStrings},
    {"variables", readVariables, -1, {{"other: CharString::getEnvVar(...", conversion}}},
    {"encoded strings", useEncodedStrings},
    {"making encoded strings", makeEncodedStrings, -1, {{"other: wide.encoded()...", conversion}}},
    {"numbers", makeNumbers, -1, {{"other: EncodedString::number(...", "vsnprintf"}}},
    {.name = "native code page",
     .work = convertNatively,
     .mayTell = {{"other: text...", conversion}, {"other: converter.convert...", conversion}},
     .keepsFirstFailure = true},
    {.name = "other code pages",
     .work = convertOtherCodePages,
     .mayTell = {{"other: UnicodeUtilities::convertFromCP(...", conversion},
                 {"other: EncodedString(ByteString(...", conversion},
                 {"other: text.view()...", conversion},
                 {"other: utf8(...", conversion},
                 {"other: UTF8Converter::instance().convert...", conversion}}},
    {"escapes", convertSlashU},
    {.name = "iconv",
     .work = callIconv,
     .mayTell = {{"other: descriptor.isOpen()", "malloc iconv_open"},
                 {"other: iconvDebug(descriptor.get(), \"caf\\xC3\\xA9\"...", "iconv"},
                 {"other: iconvDebug(descriptor.get(), \"caf\\xE9\"...", "iconv"}}},
    {"characters", lookAtCharacters},
    {"EBCDIC", useEBCDIC},
    {"EBCDIC tables", useEBCDICTables},
    {"checksums", useChecksums},
    {"time stamps",
     tellTheTime,
     -1,
     {{"other: stamp.asString(...", "mktime localtime_r snprintf iconv"},
      {"other: stamp < later...", "mktime"}}},
    {"exceptions", throwAndCatch},
    {"assertions", assertSomething},
    {"references", useReferences},
    {"string pool", useThePool},
    {"filling the pool", fillThePool},
    {"product data", askForTheProduct},
};

}  // namespace

std::span<const Workload> stringWorkloads() { return workloads; }
