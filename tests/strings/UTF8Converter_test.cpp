#include "Engine/utilities/UTF8Converter.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <barrier>
#include <cerrno>
#include <clocale>
#include <cstdlib>
#include <cstring>
#include <iconv.h>
#include <langinfo.h>
#include <string>
#include <string_view>
#include <thread>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "Engine/utilities/ByteString.h"
#include "Engine/utilities/EncodedString.h"
#include "Engine/utilities/Iconv.h"
#include "Engine/utilities/StdThread.h"
#include "Engine/utilities/StringPoolManager.h"

#include "tests/strings/GuardedBytes.h"
#include "tests/support/Child.h"
#include "tests/support/StandIn.h"
#include "tests/support/TemporaryFolder.h"
#include "tests/threads/ThreadSupport.h"

CUL_STAND_IN(iconv_t, iconv_open, (const char* to, const char* from), CUL_NOTHING, to, from)
CUL_STAND_IN(int, iconv_close, (iconv_t descriptor), CUL_NOTHING, descriptor)

namespace {

using namespace std::string_literals;
using namespace std::string_view_literals;

// In place of iconv_open().
iconv_t openUnless(bool isRefused, const char* to, const char* from) {
  if (isRefused) {
    errno = EINVAL;
    return invalidIconv;
  }
  return iconv_openStandIn.real(to, from);
}

std::string in(std::string_view bytes, const char* named = nullptr) {
  const EncodedString s = UTF8Converter::instance().convertToUTF8(
      bytes.data(), static_cast<unsigned>(bytes.size()), named);
  return {static_cast<const char*>(s), s.length()};
}

std::string out(std::string_view bytes) {
  const ByteString s =
      UTF8Converter::instance().convertFromUTF8(bytes.data(), static_cast<unsigned>(bytes.size()));
  return {reinterpret_cast<const char*>(static_cast<const unsigned char*>(s)), s.length()};
}

const char* codepage() { return UTF8Converter::instance().nativeCodepage(); }

void expectSuccess(const char* child, std::map<std::string, std::string> environment,
                   std::vector<std::string> arguments = {}) {
  ChildOptions options;
  options.environment = std::move(environment);
  options.arguments = std::move(arguments);
  const ChildResult r = runChild(child, options);
  EXPECT_EQ(r.status, 0) << r.out << r.err;
}

// The result of iconvDebug() into `size` bytes, which must end in a zero byte and be all
// that is touched.
std::string debug(const IconvDescriptor& descriptor, std::string_view input, size_t size) {
  const GuardedBytes source(input);
  const GuardedBytes area(size);
  const size_t written =
      iconvDebug(descriptor.get(), source.data(), input.size(), area.data(), size);
  EXPECT_LT(written, size);
  EXPECT_EQ(area.data()[written], '\0');
  return {area.data(), written};
}

}  // namespace

// The native code page.

CUL_CHILD(CodepageIsTheNamedOne) {
  EXPECT_STREQ(codepage(), "ISO-8859-1");
  EXPECT_EQ(codepage(), getenv("QVX_DBG_CODEPAGE"));
  EXPECT_EQ(in("caf\xE9"), "caf\xC3\xA9");
  EXPECT_EQ(out("caf\xC3\xA9"), "caf\xE9");
  EXPECT_EQ(in(""), "");
  EXPECT_EQ(out(""), "");
}

TEST(UTF8Converter, TakesTheCodePageThatTheEnvironmentNames) {
  expectSuccess("CodepageIsTheNamedOne",
                {{"QVX_DBG_CODEPAGE", "ISO-8859-1"}, {"LC_ALL", "C.UTF-8"}});
}

CUL_CHILD(CodepageIsUtf8) {
  EXPECT_STREQ(codepage(), "UTF-8");
  EXPECT_EQ(in("\xE2\x82\xAC"), "\xE2\x82\xAC");
  EXPECT_EQ(out("\xE2\x82\xAC"), "\xE2\x82\xAC");
  EXPECT_EQ(in("\xE9\x41"), "?A");
  EXPECT_EQ(in("\xC3"), "?");
  EXPECT_EQ(out("\xED\xA0\x80z"), "???z");
}

