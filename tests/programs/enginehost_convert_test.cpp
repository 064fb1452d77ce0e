#include <csignal>
#include <map>
#include <random>
#include <string>
#include <string_view>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include <gmock/gmock.h>

#include "tests/programs/Host.h"
#include "tests/support/WaitUntil.h"

/// Text from one code page to another, as shells call for it.

namespace {

using namespace std::string_literals;

const std::map<std::string, std::string> utf8Native = {{"QVX_DBG_CODEPAGE", "UTF-8"}};

ChildResult convert(const std::string& from, const std::string& to, const std::string& input,
                    const std::map<std::string, std::string>& environment = {}) {
  return runProgram({host, "-convert", from, to}, {.environment = environment, .input = input});
}

// The output of a conversion that tells nothing.
std::string converted(const std::string& from, const std::string& to, const std::string& input,
                      const std::map<std::string, std::string>& environment = {}) {
  const ChildResult r = convert(from, to, input, environment);
  EXPECT_EQ(r.status, 0) << from << " to " << to;
  EXPECT_EQ(r.err, "");
  return r.out;
}

std::string byIconv(const std::string& from, const std::string& to, const std::string& input) {
  const ChildResult r =
      runProgram({"/bin/sh", "-c", "iconv -f \"$1\" -t \"$2\"", "sh", from, to}, {.input = input});
  EXPECT_EQ(r.status, 0) << from << " to " << to << r.err;
  return r.out;
}

std::string repeated(const std::string& text, int count) {
  std::string result;
  for (int i = 0; i < count; ++i) {
    result += text;
  }
  return result;
}

std::string allBytes() {
  std::string result;
  for (int byte = 0; byte < 256; ++byte) {
    result += static_cast<char>(byte);
  }
  return result;
}

std::string exchanged(std::string text, char one, char other) {
  for (char& c : text) {
    c = c == one ? other : c == other ? one : c;
  }
  return text;
}

// Feeds a conversion byte by byte: each is taken before the next one is there.
class SlowConversion {
 public:
  SlowConversion(const char* from, const char* to) {
    if (pipe(in_) != 0 || pipe(out_) != 0) {
      ADD_FAILURE() << "pipe failed";
    }
    process_ = fork();
    if (process_ == 0) {
      dup2(in_[0], STDIN_FILENO);
      dup2(out_[1], STDOUT_FILENO);
      for (const int end : {in_[0], in_[1], out_[0], out_[1]}) {
        close(end);
      }
      setenv("QVX_DBG_CODEPAGE", "UTF-8", 1);
      execl(host, host, "-convert", from, to, nullptr);
      _exit(127);
    }
    close(in_[0]);
    close(out_[1]);
  }
  SlowConversion(const SlowConversion&) = delete;
  SlowConversion& operator=(const SlowConversion&) = delete;
  ~SlowConversion() {
    close(out_[0]);
    int status = -1;
    waitpid(process_, &status, 0);
    EXPECT_EQ(status, 0);
  }

  void feed(std::string_view bytes) {
    for (const char& byte : bytes) {
      ASSERT_EQ(write(in_[1], &byte, 1), 1);
      ASSERT_TRUE(waitUntil([&] {
        int waiting = 1;
        return ioctl(in_[1], FIONREAD, &waiting) == 0 && waiting == 0;
      }));
    }
  }

  std::string next(std::size_t count) {
    std::string result(count, '\0');
    std::size_t length = 0;
    ssize_t n = 1;
    while (length < count && n > 0) {
      n = read(out_[0], result.data() + length, count - length);
      length += n > 0 ? static_cast<std::size_t>(n) : 0;
    }
    result.resize(length);
    return result;
  }

  // All that is left.
  std::string end() {
    close(in_[1]);
    return next(10000);
  }

