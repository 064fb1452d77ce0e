#include "Engine/utilities/Properties.h"

#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdint>
#include <fcntl.h>
#include <map>
#include <new>
#include <string>
#include <string_view>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <thread>
#include <type_traits>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "Engine/utilities/FileName.h"
#include "Engine/utilities/StdException.h"

#include "tests/support/Child.h"
#include "tests/support/PlainText.h"
#include "tests/support/TemporaryFolder.h"
#include "tests/support/WaitUntil.h"

namespace {

using Map = std::map<std::string, std::string>;

FileName named(const std::string& path) { return {path.c_str(), EncodedString::utf8}; }

Map contentsOf(Properties& properties) {
  Map contents;
  Properties::TableCursor cursor = properties.cursor();
  for (bool any = cursor.first(); any; any = cursor.next()) {
    contents[std::string(cursor.element()->key.view())] =
        std::string(cursor.element()->value.view());
  }
  EXPECT_EQ(contents.size(), properties.numItems());
  return contents;
}

// What a file of these bytes defines.
Map read(std::string_view bytes) {
  const TemporaryFolder folder;
  const std::string path = folder.file("p");
  writeFile(path, std::string(bytes));
  const FileName file = named(path);
  Properties properties(&file);
  return contentsOf(properties);
}

constexpr const char* location = "int Properties::getInteger(const EncodedString&) const";

void expectNoInteger(const Properties& properties, std::string_view key) {
  try {
    static_cast<void>(properties.getInteger(encoded(key)));
    ADD_FAILURE() << key;
  } catch (const StdException& e) {
    EXPECT_EQ(e.text.view(), "Invalid property format.");
    EXPECT_EQ(e.fileName.view(), location);
    EXPECT_EQ(e.line, 139U);
    EXPECT_EQ(e.status, -1);
  }
}

}  // namespace

TEST(Properties, AreEmptyWithoutAFile) {
  Properties properties(nullptr);
  EXPECT_TRUE(properties.isEmpty());
  EXPECT_EQ(properties.numItems(), 0U);
  EXPECT_FALSE(properties.doesContain(encoded("a")));
  EXPECT_EQ(properties.getString(encoded("a")).view(), "");
  EXPECT_FALSE(properties.cursor().first());
}

TEST(Properties, AreReadLineByLineWithoutCommentsAndTheLastLineWins) {
  EXPECT_EQ(read("a = 1\n#comment\nb=2 # note\na=3\n"), (Map{{"a", "3"}, {"b", "2"}}));
}

TEST(Properties, NeedNoLineFeedAtTheEndOfTheFile) {
  EXPECT_EQ(read("a=1\nb=2"), (Map{{"a", "1"}, {"b", "2"}}));
  EXPECT_EQ(read("a"), (Map{{"a", ""}}));
  EXPECT_EQ(read("a=1\n#"), (Map{{"a", "1"}}));
  EXPECT_EQ(read(""), Map());
}

TEST(Properties, DefineNothingOnLinesWithoutAKey) {
  EXPECT_EQ(read("\n   \n\t\r\n=1\n = 2\n==3\n=\n# a=1\n   # a=1\n#\n#a\n"), Map());
}

TEST(Properties, MayBeEmpty) {
  EXPECT_EQ(read("a=\nb =\t \nc=# 1\n"), (Map{{"a", ""}, {"b", ""}, {"c", ""}}));
}

TEST(Properties, AreEmptyOnALineWithoutAnEqualsSign) {
  EXPECT_EQ(read("verbose\n  two words \nwith#out\n"),
            (Map{{"verbose", ""}, {"two words", ""}, {"with", ""}}));
}

TEST(Properties, AreSplitAtTheFirstRunOfEqualsSigns) {
  EXPECT_EQ(read("a=b=c\nd==e\nf=== g=\nh= =i\n"),
            (Map{{"a", "b=c"}, {"d", "e"}, {"f", "g="}, {"h", "=i"}}));
}