TEST(UTF8Converter, ConvertsBetweenUtf8AndUtf8) {
  expectSuccess("CodepageIsUtf8", {{"QVX_DBG_CODEPAGE", "UTF-8"}});
}

CUL_CHILD(CodepageHasDoubleBytes) {
  EXPECT_STREQ(codepage(), "SHIFT_JIS");
  EXPECT_EQ(in("a\x93\xFA\x96\x7Bz"), "a\u65e5\u672cz");
  EXPECT_EQ(out("a\u65e5\u672cz"), "a\x93\xFA\x96\x7Bz");
  // Half a double byte at the end.
  EXPECT_EQ(in("a\x93"), "a?");
  // A character that the code page does not have: one "?" for each of its bytes.
  EXPECT_EQ(out("a\xF0\x9F\x98\x80z"), "a????z");
}

TEST(UTF8Converter, ConvertsADoubleByteCodePage) {
  expectSuccess("CodepageHasDoubleBytes", {{"QVX_DBG_CODEPAGE", "SHIFT_JIS"}});
}

TEST(UTF8Converter, TakesTheCodePageOfTheLocaleWhenNoneIsNamed) {
  expectSuccess("CodepageIsUtf8", {{"LC_ALL", "C.UTF-8"}});
  expectSuccess("CodepageIsUtf8", {{"LC_CTYPE", "C.UTF-8"}});
}

TEST(UTF8Converter, TakesTheCodePageOfTheLocaleWhenTheNamedOneIsEmptyOrUnknown) {
  expectSuccess("CodepageIsUtf8", {{"QVX_DBG_CODEPAGE", ""}, {"LC_ALL", "C.UTF-8"}});
  expectSuccess("CodepageIsUtf8",
                {{"QVX_DBG_CODEPAGE", "NO-SUCH-CODE-PAGE"}, {"LC_ALL", "C.UTF-8"}});
}

CUL_CHILD(CodepageIsAscii) {
  const std::string expected = nl_langinfo(CODESET);  // of the "C" locale
  EXPECT_EQ(codepage(), expected);
  EXPECT_EQ(in("a\xC3\xA9z"), "a??z");
  EXPECT_EQ(out("a\xC3\xA9z"), "a??z");
}

TEST(UTF8Converter, ConvertsAsciiOnlyInTheCLocale) {
  expectSuccess("CodepageIsAscii", {{"LC_ALL", "C"}});
  expectSuccess("CodepageIsAscii", {});
  expectSuccess("CodepageIsAscii", {{"LC_ALL", "no_SUCH.locale"}});
}

TEST(UTF8Converter, AsksForTheLocaleOfAllCategoriesOrNone) {
  expectSuccess("CodepageIsAscii", {{"LC_CTYPE", "C.UTF-8"}, {"LC_TIME", "no_SUCH.locale"}});
}

CUL_CHILD(CodepageOfALegacyLocale) {
  EXPECT_STREQ(codepage(), "ISO-8859-15");
  EXPECT_EQ(in("\xA4"), "\xE2\x82\xAC");
  EXPECT_EQ(out("\xE2\x82\xAC"), "\xA4");
  EXPECT_STREQ(setlocale(LC_ALL, nullptr), "C");
  // The name stays although the locale is not the process's any more.
  setlocale(LC_ALL, "C.UTF-8");
  setlocale(LC_ALL, "C");
  EXPECT_STREQ(codepage(), "ISO-8859-15");
}

TEST(UTF8Converter, KnowsTheCodePageOfAnyLocale) {
  const TemporaryFolder folder;
  const ChildResult made = runProgram({"/usr/bin/localedef", "--no-archive", "-i", "de_DE", "-f",
                                       "ISO-8859-15", folder.file("de_DE.ISO-8859-15")});
  ASSERT_EQ(made.status, 0) << made.out << made.err;
  expectSuccess("CodepageOfALegacyLocale",
                {{"LOCPATH", folder.path()}, {"LC_ALL", "de_DE.ISO-8859-15"}});
}

CUL_CHILD(LocaleIsKept) {
  ASSERT_NE(setlocale(LC_TIME, "C.UTF-8"), nullptr);
  const std::string before = setlocale(LC_ALL, nullptr);
  EXPECT_NE(before, "C");
  EXPECT_STREQ(codepage(), "UTF-8");
  EXPECT_EQ(setlocale(LC_ALL, nullptr), before);
}