 private:
  int in_[2] = {-1, -1};
  int out_[2] = {-1, -1};
  pid_t process_;
};

std::string inPieces(const char* from, const char* to, std::string_view bytes) {
  SlowConversion conversion(from, to);
  conversion.feed(bytes);
  return conversion.end();
}

struct Case {
  const char* codePage;
  std::string utf8;
};

const std::vector<Case>& cases() {
  static const std::vector<Case> all = {
      {"ISO-8859-1", "Grüße\nà bientôt"},
      {"CP1252", "5 € – “ja”"},
      {"IBM1047", "int a[3] = {~0, ^x};\n"},
      {"IBM037", "naïve"},
      {"IBM939", "abc日本語def漢字"},
      {"IBM1390", "カタカナ and ｶﾅ, 漢字"},
      {"SHIFT_JIS", "日本語テキスト"},
      {"EUC-JP", "日本語テキスト"},
      {"ISO-2022-JP", "ab日本語cd"},
      {"BIG5-HKSCS", "香港Ê̄ê"},
      {"GB18030", "汉字😀€"},
      {"EUC-KR", "한국어"},
      {"UTF-16", "a€😀"},
      {"UTF-16BE", "a€😀"},
      {"UTF-32LE", "a€😀"},
      {"UTF-7", "a€+😀-"},
      {"KOI8-R", "привет"},
  };
  return all;
}

TEST(EngineHostConvert, WritesWhatIconvWrites) {
  for (const Case& c : cases()) {
    EXPECT_EQ(converted("UTF-8", c.codePage, c.utf8), byIconv("UTF-8", c.codePage, c.utf8))
        << c.codePage;
  }
}

TEST(EngineHostConvert, ReadsWhatIconvReads) {
  for (const Case& c : cases()) {
    const std::string bytes = byIconv("UTF-8", c.codePage, c.utf8);
    EXPECT_EQ(converted(c.codePage, "UTF-8", bytes), byIconv(c.codePage, "UTF-8", bytes))
        << c.codePage;
    EXPECT_EQ(converted(c.codePage, "UTF-8", bytes), c.utf8) << c.codePage;
  }
}

TEST(EngineHostConvert, KeepsCharactersTogetherThatComeInPieces) {
  for (const Case& c : cases()) {
    const std::string bytes = byIconv("UTF-8", c.codePage, c.utf8);
    EXPECT_EQ(inPieces(c.codePage, "UTF-8", bytes), c.utf8) << c.codePage;
    EXPECT_EQ(inPieces("UTF-8", c.codePage, c.utf8), bytes) << c.codePage;
  }
}

TEST(EngineHostConvert, WritesWhatItHasWhileTheRestIsToCome) {
  SlowConversion conversion("UTF-8", "IBM1047");
  conversion.feed("A\xC3");
  EXPECT_EQ(conversion.next(1), "\xC1");
  conversion.feed("\xA9z");
  EXPECT_EQ(conversion.next(2), "\x51\xA9");
  EXPECT_EQ(conversion.end(), "");
}

TEST(EngineHostConvert, TakesInputOfAnySize) {
  // Characters of three bytes, cut at every place by whatever is read at once.
  for (const char* const start : {"", "a", "ab"}) {
    const std::string text = start + repeated("日本語", 100000);
    EXPECT_TRUE(converted("UTF-8", "UTF-8", text) == text);
    EXPECT_TRUE(converted("UTF-8", "IBM939", text) == byIconv("UTF-8", "IBM939", text));
    const std::string escaped = start + repeated("\\u65e5\\u672c\\u8a9e", 100000);
    EXPECT_TRUE(converted("UTF-8", "escapes", text) == escaped);
    EXPECT_TRUE(converted("escapes", "UTF-8", escaped) == text);
  }
}

TEST(EngineHostConvert, MakesNothingOfNothing) {
  for (const char* const name : {"UTF-8", "UTF-16", "IBM939", "native", "escapes", "VKT-1047"}) {
    EXPECT_EQ(converted("UTF-8", name, ""), "") << name;
    EXPECT_EQ(converted(name, "UTF-8", ""), "") << name;
  }
}

TEST(EngineHostConvert, KeepsEveryByte) {
  const std::string bytes = allBytes();
  EXPECT_EQ(converted("ISO-8859-1", "ISO-8859-1", bytes), bytes);
  EXPECT_EQ(converted("VKT-1047", "VKT-1047", bytes), bytes);
  EXPECT_EQ(converted("ISO-8859-1", "UTF-8", bytes), byIconv("ISO-8859-1", "UTF-8", bytes));
  EXPECT_EQ(converted("UTF-8", "UTF-16LE", "\0a\0"s), "\0\0a\0\0\0"s);
}

TEST(EngineHostConvert, KnowsTheEBCDICTableWithItsLineFeeds) {
  const std::string bytes = allBytes();
  EXPECT_EQ(converted("VKT-1047", "UTF-8", bytes),
            byIconv("IBM1047", "UTF-8", exchanged(bytes, '\x15', '\x25')));
  EXPECT_EQ(converted("ISO-8859-1", "VKT-1047", bytes),
            exchanged(byIconv("ISO-8859-1", "IBM1047", bytes), '\x15', '\x25'));
  EXPECT_EQ(converted("UTF-8", "VKT-1047", "[A]\n"), "\xAD\xC1\xBD\x15");
}

TEST(EngineHostConvert, GivesATableItsOwnByteForWhatItLacks) {
  EXPECT_EQ(converted("UTF-8", "VKT-1047", "a€😀b"), "\x81\x3F\x3F\x82");
}

TEST(EngineHostConvert, ReadsEscapes) {
  const auto read = [](const std::string& text) {
    return converted("escapes", "UTF-8", text, utf8Native);
  };
  EXPECT_EQ(read("\\u00e9\\u20AC\\U0001f600é"), "é€😀é");
  EXPECT_EQ(read("\\u00g9 \\n \\\\u0041 \\u00e"), "\\u00g9 \\n \\A \\u00e");
  EXPECT_EQ(read("a\\"), "a\\");
  EXPECT_EQ(read("\\u0000"), "\0"s);
  EXPECT_EQ(read("\\ud83d"), "?") << "half a character";
}

TEST(EngineHostConvert, PutsAQuestionMarkForEachEscapeOfNoCharacter) {
  EXPECT_EQ(converted("escapes", "UTF-8", "a\\U80000000b\\Uffffffffc\\u12", utf8Native),
            "a?b?c\\u12");
}

TEST(EngineHostConvert, KeepsEscapesTogetherThatComeInPieces) {
  EXPECT_EQ(inPieces("escapes", "UTF-8", "a\\u00e9\\U0001f600\\\\u0041\\u00\\U0001f6"),
            "aé😀\\A\\u00\\U0001f6");
  EXPECT_EQ(inPieces("escapes", "UTF-8", "\\"), "\\");
}

TEST(EngineHostConvert, WritesEscapes) {
  EXPECT_EQ(converted("UTF-8", "escapes", "a\\é€😀\n\0"s), "a\\\\u00e9\\u20ac\\U0001f600\n\0"s);
  EXPECT_EQ(converted("VKT-1047", "escapes", "\x81\x25"), "a\\u0085");
}

TEST(EngineHostConvert, KnowsTheNativeCodePage) {
  const std::map<std::string, std::string> latin = {{"QVX_DBG_CODEPAGE", "ISO-8859-1"}};
  EXPECT_EQ(converted("native", "UTF-8", "\xE9", latin), "é");
  EXPECT_EQ(converted("UTF-8", "native", "é", latin), "\xE9");
  EXPECT_EQ(converted("escapes", "UTF-8", "\xE9\\u20ac", latin), "é€");
  EXPECT_EQ(converted("native", "UTF-8", "é", utf8Native), "é");
}

TEST(EngineHostConvert, KnowsTheWideCharactersOfTheMachine) {
  const std::string wide = byIconv("UTF-8", "WCHAR_T", "a\u00e4\U0001F600");
  EXPECT_EQ(converted("UTF-8", "WCHAR_T", "a\u00e4\U0001F600"), wide);
  EXPECT_EQ(converted("WCHAR_T", "UTF-8", wide), "a\u00e4\U0001F600");
  EXPECT_EQ(converted("WCHAR_T", "WCHAR_T", wide), wide);
}

TEST(EngineHostConvert, PutsAQuestionMarkForEachByteThatCannotBeRead) {
  EXPECT_EQ(converted("UTF-8", "UTF-8", "a\xFF\xC3z\xE2\x82"), "a??z??");
  EXPECT_EQ(converted("ASCII", "UTF-8", "aéb"), "a??b");
  EXPECT_EQ(converted("UTF-16LE", "UTF-8", "a\0b"s), "a?") << "half a unit at the end";
  EXPECT_EQ(inPieces("UTF-8", "UTF-8", "a\xE2\x82"), "a??");
}

TEST(EngineHostConvert, PutsAQuestionMarkForEachCharacterThatCannotBeWritten) {
  EXPECT_EQ(converted("UTF-8", "ASCII", "aé€😀b"), "a???b");
  EXPECT_EQ(converted("UTF-8", "ISO-8859-1", "é€é"), "\xE9?\xE9");
  // The question mark of that code page, in its own shift state.
  EXPECT_EQ(converted("UTF-8", "IBM939", "日😀本"), byIconv("UTF-8", "IBM939", "日?本"));
  EXPECT_EQ(converted("UTF-8", "IBM1047", "a€"), byIconv("UTF-8", "IBM1047", "a?"));
}

TEST(EngineHostConvert, LivesWithAnyBytes) {
  std::mt19937 random(11);
  std::string bytes;
  for (int i = 0; i < 200000; ++i) {
    bytes += static_cast<char>(random());
  }
  for (const Case& c : cases()) {
    const std::string read = converted(c.codePage, "UTF-8", bytes);
    EXPECT_TRUE(converted("UTF-8", "UTF-8", read) == read) << c.codePage << " made no UTF-8";
    EXPECT_FALSE(converted("UTF-8", c.codePage, bytes).empty()) << c.codePage;
  }
  EXPECT_FALSE(converted("escapes", "escapes", bytes, utf8Native).empty());
}

TEST(EngineHostConvert, TellsAnUnknownCodePageInOneLine) {
  const std::string longName = repeated("x", 5000);
  for (const std::string& name :
       {"no such"s, ""s, "//"s, "//IGNORE"s, "vkt-1047"s, "Native"s, "--help"s, longName}) {
    for (const bool first : {true, false}) {
      const ChildResult r = convert(first ? name : "UTF-8", first ? "UTF-8" : name, "text");
      EXPECT_EQ(r.status, 2);
      EXPECT_EQ(r.out, "");
      EXPECT_EQ(r.err, "enginehost: " + name + ": unknown code page\n");
    }
  }
}

TEST(EngineHostConvert, TellsAnUnknownCodePageWithoutWhatUpsetsATerminal) {
  const ChildResult r = convert("\x1B[2J\n", "UTF-8", "");
  EXPECT_EQ(r.status, 2);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err, "enginehost: \\x1B[2J\\x0A: unknown code page\n");
}