TEST(Properties, LoseTheWhiteSpaceAtTheirEndsOnly) {
  EXPECT_EQ(read(" \t a  b\t = \t c  d \r\n"), (Map{{"a  b", "c  d"}}));
  // Vertical tab and form feed are no white space.
  EXPECT_EQ(read("\va\f=\vb\f\n"), (Map{{"\va\f", "\vb\f"}}));
}

TEST(Properties, HoldCarriageReturnsWhichEndNoLine) {
  EXPECT_EQ(read("a=1\rb=2\nc\rd=3\r\n"), (Map{{"a", "1\rb=2"}, {"c\rd", "3"}}));
}

TEST(Properties, KnowNoQuotesEscapesOrContinuedLines) {
  EXPECT_EQ(read("a=\"1 # 2\"\nb=1\\\nc=\\#\\n\n[section]\n"),
            (Map{{"a", "\"1"}, {"b", "1\\"}, {"c", "\\"}, {"[section]", ""}}));
}

TEST(Properties, AreCaseSensitive) { EXPECT_EQ(read("a=1\nA=2\n"), (Map{{"a", "1"}, {"A", "2"}})); }

TEST(Properties, HoldZeroBytes) {
  const std::string_view bytes("a\0b=c\0d\n\0=\0\n", 12);
  EXPECT_EQ(read(bytes), (Map{{std::string("a\0b", 3), std::string("c\0d", 3)},
                              {std::string("\0", 1), std::string("\0", 1)}}));
}

TEST(Properties, MayBeMegabytesLong) {
  const std::string key(3000000, 'k');
  const std::string value(5000000, 'v');
  std::string bytes = key;
  bytes.append(" = ").append(value).append("#");
  bytes.append(7000000, 'c').append("\nb=2");
  EXPECT_TRUE(read(bytes) == (Map{{key, value}, {"b", "2"}}));
}

TEST(Properties, OutgrowTheirBlocksAndBuckets) {
  std::string bytes;
  Map expected;
  for (int i = 0; i < 5000; ++i) {
    const std::string key = "key." + std::to_string(i);
    const std::string value = std::to_string(i * 7);
    bytes.append(key).append("=").append(value).append("\n");
    expected[key] = value;
  }
  EXPECT_EQ(read(bytes), expected);
}

TEST(Properties, AreInATableOf257BucketsAndBlocksOf500Elements) {
  Properties properties(nullptr);
  Properties::Table table(257, 500, 0, nullptr);
  for (unsigned i = 0; i < 1001; ++i) {
    const EncodedString key = encoded(std::to_string(i));
    properties.setProperty(key, encoded(""));
    ASSERT_TRUE(table.add({key, encoded("")}));
  }
  Properties::TableCursor cursor = properties.cursor();
  Properties::TableCursor expected(table);
  std::map<unsigned, std::uintptr_t> addresses;
  for (bool any = cursor.first() && expected.first(); any; any = cursor.next() && expected.next()) {
    ASSERT_EQ(cursor.element()->key.view(), expected.element()->key.view());
    const auto number =
        static_cast<unsigned>(std::stoul(std::string(cursor.element()->key.view())));
    addresses[number] = reinterpret_cast<std::uintptr_t>(cursor.element());
  }
  ASSERT_EQ(addresses.size(), 1001U);
  // A link and the element lie behind those added before, but for the first ones of a block.
  const std::uintptr_t distance = sizeof(void*) + sizeof(Properties::HashElement);
  for (unsigned i = 1; i < 1001; ++i) {
    EXPECT_EQ(addresses[i] - addresses[i - 1] == distance, i % 500 != 0) << i;
  }
}

CUL_CHILD(PropertiesCodePage) {
  EXPECT_EQ(read("gr\xC3\xBC\xC3\x9F=\xE2\x82\xAC\n"),
            (Map{{"gr\xC3\xBC\xC3\x9F", "\xE2\x82\xAC"}}));
  EXPECT_EQ(read("gr\xFC\xDF=\xE4 1\n"), (Map{{"gr\xC3\xBC\xC3\x9F", "\xC3\xA4 1"}}));
}

TEST(Properties, AreUtf8OrElseInTheNativeCodePage) {
  const ChildResult r =
      runChild("PropertiesCodePage", {.environment = {{"QVX_DBG_CODEPAGE", "ISO-8859-1"}}});
  EXPECT_EQ(r.status, 0) << r.out << r.err;
}