TEST(UTF8Converter, LeavesTheLocaleOfTheProcessAsItWas) {
  expectSuccess("LocaleIsKept", {{"LC_ALL", "C.UTF-8"}});
}

CUL_CHILD(ConverterIsOne) {
  errno = 4711;
  EXPECT_EQ(&UTF8Converter::instance(), &UTF8Converter::instance());
  EXPECT_EQ(errno, 4711);
  // Too late: the code page is fixed.
  setenv("QVX_DBG_CODEPAGE", "ISO-8859-5", 1);
  EXPECT_EQ(in("\xE9"), "\xC3\xA9");
}

namespace {

std::atomic<int> openConverters = 0;
std::atomic<bool> isMaking = false;
std::atomic<pid_t> second = 0;

}  // namespace

CUL_CHILD(ConverterMadeTwiceAtOnce) {
  static_cast<void>(StringPoolManager::instance());
  const Instead opening(iconv_openStandIn, [](const char* to, const char* from) {
    if (!isMaking.exchange(true)) {
      // Another thread has found no converter either, and waits to make one.
      waitUntilAsleep(second);
    }
    ++openConverters;
    return iconv_openStandIn.real(to, from);
  });
  const Instead closing(iconv_closeStandIn, [](iconv_t descriptor) {
    --openConverters;
    return iconv_closeStandIn.real(descriptor);
  });
  std::thread other([] {
    waitUntil([] { return isMaking.load(); });
    second = gettid();
    static_cast<void>(UTF8Converter::instance());
  });
  static_cast<void>(UTF8Converter::instance());
  other.join();
  EXPECT_EQ(openConverters, 2);
}

TEST(UTF8Converter, ThatTwoThreadsMakeAtOnceClosesWhatIsNotUsed) {
  expectSuccess("ConverterMadeTwiceAtOnce", {{"QVX_DBG_CODEPAGE", "ISO-8859-1"}});
}

TEST(UTF8Converter, FixesTheCodePageByItsFirstUse) {
  expectSuccess("ConverterIsOne", {{"QVX_DBG_CODEPAGE", "ISO-8859-1"}});
}

CUL_CHILD(ErrnoIsKept) {
  errno = 4711;
  EXPECT_NE(codepage(), nullptr);
  EXPECT_EQ(errno, 4711);
}

TEST(UTF8Converter, KeepsErrnoWhateverItHasToTry) {
  expectSuccess("ErrnoIsKept", {{"QVX_DBG_CODEPAGE", "NO-SUCH-CODE-PAGE"}, {"LC_ALL", "no_SUCH"}});
  expectSuccess("ErrnoIsKept", {{"LC_ALL", "C.UTF-8"}});
}

namespace {

unsigned longestNameOpened = 0;

// In place of iconv_open().
iconv_t noteNames(const char* to, const char* from) {
  longestNameOpened =
      std::max(longestNameOpened, static_cast<unsigned>(std::max(strlen(to), strlen(from))));
  return iconv_openStandIn.real(to, from);
}

// A name of UTF-8 that the C library takes whatever its length.
std::string utf8OfLength(size_t length) { return std::string("UTF-8//").append(length - 7, 'X'); }

}  // namespace

CUL_CHILD(LongCodepage) {
  const Instead noting(iconv_openStandIn, noteNames);
  EXPECT_STREQ(codepage(), "UTF-8");  // of the locale
  EXPECT_EQ(longestNameOpened, 5U);
}

// The C library works for seconds on a name of 100 kB.
TEST(UTF8Converter, TakesACodePageWithTooLongANameForUnknownWithoutAskingTheCLibrary) {
  for (const size_t length : {size_t{257}, size_t{100000}}) {
    expectSuccess("LongCodepage",
                  {{"QVX_DBG_CODEPAGE", utf8OfLength(length)}, {"LC_ALL", "C.UTF-8"}});
  }
}

CUL_CHILD(CodepageWithALongName) {
  EXPECT_STREQ(codepage(), utf8OfLength(256).c_str());
  EXPECT_EQ(in("\xC3\xA9"), "\xC3\xA9");
}

TEST(UTF8Converter, TakesACodePageWithTheLongestName) {
  expectSuccess("CodepageWithALongName", {{"QVX_DBG_CODEPAGE", utf8OfLength(256)}});
}