TEST(EngineHostConvert, TakesTwoCodePages) {
  for (const std::vector<std::string>& words : {std::vector<std::string>{host, "-convert"},
                                                {host, "-convert", "UTF-8"},
                                                {host, "-convert", "UTF-8", "UTF-8", "UTF-8"}}) {
    const ChildResult r = runProgram(words, {.input = "text"});
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "enginehost: -convert takes two code pages\n");
  }
}

TEST(EngineHostConvert, TellsThatTheOutputIsFull) {
  const ChildResult r =
      runProgram({"/bin/sh", "-c", std::string(host) + " -convert UTF-8 UTF-16 >/dev/full"},
                 {.input = "text"});
  EXPECT_EQ(r.status, 125);
  EXPECT_EQ(r.err, "enginehost: standard output: No space left on device\n");
}

TEST(EngineHostConvert, TellsThatNobodyReadsTheOutput) {
  const ChildResult r = runProgram({"/bin/sh", "-c",
                                    "exec 3>&1; { yes | " + std::string(host) +
                                        " -convert UTF-8 UTF-8; echo $? >&3; } | head -n 1"});
  EXPECT_EQ(r.out, "y\n125\n");
  EXPECT_EQ(r.err, "enginehost: standard output: Broken pipe\n");
}

TEST(EngineHostConvert, TellsThatTheInputCannotBeRead) {
  const ChildResult r =
      runProgram({"/bin/sh", "-c", std::string(host) + " -convert UTF-8 UTF-8 </"});
  EXPECT_EQ(r.status, 125);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err, "enginehost: standard input: Is a directory\n");
}

}  // namespace