TEST(Properties, ReadAFileOnTopOfWhatIsThere) {
  const TemporaryFolder folder;
  writeFile(folder.file("p"), "a=2\nb=2\n");
  Properties properties(nullptr);
  properties.setProperty(encoded("a"), encoded("1"));
  properties.setProperty(encoded("z"), encoded("1"));
  EXPECT_FALSE(properties.set(named(folder.file("p"))));
  EXPECT_EQ(contentsOf(properties), (Map{{"a", "2"}, {"b", "2"}, {"z", "1"}}));
}

TEST(Properties, SayTrueForAFileThatCannotBeReadAndStayAsTheyWere) {
  const TemporaryFolder folder;
  writeFile(folder.file("p"), "a=2\n");
  symlink("loop", folder.file("loop").c_str());
  Properties properties(nullptr);
  properties.setProperty(encoded("a"), encoded("1"));
  const std::vector<std::pair<std::string, int>> cases = {
      {folder.file("none"), ENOENT}, {"", ENOENT},
      {folder.path(), EISDIR},       {folder.path() + "/", EISDIR},
      {folder.file("p/"), ENOTDIR},  {folder.file("p/x"), ENOTDIR},
      {folder.file("loop"), ELOOP},  {folder.file(std::string(300, 'n')), ENAMETOOLONG}};
  for (const auto& [path, reason] : cases) {
    errno = 0;
    EXPECT_TRUE(properties.set(named(path))) << path;
    EXPECT_EQ(errno, reason) << path;
    const FileName file = named(path);
    EXPECT_TRUE(Properties(&file).isEmpty()) << path;
  }
  EXPECT_EQ(contentsOf(properties), (Map{{"a", "1"}}));
}

TEST(Properties, SayTrueForAFileThatMayNotBeRead) {
  if (geteuid() == 0) {
    // Root may read every file; this one it cannot: its memory begins at an invalid address.
    Properties properties(nullptr);
    errno = 0;
    EXPECT_TRUE(properties.set(named("/proc/self/mem")));
    EXPECT_EQ(errno, EIO);
    return;
  }
  const TemporaryFolder folder;
  writeFile(folder.file("p"), "a=2\n");
  ASSERT_EQ(chmod(folder.file("p").c_str(), 0), 0);
  Properties properties(nullptr);
  errno = 0;
  EXPECT_TRUE(properties.set(named(folder.file("p"))));
  EXPECT_EQ(errno, EACCES);
  EXPECT_TRUE(properties.isEmpty());
}

CUL_CHILD(PropertiesInterrupted) {
  const TemporaryFolder folder;
  const std::string path = folder.file("p");
  ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
  struct sigaction interrupt = {};
  interrupt.sa_handler = [](int) {};
  sigaction(SIGUSR1, &interrupt, nullptr);

  Properties properties(nullptr);
  bool failed = false;
  int reason = 0;
  std::atomic<bool> isDone = false;
  std::thread reader([&] {
    failed = properties.set(named(path));
    reason = errno;
    isDone = true;
  });
  const int writer = open(path.c_str(), O_WRONLY | O_CLOEXEC);
  EXPECT_EQ(write(writer, "a=1\nb=23", 8), 8);
  EXPECT_TRUE(waitUntil([&] {
    int waiting = 1;
    return ioctl(writer, FIONREAD, &waiting) == 0 && waiting == 0;
  }));
  EXPECT_TRUE(waitUntil([&] {
    pthread_kill(reader.native_handle(), SIGUSR1);
    return isDone.load();
  }));
  reader.join();
  close(writer);
  EXPECT_TRUE(failed);
  EXPECT_EQ(reason, EINTR);
  EXPECT_EQ(contentsOf(properties), (Map{{"a", "1"}}));
}