CUL_CHILD(LongNamesGiven) {
  static_cast<void>(codepage());
  const Instead noting(iconv_openStandIn, noteNames);
  for (const size_t length : {size_t{257}, size_t{100000}}) {
    const std::string name = utf8OfLength(length);
    errno = 4711;
    EXPECT_FALSE(IconvDescriptor("UTF-8", name.c_str()).isOpen());
    EXPECT_FALSE(IconvDescriptor(name.c_str(), "UTF-8").isOpen());
    EXPECT_EQ(errno, 4711);
    EXPECT_EQ(in("a\xC3\xA9", name.c_str()), "a??");
  }
  EXPECT_EQ(longestNameOpened, 0U);
  EXPECT_TRUE(IconvDescriptor(utf8OfLength(256).c_str(), utf8OfLength(256).c_str()).isOpen());
  EXPECT_EQ(longestNameOpened, 256U);
}

TEST(UTF8Converter, RefusesTooLongNamesInEachCallAndKeepsErrno) {
  expectSuccess("LongNamesGiven", {});
}

// Converters that cannot be had.

CUL_CHILD(NoConverterAtAll) {
  const Instead refusing(iconv_openStandIn, [](const char* to, const char* from) {
    return openUnless(true, to, from);
  });
  EXPECT_STREQ(codepage(), "UTF-8");  // of the locale
  EXPECT_EQ(in("\xC3\xA9"), "??");
  EXPECT_EQ(out("\xC3\xA9"), "?");
  EXPECT_EQ(in("a\x7F\x80\xFFz"), "a\x7F??z");
  EXPECT_EQ(out("a\x7F\xE2\x82\xAC\xF0\x9F\x98\x80z"), "a\x7F??z");
  // Continuation bytes are dropped wherever they stand, lead bytes always count.
  EXPECT_EQ(out("\x80\xBF\xC0\xFF"), "??");
  EXPECT_EQ(in("a\0b"s), "a");
  EXPECT_EQ(out("a\0b"s), "a");
  EXPECT_EQ(in(""), "");
  EXPECT_EQ(out(""), "");
  EXPECT_EQ(in("\xC3\xA9", "ISO-8859-1"), "??");
  const std::string all(2000, '\x80');
  EXPECT_EQ(in(all), std::string(2000, '?'));
  EXPECT_EQ(out(all), "");
}

TEST(UTF8Converter, KeepsAsciiWhenNoConverterIsUsable) {
  expectSuccess("NoConverterAtAll", {{"QVX_DBG_CODEPAGE", "ISO-8859-1"}, {"LC_ALL", "C.UTF-8"}});
}

CUL_CHILD(OneDirectionIsRefused) {
  const Instead refusing(iconv_openStandIn, [](const char* to, const char* from) {
    return openUnless(
        childArguments()[0] == "out"sv ? to == "ISO-8859-1"sv : from == "ISO-8859-1"sv, to, from);
  });
  EXPECT_STREQ(codepage(), "UTF-8");
  EXPECT_EQ(in("\xC3\xA9"), "\xC3\xA9");
  EXPECT_EQ(out("\xC3\xA9"), "\xC3\xA9");
}

TEST(UTF8Converter, TakesANamedCodePageForBothDirectionsOrNot) {
  for (const char* direction : {"out", "in"}) {
    expectSuccess("OneDirectionIsRefused",
                  {{"QVX_DBG_CODEPAGE", "ISO-8859-1"}, {"LC_ALL", "C.UTF-8"}}, {direction});
  }
}

CUL_CHILD(LocaleConvertsOneWayOnly) {
  const Instead refusing(iconv_openStandIn, [](const char* to, const char* from) {
    return openUnless(from == "ANSI_X3.4-1968"sv, to, from);
  });
  EXPECT_STREQ(codepage(), "ANSI_X3.4-1968");
  EXPECT_EQ(in("\xC3\xA9z"), "??z");
  EXPECT_EQ(out("\xC3\xA9z"), "??z");
}

TEST(UTF8Converter, UsesTheOneDirectionThatALocaleHas) {
  expectSuccess("LocaleConvertsOneWayOnly", {{"LC_ALL", "C"}});
}

// Named code pages and limits; the native code page does not matter.

TEST(UTF8Converter, ConvertsToANamedCodePageNotFromIt) {
  EXPECT_EQ(in("caf\xC3\xA9", "ISO-8859-1"), "caf\xE9");
  EXPECT_EQ(in("\u65e5\u672c", "SHIFT_JIS"), "\x93\xFA\x96\x7B");
  EXPECT_EQ(in("caf\xE9", "ISO-8859-1"), "caf?");
  EXPECT_EQ(in("", "ISO-8859-1"), "");
}

TEST(UTF8Converter, KeepsAsciiForANamedCodePageThatIsUnknown) {
  EXPECT_EQ(in("caf\xC3\xA9", "NO-SUCH-CODE-PAGE"), "caf??");
}

CUL_CHILD(ResultsEndAtAZeroByte) {
  EXPECT_EQ(in("a\0b"s), "a");
  EXPECT_EQ(out("a\0b"s), "a");
  EXPECT_EQ(in("a\0b"s, "ISO-8859-15"), "a");
  EXPECT_EQ(in("\xE9", ""), "\xC3\xA9");  // Empty names nothing.
  const std::string longText(100000, '\xE9');
  EXPECT_EQ(in(longText).size(), 200000U);
  EXPECT_EQ(out(in(longText)), longText);
}

TEST(UTF8Converter, EndsItsResultsAtTheFirstZeroByte) {
  expectSuccess("ResultsEndAtAZeroByte", {{"QVX_DBG_CODEPAGE", "ISO-8859-1"}});
}

CUL_CHILD(OutputLimitIsTheInputLength) {
  // Three bytes of UTF-8, five with the change of the character set.
  EXPECT_LE(out("\u65e5").size(), 3U);
  // Six bytes there, which leave none for the second character here.
  EXPECT_EQ(out("\u65e5\u65e5"), "\x1B$BF|");
  EXPECT_EQ(out("\u65e5\u65e5\u65e5"), "\x1B$BF|F|F|");
  EXPECT_EQ(out("plain"), "plain");
  EXPECT_EQ(in("\x1B$BF|\x1B(Bz"), "\u65e5z");
}

TEST(UTF8Converter, GivesNoMoreNativeBytesThanThereWereBytesOfUtf8) {
  expectSuccess("OutputLimitIsTheInputLength", {{"QVX_DBG_CODEPAGE", "ISO-2022-JP"}});
}

CUL_CHILD(OutputLimitIsSixBytesForOne) {
  // One byte that stands for four characters, three bytes of UTF-8 each.
  EXPECT_EQ(in("\x82"), "\u0bb8\u0bcd");
  EXPECT_EQ(in("\x82z"), "\u0bb8\u0bcd\u0bb0\u0bc0");
  EXPECT_EQ(in("\x82zz"), "\u0bb8\u0bcd\u0bb0\u0bc0zz");
}

TEST(UTF8Converter, GivesNoMoreThanSixBytesOfUtf8ForEachNativeByte) {
  expectSuccess("OutputLimitIsSixBytesForOne", {{"QVX_DBG_CODEPAGE", "TSCII"}});
}

CUL_CHILD(LastCharacterIsLost) {
  EXPECT_EQ(in("a"), "");
  EXPECT_EQ(in("1a"), "1");
  EXPECT_EQ(in("a1"), "a1");
  EXPECT_EQ(in("a\xEC"), "\u00e1");
}

TEST(UTF8Converter, DropsALastCharacterThatCouldTakeAnAccent) {
  expectSuccess("LastCharacterIsLost", {{"QVX_DBG_CODEPAGE", "CP1258"}});
}

CUL_CHILD(ManyThreadsConvert) {
  UTF8Converter::instance();
  std::array<std::jthread, 4> threads;
  for (int i = 0; i < 4; ++i) {
    threads.at(static_cast<size_t>(i)) = std::jthread([i] {
      const std::string native(static_cast<size_t>(10 + i), static_cast<char>(0xE0 + i));
      std::string utf8;
      for (size_t k = 0; k < native.size(); ++k) {
        utf8 += {'\xC3', static_cast<char>(0xA0 + i)};
      }
      for (int round = 0; round < 500; ++round) {
        ASSERT_EQ(in(native), utf8);
        ASSERT_EQ(out(utf8), native);
        ASSERT_EQ(in(utf8, "ISO-8859-15"), native);
      }
    });
  }
}