TEST(Properties, LoseTheLineInWhichReadingFails) {
  const ChildResult r = runChild("PropertiesInterrupted");
  EXPECT_EQ(r.status, 0) << r.out << r.err;
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
// The sanitizers' free stores end the process instead of failing.
CUL_CHILD(PropertiesWithoutMemory) {
  const TemporaryFolder folder;
  std::string bytes = "a=1\nb=";
  bytes.append(20000000, 'v').append("\nc=3\n");
  writeFile(folder.file("p"), bytes);
  const FileName file = named(folder.file("p"));
  Properties properties(nullptr);
  properties.setProperty(encoded("a"), encoded("0"));
  rlimit limit = {};
  ASSERT_EQ(getrlimit(RLIMIT_AS, &limit), 0);
  const rlimit none = {1, limit.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_AS, &none), 0);
  EXPECT_THROW(properties.set(file), std::bad_alloc);
  ASSERT_EQ(setrlimit(RLIMIT_AS, &limit), 0);
  EXPECT_EQ(contentsOf(properties), (Map{{"a", "1"}}));
}

TEST(Properties, KeepTheLinesBeforeTheOneForWhichThereIsNoMemory) {
  const ChildResult r = runChild("PropertiesWithoutMemory");
  EXPECT_EQ(r.status, 0) << r.out << r.err;
}
#endif

TEST(Properties, LeaveNoDescriptorOpen) {
  const TemporaryFolder folder;
  writeFile(folder.file("p"), "a=1\n");
  const int before = dup(0);
  close(before);
  Properties properties(nullptr);
  EXPECT_FALSE(properties.set(named(folder.file("p"))));
  EXPECT_TRUE(properties.set(named(folder.path())));
  EXPECT_TRUE(properties.set(named(folder.file("none"))));
  const int after = dup(0);
  close(after);
  EXPECT_EQ(before, after);
}

TEST(Properties, ReadFromWhatIsNoRegularFile) {
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  ASSERT_EQ(write(ends[1], "a=1\nb=2", 7), 7);
  close(ends[1]);
  Properties properties(nullptr);
  EXPECT_FALSE(properties.set(named("/proc/self/fd/" + std::to_string(ends[0]))));
  close(ends[0]);
  EXPECT_EQ(contentsOf(properties), (Map{{"a", "1"}, {"b", "2"}}));
}

TEST(Properties, AreSetAndReplaced) {
  Properties properties(nullptr);
  properties.setProperty(encoded("a"), encoded("1"));
  EXPECT_TRUE(properties.doesContain(encoded("a")));
  EXPECT_FALSE(properties.doesContain(encoded("A")));
  EXPECT_FALSE(properties.isEmpty());
  properties.setProperty(encoded("a"), encoded("22"));
  properties.setProperty(encoded("b"), encoded(""));
  EXPECT_EQ(properties.numItems(), 2U);
  EXPECT_EQ(properties.getString(encoded("a")).view(), "22");
  EXPECT_TRUE(properties.doesContain(encoded("b")));
  EXPECT_EQ(properties.getString(encoded("b")).view(), "");
  // Nothing is stripped or taken for a comment here.
  properties.setProperty(encoded(" # "), encoded(" = "));
  EXPECT_EQ(properties.getString(encoded(" # ")).view(), " = ");
}

TEST(Properties, TakeNoEmptyKey) {
  Properties properties(nullptr);
  properties.setProperty(encoded(""), encoded("1"));
  EXPECT_TRUE(properties.isEmpty());
  EXPECT_FALSE(properties.doesContain(encoded("")));
}