TEST(UTF8Converter, ConvertsFromAnyThread) {
  expectSuccess("ManyThreadsConvert", {{"QVX_DBG_CODEPAGE", "ISO-8859-1"}});
}

namespace {

// Converts until it is asked to end.
class Conversions : public StdThread {
 public:
  Conversions(std::atomic<unsigned>& done, Termination* termination)
      : StdThread("conversions", 0, termination), done_(done) {}

  void run() override {
    const std::string native(200, '\xE9');
    while (out(in(native)) == native) {
      ++done_;
      thread_yield();
    }
  }

 private:
  std::atomic<unsigned>& done_;
};

}  // namespace

CUL_CHILD(ThreadsEndWhileTheyConvert) {
  EXPECT_EQ(in("\xE9"), "\xC3\xA9");
  for (unsigned round = 0; round < 30; ++round) {
    std::atomic<unsigned> done = 0;
    StdThread::Termination termination;
    auto* thread = new Conversions(done, &termination);
    thread->start_thread(0);
    while (done <= round) {
      std::this_thread::yield();
    }
    EXPECT_EQ(thread->requestTerminate(), 0);
    EXPECT_EQ(termination.wait(0), 0);
    EXPECT_EQ(in("\xE9"), "\xC3\xA9");
  }
}

TEST(UTF8Converter, GoesOnAfterAThreadWasEndedWhileItConverted) {
  // A thread that ends does so in its signal handler, which the thread sanitizer dislikes.
  expectSuccess("ThreadsEndWhileTheyConvert",
                {{"QVX_DBG_CODEPAGE", "ISO-8859-1"}, {"TSAN_OPTIONS", "report_signal_unsafe=0"}});
}

// iconvDebug.

TEST(iconvDebug, ConvertsAndTerminates) {
  const IconvDescriptor descriptor("UTF-8", "ISO-8859-1");
  EXPECT_EQ(debug(descriptor, "caf\xE9", 100), "caf\xC3\xA9");
  EXPECT_EQ(debug(descriptor, "", 100), "");
  EXPECT_EQ(debug(descriptor, "a\0b"s, 100), "a\0b"s);
}

TEST(iconvDebug, PutsAQuestionMarkForEachByteThatItCannotConvert) {
  const IconvDescriptor latin1("ISO-8859-1", "UTF-8");
  EXPECT_EQ(debug(latin1, "[\xE2\x82\xAC]", 100), "[???]");
  EXPECT_EQ(debug(latin1, "\x80\xFF\xC3", 100), "???");
  EXPECT_EQ(debug(latin1, "\xE2\x82z", 100), "??z");
  EXPECT_EQ(debug(latin1, "\xC3\xC3\xA9", 100), "?\xE9");
}

TEST(iconvDebug, WritesNothingIntoNoRoomAndTheZeroIntoOneByte) {
  const IconvDescriptor descriptor("UTF-8", "ISO-8859-1");
  char none = '#';
  EXPECT_EQ(iconvDebug(descriptor.get(), "abc", 3, &none, 0), 0U);
  EXPECT_EQ(none, '#');
  EXPECT_EQ(debug(descriptor, "abc", 1), "");
  EXPECT_EQ(debug(descriptor, "\xE9", 1), "");
}

TEST(iconvDebug, StopsWhenTheOutputAreaIsFull) {
  const IconvDescriptor descriptor("UTF-8", "ISO-8859-1");
  EXPECT_EQ(debug(descriptor, "abc", 3), "ab");
  EXPECT_EQ(debug(descriptor, "abc", 4), "abc");
  // What does not fit is no reason for a "?".
  EXPECT_EQ(debug(descriptor, "a\xE9z", 3), "a");
  EXPECT_EQ(debug(descriptor, "a\xE9z", 4), "a\xC3\xA9");
  const IconvDescriptor ascii("ASCII", "UTF-8");
  EXPECT_EQ(debug(ascii, "ab\xC3\xA9z", 3), "ab");
  EXPECT_EQ(debug(ascii, "ab\xC3\xA9z", 4), "ab?");
  EXPECT_EQ(debug(ascii, "ab\xC3\xA9z", 5), "ab??");
  EXPECT_EQ(debug(ascii, "ab\xC3\xA9z", 6), "ab??z");
}