TEST(Properties, KeepTheirPlaceWhenTheyAreReplacedAndTheirCursorsInAnyChange) {
  Properties properties(nullptr);
  const auto keys = [&properties] {
    std::vector<std::string> result;
    Properties::TableCursor cursor = properties.cursor();
    for (bool isThere = cursor.first(); isThere; isThere = cursor.next()) {
      result.push_back(std::string(cursor.element()->key.view()));
    }
    return result;
  };
  for (int i = 0; i < 1000; ++i) {
    properties.setProperty(encoded(std::to_string(i)), encoded("old"));
  }
  const std::vector<std::string> before = keys();
  Properties::TableCursor cursor = properties.cursor();
  size_t met = 0;
  for (bool isThere = cursor.first(); isThere; isThere = cursor.next(), ++met) {
    const std::string key(cursor.element()->key.view());
    ASSERT_LT(met, before.size());
    EXPECT_EQ(key, before[met]);
    properties.setProperty(encoded(key), encoded("new"));
    EXPECT_FALSE(properties.doesContain(encoded("absent")));
    EXPECT_EQ(properties.getString(encoded("0")).length(), 3U);
  }
  EXPECT_EQ(met, 1000U);
  EXPECT_EQ(keys(), before);
  // What is added comes first in its bucket: ahead of the cursor or behind it.
  const std::string last = before.back();
  ASSERT_TRUE(cursor.last());
  EXPECT_EQ(cursor.element()->key.view(), last);
  for (int i = 1000; i < 3000; ++i) {
    properties.setProperty(encoded(std::to_string(i)), encoded("added"));
  }
  EXPECT_EQ(cursor.element()->key.view(), last);
  EXPECT_FALSE(cursor.next());
  EXPECT_EQ(keys().back(), last);
}

TEST(Properties, AreReplacedByTheirOwnValues) {
  Properties properties(nullptr);
  properties.setProperty(encoded("a"), encoded("1"));
  Properties::TableCursor cursor = properties.cursor();
  ASSERT_TRUE(cursor.first());
  properties.setProperty(cursor.element()->key, cursor.element()->value);
  properties.setProperty(cursor.element()->key, cursor.element()->key);
  EXPECT_EQ(contentsOf(properties), (Map{{"a", "a"}}));
}

TEST(Properties, AreReadAsIntegers) {
  Properties properties(nullptr);
  const std::vector<std::pair<std::string, int>> cases = {{"0", 0},
                                                          {"42", 42},
                                                          {"-17", -17},
                                                          {"+5", 5},
                                                          {"007", 7},
                                                          {"2147483647", INT_MAX},
                                                          {"-2147483648", INT_MIN},
                                                          {"  9", 9}};
  for (const auto& [value, number] : cases) {
    properties.setProperty(encoded("n"), encoded(value));
    EXPECT_EQ(properties.getInteger(encoded("n")), number) << value;
  }
}

TEST(Properties, WrapAsIntegersWhenTheyAreOutOfRange) {
  Properties properties(nullptr);
  const std::vector<std::pair<std::string, int>> cases = {{"2147483648", INT_MIN},
                                                          {"-2147483649", INT_MAX},
                                                          {"4294967297", 1},
                                                          {"99999999999999999999", -1},
                                                          {"-99999999999999999999", 0}};
  for (const auto& [value, number] : cases) {
    properties.setProperty(encoded("n"), encoded(value));
    EXPECT_EQ(properties.getInteger(encoded("n")), number) << value;
  }
}

TEST(Properties, AreReadAsIntegersUpToTheirFirstZeroByte) {
  Properties properties(nullptr);
  properties.setProperty(encoded("n"), encoded(std::string_view("12\0x", 4)));
  EXPECT_EQ(properties.getInteger(encoded("n")), 12);
}

TEST(Properties, ThrowForWhatIsNoInteger) {
  Properties properties(nullptr);
  expectNoInteger(properties, "absent");
  for (const std::string_view value :
       {"", "x", "12a", "12 ", "0x1F", "1.5", "-", "--1", "1 2", "\xC3\xA4", "\xFF"}) {
    properties.setProperty(encoded("n"), encoded(value));
    expectNoInteger(properties, "n");
  }
  properties.setProperty(encoded("n"), encoded(std::string_view("\0001", 2)));
  expectNoInteger(properties, "n");
}

TEST(Properties, ThrowForAnEmptyValueOfAFile) {
  const TemporaryFolder folder;
  writeFile(folder.file("p"), "key=\n");
  const FileName file = named(folder.file("p"));
  const Properties properties(&file);
  EXPECT_TRUE(properties.doesContain(encoded("key")));
  EXPECT_EQ(properties.getString(encoded("key")).view(), "");
  expectNoInteger(properties, "key");
}

TEST(Properties, AreNotCopied) {
  static_assert(!std::is_copy_constructible_v<Properties>);
  static_assert(!std::is_copy_assignable_v<Properties>);
}