TEST(iconvDebug, StartsEachConversionFromTheInitialShiftState) {
  const IconvDescriptor fromJapanese("UTF-8", "ISO-2022-JP");
  EXPECT_EQ(debug(fromJapanese, "\x1B$BF|", 100), "\u65e5");  // left in the other state
  EXPECT_EQ(debug(fromJapanese, "F|", 100), "F|");
  const IconvDescriptor toJapanese("ISO-2022-JP", "UTF-8");
  EXPECT_EQ(debug(toJapanese, "\u65e5", 100), "\x1B$BF|");
  EXPECT_EQ(debug(toJapanese, "F|", 100), "F|");
}

TEST(iconvDebug, DoesNotGoBackToTheInitialShiftState) {
  const IconvDescriptor japanese("ISO-2022-JP", "UTF-8");
  EXPECT_EQ(debug(japanese, "\u65e5", 6), "\x1B$BF|");
  EXPECT_EQ(debug(japanese, "\u65e5", 100), "\x1B$BF|");
  EXPECT_EQ(debug(japanese, "\u65e5z", 100), "\x1B$BF|\x1B(Bz");
  const IconvDescriptor host("IBM939", "UTF-8");
  EXPECT_EQ(debug(host, "\u65e5", 100), "\x0E\x45\x62");
  EXPECT_EQ(debug(host, "\u65e5a", 100), "\x0E\x45\x62\x0F\x81");
  const IconvDescriptor utf7("UTF-7", "UTF-8");
  EXPECT_EQ(debug(utf7, "\u65e5", 100), "+Ze") << "the last bits and the sign of the end";
  EXPECT_EQ(debug(utf7, "\u65e5z", 100), "+ZeU-z");
}

TEST(iconvDebug, DropsALastCharacterThatIconvHoldsBack) {
  // Together with an accent that follows it could be one character.
  const IconvDescriptor vietnamese("UTF-8", "CP1258");
  EXPECT_EQ(debug(vietnamese, "1a", 100), "1");
  EXPECT_EQ(debug(vietnamese, "1", 100), "1") << "nor is it there the next time";
  EXPECT_EQ(debug(vietnamese, "a1", 100), "a1");
  EXPECT_EQ(debug(vietnamese, "a\xEC", 100), "\u00e1");
  const IconvDescriptor chinese("BIG5-HKSCS", "UTF-8");
  EXPECT_EQ(debug(chinese, "\u00ca", 100), "");
  EXPECT_EQ(debug(chinese, "\u00caz", 100), "\x88\x66z");
  EXPECT_EQ(debug(chinese, "\u00ca\u0304", 100), "\x88\x62");
}

TEST(iconvDebug, PutsOnlyQuestionMarksForAnInvalidDescriptor) {
  char area[8];
  EXPECT_EQ(iconvDebug(invalidIconv, "abc", 3, area, sizeof area), 3U);
  EXPECT_STREQ(area, "???");
}

TEST(iconvDebug, KeepsErrno) {
  const IconvDescriptor descriptor("ASCII", "UTF-8");
  errno = 4711;
  EXPECT_EQ(debug(descriptor, "\xC3\xA9", 100), "??");
  EXPECT_EQ(errno, 4711);
}

TEST(iconvDebug, LetsOneThreadConvertAtATime) {
  // A descriptor must not be used by two threads at once: sharing one shows the lock.
  const IconvDescriptor descriptor("ISO-2022-JP", "UTF-8");
  std::string input;
  std::string expected;
  for (int i = 0; i < 500; ++i) {
    input += "a\u65e5z";
    expected += "a\x1B$BF|\x1B(Bz";
  }
  std::barrier start(4);
  std::array<std::jthread, 4> threads;
  for (std::jthread& thread : threads) {
    thread = std::jthread([&] {
      std::string area(expected.size() + 1, '#');
      start.arrive_and_wait();
      for (int round = 0; round < 600; ++round) {
        const size_t n =
            iconvDebug(descriptor.get(), input.data(), input.size(), area.data(), area.size());
        ASSERT_TRUE(std::string_view(area.data(), n) == expected) << round;
      }
    });
  }
}
