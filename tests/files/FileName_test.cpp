#include "Engine/utilities/FileName.h"

#include <filesystem>
#include <malloc.h>
#include <memory>
#include <new>
#include <random>
#include <string>
#include <string_view>
#include <sys/resource.h>
#include <sys/stat.h>
#include <type_traits>
#include <unistd.h>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Engine/utilities/CharString.h"

#include "tests/support/Child.h"
#include "tests/support/LongFolder.h"
#include "tests/support/OrdinaryUser.h"
#include "tests/support/TemporaryFolder.h"
#include "tests/support/TracedChild.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

FileName name(const std::string& text) {
  return FileName(
      EncodedString(text.data(), static_cast<unsigned>(text.size()), EncodedString::utf8));
}

EncodedString encoded(const std::string& text) {
  return {text.data(), static_cast<unsigned>(text.size()), EncodedString::utf8};
}

// Fails when the terminator is missing.
std::string text(const EncodedString& s) {
  const char* const p = s;
  EXPECT_EQ(p[s.length()], 0);
  return std::string(s.view());
}

struct Pieces {
  std::string directory;
  std::string base;
  std::string root;
  std::string extension;
  std::string member;

  bool operator==(const Pieces&) const = default;
};

void PrintTo(const Pieces& p, std::ostream* out) {
  *out << p.directory << " , " << p.base << " , " << p.root << " , " << p.extension << " , "
       << p.member;
}

Pieces pieces(const FileName& n) {
  return {text(n.directory()), text(n.base()), text(n.root()), text(n.extension()),
          text(n.member())};
}

Pieces pieces(const std::string& n) { return pieces(name(n)); }

// 1-based position of the base.
unsigned basePosition(const std::string& n) { return name(n).directory().length() + 1; }

template <class Change>
std::string changed(const std::string& before, void (FileName::*change)(const EncodedString&),
                    const Change& argument) {
  FileName n = name(before);
  (n.*change)(encoded(argument));
  // What a change leaves behind is analysed like a new name.
  EXPECT_EQ(pieces(n), pieces(name(text(n)))) << before;
  EXPECT_EQ(n.isValidName(), name(text(n)).isValidName()) << before;
  return text(n);
}

std::string withPath(const std::string& n, const std::string& dir) {
  return changed(n, &FileName::change_path, dir);
}

std::string withExtension(const std::string& n, const std::string& ext) {
  return changed(n, &FileName::change_extension, ext);
}

std::string withMember(const std::string& n, const std::string& member) {
  return changed(n, &FileName::change_member, member);
}

std::string anchored(const std::string& n, const std::string& dir) {
  return changed(n, &FileName::rationalizePath, dir);
}

std::vector<std::string> entries(const std::string& list) {
  const List<EncodedString*> parsed = FileName::parsePaths(encoded(list));
  std::vector<std::string> result;
  for (const EncodedString* entry : parsed) {
    result.push_back(text(*entry));
    delete entry;
  }
  return result;
}

std::string commonSuffix(const std::string& a, const std::string& b) {
  return text(name(a).commonPathSuffix(name(b)));
}

std::string longName(unsigned length) { return "/" + std::string(length - 3, 'n') + ".x"; }

}  // namespace

TEST(FileName, IsInvalidWhenEmpty) {
  for (const FileName& n : {FileName(), FileName(static_cast<const char*>(nullptr), {}),
                            FileName(static_cast<const wchar_t*>(nullptr)), name("")}) {
    EXPECT_FALSE(n.isValidName());
    EXPECT_EQ(pieces(n), Pieces());
    EXPECT_EQ(text(n.baseAndMember()), "");
    EXPECT_EQ(text(n.short_name()), "");
    EXPECT_EQ(text(n.root_exe()), "");
    EXPECT_EQ(text(n.genericLibraryName()), "");
    EXPECT_FALSE(n.isAbsolute());
    EXPECT_FALSE(n.isAccessible(false));
  }
}

TEST(FileName, IsMadeFromEverySourceOfText) {
  const Pieces expected = {"d/", "b.e", "b", ".e", "m"};
  const char* const plain = "d/b.e(m)";
  EXPECT_EQ(pieces(FileName(plain, EncodedString::utf8)), expected);
  EXPECT_EQ(pieces(FileName(reinterpret_cast<const signed char*>(plain), EncodedString::native)),
            expected);
  EXPECT_EQ(pieces(FileName(reinterpret_cast<const unsigned char*>(plain), EncodedString::utf8)),
            expected);
  EXPECT_EQ(pieces(FileName(L"d/b.e(m)")), expected);
  EXPECT_EQ(pieces(FileName(CharString(L"d/b.e(m)"))), expected);
  EXPECT_EQ(pieces(FileName(encoded(plain))), expected);
  EXPECT_EQ(text(FileName("a\\u00e9", EncodedString::slashU)), "a\xC3\xA9");
}

TEST(FileName, FindsItsPieces) {
  EXPECT_EQ(pieces("/usr/lib/libc.so.6"), (Pieces{"/usr/lib/", "libc.so.6", "libc.so", ".6", ""}));
  EXPECT_EQ(basePosition("/usr/lib/libc.so.6"), 10U);
  EXPECT_EQ(pieces("lib/libx.a(shr.o)"), (Pieces{"lib/", "libx.a", "libx", ".a", "shr.o"}));
  EXPECT_EQ(pieces("a/b.c(d.e)"), (Pieces{"a/", "b.c", "b", ".c", "d.e"}));
  EXPECT_EQ(pieces("x.tar.gz"), (Pieces{"", "x.tar.gz", "x.tar", ".gz", ""}));
  EXPECT_EQ(pieces("file"), (Pieces{"", "file", "file", "", ""}));
  EXPECT_EQ(basePosition("file"), 1U);
  EXPECT_EQ(pieces("/file"), (Pieces{"/", "file", "file", "", ""}));
  EXPECT_EQ(pieces("a.d/b"), (Pieces{"a.d/", "b", "b", "", ""}));
  EXPECT_EQ(pieces("//b"), (Pieces{"//", "b", "b", "", ""}));
}

TEST(FileName, AFinalDotStartsAnEmptyExtension) {
  EXPECT_EQ(pieces("a."), (Pieces{"", "a.", "a", ".", ""}));
  EXPECT_EQ(pieces("a.b."), (Pieces{"", "a.b.", "a.b", ".", ""}));
  EXPECT_EQ(pieces("."), (Pieces{"", ".", "", ".", ""}));
  EXPECT_EQ(pieces(".."), (Pieces{"", "..", ".", ".", ""}));
  EXPECT_EQ(pieces("d/.."), (Pieces{"d/", "..", ".", ".", ""}));
}

TEST(FileName, ALeadingDotStartsAnExtension) {
  EXPECT_EQ(pieces("/home/.profile"), (Pieces{"/home/", ".profile", "", ".profile", ""}));
}

TEST(FileName, SeparatorsAndDotsWithinAMemberAreText) {
  EXPECT_EQ(pieces("/l/a.b(c/d.e)"), (Pieces{"/l/", "a.b", "a", ".b", "c/d.e"}));
  EXPECT_EQ(pieces("ab(c/d.e)"), (Pieces{"", "ab", "ab(c/d.e)", "", "c/d.e"}));
}

TEST(FileName, TheMemberBeginsWithTheLastParenthesis) {
  EXPECT_EQ(pieces("a(b)(c)"), (Pieces{"", "a(b)", "a(b)(c)", "", "c"}));
  EXPECT_EQ(pieces("a((b))"), (Pieces{"", "a(", "a((b))", "", "b)"}));
  EXPECT_EQ(pieces("a()"), (Pieces{"", "a", "a()", "", ""}));
  EXPECT_EQ(pieces("(m)"), (Pieces{"", "", "(m)", "", "m"}));
  EXPECT_EQ(pieces("a.b.(m)"), (Pieces{"", "a.b.", "a.b", ".", "m"}));
}

TEST(FileName, AClosingParenthesisWithoutAnOpeningOneHidesEverything) {
  EXPECT_EQ(pieces("/d/a.b)"), (Pieces{"", "/d/a.b)", "/d/a.b)", "", ""}));
  EXPECT_EQ(pieces(")"), (Pieces{"", ")", ")", "", ""}));
}

TEST(FileName, AnOpenParenthesisIsText) {
  EXPECT_EQ(pieces("d/a(b.c"), (Pieces{"d/", "a(b.c", "a(b", ".c", ""}));
  EXPECT_EQ(pieces("d/a(b)c"), (Pieces{"d/", "a(b)c", "a(b)c", "", ""}));
}

TEST(FileName, PiecesOfMultiByteNamesAreWhole) {
  EXPECT_EQ(
      pieces("\xC3\xA9/\xE2\x82\xAC.\xC3\xA9(\xC3\xA9)"),
      (Pieces{"\xC3\xA9/", "\xE2\x82\xAC.\xC3\xA9", "\xE2\x82\xAC", ".\xC3\xA9", "\xC3\xA9"}));
}

namespace {

// The parts of a name, looked for byte by byte.
struct Parts {
  explicit Parts(const std::string& name) {
    const size_t length = name.size();
    if (length == 0 || name[length - 1] == '/') {
      return;
    }
    extension = name[length - 1] == '.' ? length : 0;
    bool inMember = name[length - 1] == ')';
    size_t separator = 0;
    for (size_t position = length - 1; position > 0 && separator == 0; --position) {
      const char c = name[position - 1];
      if (c == '/' && !inMember) {
        separator = position;
      } else if (c == '.' && !inMember && extension == 0) {
        extension = position;
      } else if (c == '(' && inMember && member == 0) {
        member = position;
        inMember = false;
      }
    }
    base = separator + 1;
  }

  // 1-based positions, 0 for none.
  size_t base = 0;
  size_t extension = 0;
  size_t member = 0;
};

Pieces expectedPieces(const std::string& name) {
  const Parts parts(name);
  if (parts.base == 0) {
    return {};
  }
  const auto piece = [&name](size_t from, size_t to) { return name.substr(from - 1, to - from); };
  const size_t end = name.size() + 1;
  const size_t baseEnd = parts.member != 0 ? parts.member : end;
  return {piece(1, parts.base), piece(parts.base, baseEnd),
          piece(parts.base, parts.extension != 0 ? parts.extension : end),
          parts.extension == 0 ? "" : piece(parts.extension, baseEnd),
          parts.member == 0 ? "" : piece(parts.member + 1, end - 1)};
}

}  // namespace

TEST(FileName, AndItsPiecesThatAreNamesHaveThePartsThatLookingByteByByteFinds) {
  std::mt19937 random(4);
  for (int round = 0; round < 10000; ++round) {
    std::string whole;
    const auto letters = random() % 40;
    for (auto n = random() % (round % 2 == 0 ? 9 : 90); n > 0; --n) {
      whole += random() % (letters + 6) < letters ? 'a' : "./().)"[random() % 6];
    }
    const FileName n = name(whole);
    EXPECT_EQ(pieces(n), expectedPieces(whole)) << whole;
    for (const FileName& piece : {n.base(), n.root(), n.baseAndMember(), n.genericLibraryName()}) {
      EXPECT_EQ(pieces(piece), expectedPieces(text(piece))) << whole;
      EXPECT_EQ(piece.isValidName(), piece.length() != 0 && !text(piece).ends_with('/')) << whole;
    }
  }
}

TEST(FileName, PiecesPutTogetherGiveTheName) {
  std::mt19937 random(3);
  for (int round = 0; round < 20000; ++round) {
    std::string whole;
    for (auto n = random() % 10; n > 0; --n) {
      whole += "ab./()"[random() % 6];
    }
    const FileName n = name(whole);
    EXPECT_EQ(n.isValidName(), !whole.empty() && whole.back() != '/');
    if (!n.isValidName()) {
      EXPECT_EQ(pieces(n), Pieces());
      continue;
    }
    EXPECT_EQ(text(n.directory()) + text(n.baseAndMember()), whole);
    const std::string base = text(n.base());
    const std::string last = text(n.baseAndMember());
    EXPECT_TRUE(last == base || last == base + "(" + text(n.member()) + ")") << whole;
    EXPECT_TRUE(base == last || whole.back() == ')') << whole;
    if (n.extension().length() != 0) {
      EXPECT_EQ(text(n.root()) + text(n.extension()), base) << whole;
    } else {
      EXPECT_EQ(text(n.root()), last) << whole;
    }
    EXPECT_EQ(text(n.short_name()), last);
    EXPECT_EQ(text(n.root_exe()), text(n.root()));
  }
}

TEST(FileName, IsInvalidWithASeparatorAtItsEnd) {
  for (const char* n : {"dir/", "/", "a.b(c)/", "//"}) {
    EXPECT_FALSE(name(n).isValidName()) << n;
    EXPECT_EQ(pieces(n), Pieces()) << n;
    EXPECT_EQ(text(name(n).baseAndMember()), "");
    EXPECT_EQ(text(name(n).genericLibraryName()), "");
    EXPECT_EQ(text(name(n)), n);
    EXPECT_FALSE(name(n).isAbsolute());
  }
}

CUL_CHILD(FileNameTracesASeparatorAtTheEnd) {
  const FileName folder("dir/", EncodedString::utf8);
  const FileName file("dir/file", EncodedString::utf8);
  const FileName empty("", EncodedString::utf8);
  const FileName tooLong = name(std::string(65536, 'n'));
}

TEST(FileName, TracesASeparatorAtItsEndAndNothingElse) {
  const TracedChildResult r = runTracedChild("FileNameTracesASeparatorAtTheEnd");
  EXPECT_EQ(r.child.status, 0) << r.child.out << r.child.err;
  EXPECT_EQ(occurrences(r.trace, "Filename ends with PathSepChar."), 1U);
  EXPECT_EQ(occurrences(r.trace,
                        "**ERROR: Engine/utilities/FileName(665): Filename ends with PathSepChar."
                        "\n"),
            1U)
      << r.trace;
}

CUL_CHILD(FileNameTracesASeparatorAtAFarEnd) {
  std::string path(FileName::longest + 1, 'n');
  path.back() = '/';
  EXPECT_FALSE(name(path).isValidName());
}

TEST(FileName, TracesASeparatorAtItsEndHoweverLongItIs) {
  const TracedChildResult r = runTracedChild("FileNameTracesASeparatorAtAFarEnd");
  EXPECT_EQ(r.child.status, 0) << r.child.out << r.child.err;
  EXPECT_EQ(occurrences(r.trace, "Filename ends with PathSepChar."), 1U);
}

TEST(FileName, OfTheGreatestLengthHasAllItsPieces) {
  const std::string whole = longName(FileName::longest);
  ASSERT_EQ(whole.size(), 65535U);
  const FileName n = name(whole);
  EXPECT_TRUE(n.isValidName());
  EXPECT_TRUE(n.isAbsolute());
  EXPECT_EQ(text(n.extension()), ".x");
  EXPECT_EQ(n.base().length(), 65534U);
  const FileName deep = name(std::string(32767, 'd') + "/" + std::string(32766, 'd') + "/f");
  EXPECT_EQ(deep.length(), 65536U);
  EXPECT_FALSE(deep.isValidName());
  const FileName last = name(std::string(65533, 'd') + "/f");
  EXPECT_EQ(text(last.base()), "f");
  EXPECT_EQ(name(std::string(65534, 'a') + ".").extension().length(), 1U);
}

TEST(FileName, LongerThanItsPositionsCanSayIsInvalid) {
  for (const unsigned length : {65536U, 65537U, 131072U}) {
    FileName n = name(longName(length));
    EXPECT_FALSE(n.isValidName());
    EXPECT_EQ(pieces(n), Pieces());
    EXPECT_FALSE(n.isAbsolute());
    EXPECT_FALSE(n.isAccessible(false));
    n.change_extension(encoded("y"));
    n.change_path(encoded("/p"));
    n.change_member(encoded("m"));
    EXPECT_EQ(text(n), longName(length));
  }
}

TEST(FileName, AChangeMayMakeANameTooLong) {
  FileName n = name(longName(FileName::longest));
  n.change_extension(encoded("xy"));
  EXPECT_EQ(n.length(), 65536U);
  EXPECT_FALSE(n.isValidName());
  EXPECT_EQ(pieces(n), Pieces());
}

TEST(FileName, CopiesAndMovesItsPiecesAndItsHash) {
  FileName n = name("d/b.e(m)");
  const unsigned hash = n.computeHash();
  FileName copy(n);
  EXPECT_EQ(pieces(copy), pieces(n));
  EXPECT_EQ(copy.computeHash(), hash);
  const FileName moved(std::move(n));
  EXPECT_EQ(pieces(moved), pieces(copy));
  EXPECT_EQ(pieces(n), Pieces());  // What is left is promised.
  EXPECT_EQ(n.computeHash(), 0x84222325U);
  n = copy;
  EXPECT_EQ(pieces(n), pieces(copy));
  FileName target = name("x");
  target = std::move(n);
  EXPECT_EQ(pieces(target), pieces(copy));
  EXPECT_EQ(target.computeHash(), hash);
  EXPECT_EQ(pieces(n), Pieces());
  FileName& same = target;
  target = std::move(same);
  EXPECT_EQ(pieces(target), pieces(copy));
  target = name("not/yet.hashed");
  EXPECT_EQ(target.computeHash(), name("not/yet.hashed").computeHash());
  target = encoded("/new.x");
  EXPECT_EQ(pieces(target), (Pieces{"/", "new.x", "new", ".x", ""}));
  EXPECT_NE(target.computeHash(), hash);
}

TEST(FileName, PiecesOfANameCutByAStringOperationStayWithinIt) {
  FileName n = name("directory/base.ext(member)");
  n.remove(5, 100);
  EXPECT_EQ(text(n), "dire");
  EXPECT_EQ(text(n.member()), "");
  EXPECT_EQ(text(n.extension()), "");
  EXPECT_EQ(text(n.base()), "");
  n.validate();
  EXPECT_EQ(text(n.base()), "dire");
}

TEST(FileName, HashIsThatOfTheTextAndFollowsChanges) {
  EXPECT_EQ(FileName().computeHash(), 0x84222325U);
  // FNV-1a of "a": (0xcbf29ce484222325 ^ 0x61) * 0x100000001b3, low 32 bits.
  const auto expected =
      static_cast<unsigned>((0xcbf29ce484222325UL ^ 0x61UL) * 0x100000001b3UL & 0xFFFFFFFFUL);
  FileName n = name("a");
  EXPECT_EQ(n.computeHash(), expected);
  EXPECT_EQ(n.computeHash(), expected);
  n.change_extension(encoded("b"));
  EXPECT_EQ(n.computeHash(), name("a.b").computeHash());
  n.change_extension(encoded(""));
  EXPECT_EQ(n.computeHash(), expected);
  n.change_path(encoded("d"));
  EXPECT_EQ(n.computeHash(), name("d/a").computeHash());
  n.change_member(encoded("m"));
  EXPECT_EQ(n.computeHash(), name("d/a(m)").computeHash());
}

TEST(FileName, IsAbsoluteWhenItBeginsWithASeparator) {
  EXPECT_TRUE(name("/a").isAbsolute());
  EXPECT_FALSE(name("a/b").isAbsolute());
  EXPECT_FALSE(name("./a").isAbsolute());
}

TEST(FileName, ValidPathsAreNotEmptyAndDoNotEndWithASeparator) {
  EXPECT_TRUE(FileName::is_valid_path(encoded("a")));
  EXPECT_TRUE(FileName::is_valid_path(encoded("/a/b")));
  EXPECT_FALSE(FileName::is_valid_path(encoded("a/")));
  EXPECT_FALSE(FileName::is_valid_path(encoded("/")));
  EXPECT_FALSE(FileName::is_valid_path(encoded("")));
}

TEST(FileName, ParsePathsSkipsEmptyEntries) {
  EXPECT_THAT(entries("::/a::/b:"), ElementsAre("/a", "/b"));
  EXPECT_THAT(entries("/a"), ElementsAre("/a"));
  EXPECT_THAT(entries("a/:b/"), ElementsAre("a/", "b/"));
  EXPECT_THAT(entries(""), IsEmpty());
  EXPECT_THAT(entries(":::"), IsEmpty());
}

TEST(FileName, MakesRoomForAllEntriesOfASearchListAtOnce) {
  std::string list;
  for (unsigned i = 0; i < 20001; ++i) {
    list += ":/entry::" + std::to_string(i);
  }
  const List<EncodedString*> parsed = FileName::parsePaths(encoded(list));
  EXPECT_EQ(parsed.count(), 40002U);
  EXPECT_EQ(parsed.capacity(), 40002U);
  for (unsigned i = 0; i < parsed.count(); ++i) {
    const std::unique_ptr<EncodedString> entry(parsed[i]);
    EXPECT_EQ(text(*entry), i % 2 == 0 ? "/entry" : std::to_string(i / 2));
  }
  EXPECT_EQ(FileName::parsePaths(encoded("::")).capacity(), 0U);
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)

namespace {

// No memory but what the process has at the start, until the end of the scope.
class NoMoreMemory {
 public:
  NoMoreMemory() {
    EXPECT_EQ(getrlimit(RLIMIT_AS, &before_), 0);
    const rlimit none = {0, before_.rlim_max};
    EXPECT_EQ(setrlimit(RLIMIT_AS, &none), 0);
  }
  NoMoreMemory(const NoMoreMemory&) = delete;
  NoMoreMemory& operator=(const NoMoreMemory&) = delete;
  ~NoMoreMemory() { EXPECT_EQ(setrlimit(RLIMIT_AS, &before_), 0); }

 private:
  rlimit before_ = {};
};

// Entries for which there is memory, then one for which there is none.
std::string tooLongAList() {
  constexpr size_t entries = 20;
  constexpr size_t length = 10000;
  std::string list;
  for (size_t i = 0; i < entries; ++i) {
    list += std::string(length, 'e') + ":";
  }
  // Memory for these, and something behind it, so that it is not given back to the system.
  const std::string behind = [&list] {
    const auto enough = std::make_unique<char[]>(2 * list.size());
    return std::string(length, 'b');
  }();
  return list + std::string(size_t{1} << 24, 'l');
}

size_t bytesInUse() { return mallinfo2().uordblks; }

}  // namespace

CUL_CHILD(PathsForWhichMemoryRunsOut) {
  // The library's own handler would end the process.
  std::set_new_handler(nullptr);
  // Keeps what is freed at the end of the heap.
  EXPECT_EQ(mallopt(M_TRIM_THRESHOLD, 1 << 30), 1);
  const EncodedString list = encoded(tooLongAList());
  // The first exception leaves behind what the unwinder keeps.
  size_t before = 0;
  int thrown = 0;
  for (int round = 0; round < 2; ++round) {
    before = bytesInUse();
    const NoMoreMemory noMoreMemory;
    try {
      static_cast<void>(FileName::parsePaths(list));
    } catch (const std::bad_alloc&) {
      ++thrown;
    }
  }
  EXPECT_EQ(thrown, 2);
  EXPECT_EQ(bytesInUse(), before);
}

TEST(FileName, ParsePathsGivesTheEntriesBackForWhichMemoryRunsOut) {
  const ChildResult r = runChild("PathsForWhichMemoryRunsOut");
  EXPECT_EQ(r.status, 0) << r.out << r.err;
}

#endif

TEST(FileName, GenericLibraryNameCutsOneNumberBehindSo) {
  const auto generic = [](const std::string& n) { return text(name(n).genericLibraryName()); };
  EXPECT_EQ(generic("/lib/libq.so.6"), "libq.so");
  EXPECT_EQ(generic("libq.so.12"), "libq.so");
  EXPECT_EQ(generic("/lib/libq.so"), "libq.so");
  EXPECT_EQ(generic("libx.so.1.2"), "libx.so.1.2");
  EXPECT_EQ(generic("libx.so.1a"), "libx.so.1a");
  // The neighbours of the digits.
  EXPECT_EQ(generic("libx.so.+1"), "libx.so.+1");
  EXPECT_EQ(generic("libx.so.1:"), "libx.so.1:");
  EXPECT_EQ(generic("libx.so."), "libx.so.");
  EXPECT_EQ(generic("/d/libx.a.1"), "libx.a.1");
  EXPECT_EQ(generic("/d/libx.so.1(m)"), "libx.so.1(m)");
  EXPECT_EQ(generic("libx.SO.1"), "libx.SO.1");
  EXPECT_EQ(generic("/d/x"), "x");
  EXPECT_EQ(generic("/d/7"), "7");
}

TEST(FileName, ChangePathPutsTheLastComponentIntoAnotherFolder) {
  EXPECT_EQ(withPath("/a/b.c(d)", "/x"), "/x/b.c(d)");
  EXPECT_EQ(withPath("/a/b.c(d)", "/x/"), "/x/b.c(d)");
  EXPECT_EQ(withPath("/a/b", ""), "b");
  EXPECT_EQ(withPath("b", "x"), "x/b");
  EXPECT_EQ(withPath("b", "/"), "/b");
  EXPECT_EQ(withPath("b", "x//"), "x//b");
}

TEST(FileName, ChangeExtensionReplacesAddsOrRemoves) {
  EXPECT_EQ(withExtension("x.c", "o"), "x.o");
  EXPECT_EQ(withExtension("x.c", ".o"), "x.o");
  EXPECT_EQ(withExtension("x.c", ""), "x");
  EXPECT_EQ(withExtension("x", "c"), "x.c");
  EXPECT_EQ(withExtension("x", ""), "x");
  EXPECT_EQ(withExtension("x.", "c"), "x.c");
  EXPECT_EQ(withExtension("x.", ""), "x");
  EXPECT_EQ(withExtension("x.c", "."), "x.");
  EXPECT_EQ(withExtension("lib.a(m.o)", ".b"), "lib.b(m.o)");
  EXPECT_EQ(withExtension("lib(m.o)", "b"), "lib.b(m.o)");
  EXPECT_EQ(withExtension("lib.a(m.o)", ""), "lib(m.o)");
  EXPECT_EQ(withExtension("a.d/x", "c"), "a.d/x.c");
  EXPECT_EQ(withExtension("x.tar.gz", "bz2"), "x.tar.bz2");
}

TEST(FileName, ChangeMemberReplacesAddsOrRemoves) {
  EXPECT_EQ(withMember("lib.a", "m.o"), "lib.a(m.o)");
  EXPECT_EQ(withMember("lib.a(m.o)", "n.o"), "lib.a(n.o)");
  EXPECT_EQ(withMember("lib.a(m.o)", ""), "lib.a");
  EXPECT_EQ(withMember("lib.a", ""), "lib.a");
  EXPECT_EQ(withMember("/d/lib.a", "(m.o)"), "/d/lib.a(m.o)");
  EXPECT_EQ(withMember("lib.a", "(m"), "lib.a(m");
  EXPECT_EQ(withMember("lib.a", "m)"), "lib.am)");
}

TEST(FileName, ChangesLeaveInvalidNamesAlone) {
  for (const char* n : {"", "dir/", "/"}) {
    EXPECT_EQ(withPath(n, "/x"), n);
    EXPECT_EQ(withExtension(n, "x"), n);
    EXPECT_EQ(withMember(n, "m"), n);
    EXPECT_EQ(anchored(n, "/x"), n);
  }
}

TEST(FileName, ChangesTakeTheNameItselfAsTheirArgument) {
  FileName n = name("a");
  n.change_path(n);
  EXPECT_EQ(text(n), "a/a");
  n.change_extension(n);
  EXPECT_EQ(text(n), "a/a.a/a");
  n = encoded("b");
  n.change_member(n);
  EXPECT_EQ(text(n), "b(b)");
}

TEST(FileName, RationalizePathAnchorsRelativeNames) {
  EXPECT_EQ(anchored("a", "/w"), "/w/a");
  EXPECT_EQ(anchored("d/a.b(c)", "/w"), "/w/d/a.b(c)");
  EXPECT_EQ(anchored("/d/a", "/w"), "/d/a");
  EXPECT_EQ(anchored("d/a", ""), "d/a");
  EXPECT_EQ(anchored("../a", "/w"), "/w/../a");
  EXPECT_EQ(anchored("a", "/"), "//a");
}

TEST(FileName, RationalizePathWithoutAFolderKeepsTheNameAsWritten) {
  FileName n = name("/a//b/../c/./d");
  n.rationalizePath();
  EXPECT_EQ(text(n), "/a//b/../c/./d");
}

TEST(FileName, CommonPathPrefixIsAlwaysEmpty) {
  const std::vector<std::string> names = {"", "f", "/", "/a", "/a/b/f", "a/f", "d/"};
  for (const std::string& a : names) {
    for (const std::string& b : names) {
      EXPECT_EQ(text(name(a).commonPathPrefix(name(b))), "") << a << " " << b;
    }
  }
}

TEST(FileName, CommonPathSuffixIsMadeOfWholeComponents) {
  EXPECT_EQ(commonSuffix("/x/lib/f", "/y/lib"), "lib/");
  EXPECT_EQ(commonSuffix("/x/lib/f", "/y/lib/"), "lib/");
  EXPECT_EQ(commonSuffix("/x/a/b/f", "/y/a/b"), "a/b/");
  EXPECT_EQ(commonSuffix("/x/mylib/f", "/y/lib"), "");
  EXPECT_EQ(commonSuffix("/x/lib/f", "/y/mylib"), "");
  EXPECT_EQ(commonSuffix("/a/b/f", "/a/b"), "a/b/");
}

TEST(FileName, CommonPathSuffixNeedsASeparatorInFrontInBothNames) {
  EXPECT_EQ(commonSuffix("lib/f", "lib"), "");
  EXPECT_EQ(commonSuffix("lib/f", "/y/lib"), "");
  EXPECT_EQ(commonSuffix("/lib/f", "lib"), "");
  EXPECT_EQ(commonSuffix("/lib/f", "/lib"), "lib/");
}

TEST(FileName, CommonPathSuffixIsEmptyWithoutAFolderOrWithoutAMatch) {
  EXPECT_EQ(commonSuffix("f", "/a/b"), "");
  EXPECT_EQ(commonSuffix("", "/a/b"), "");
  EXPECT_EQ(commonSuffix("/a/b/f", ""), "");
  EXPECT_EQ(commonSuffix("/a/b/", "/a/b"), "");
  EXPECT_EQ(commonSuffix("/f", "/"), "");
  EXPECT_EQ(commonSuffix("/f", "x"), "");
  EXPECT_EQ(commonSuffix("/a/f", "/b/"), "");
  EXPECT_EQ(commonSuffix("/a//f", "/"), "");
}

TEST(FileName, EqualsOneWithTheSameText) {
  EXPECT_TRUE(name("/a/b.c") == name("/a/b.c"));
  EXPECT_FALSE(name("/a/b.c") == name("/a/b.d"));
  EXPECT_TRUE(name("/a/b.c") != name("a/b.c"));
  EXPECT_TRUE(FileName() == FileName());
  EXPECT_TRUE(FileName() != name("a"));
}

TEST(FileName, TrailingWhiteSpaceDoesNotCount) {
  EXPECT_TRUE(name("a.b  ") == name("a.b"));
  EXPECT_TRUE(name("a.b") == name("a.b\t\n"));
  EXPECT_TRUE(name("a.b ") == name("a.b\r"));
  EXPECT_TRUE(name("  ") == FileName());
  EXPECT_FALSE(name(" a.b") == name("a.b"));
  EXPECT_FALSE(name("a .b") == name("a.b"));
}

TEST(FileName, ANumberBehindSoDoesNotCount) {
  EXPECT_TRUE(name("libz.so.1") == name("libz.so"));
  EXPECT_TRUE(name("libz.so") == name("libz.so.123"));
  EXPECT_FALSE(name("libz.so.1") != name("libz.so"));
  EXPECT_FALSE(name("libz.so.1") == name("libz.so.2"));
  EXPECT_FALSE(name("libz.so.1.2") == name("libz.so"));
  EXPECT_FALSE(name("libz.so.1.2") == name("libz.so.1"));
  EXPECT_FALSE(name("a.1") == name("a"));
  EXPECT_FALSE(name("a.c.1") == name("a.c"));
  EXPECT_FALSE(name("libz.so.") == name("libz.so"));
  EXPECT_FALSE(name("libz.so.x") == name("libz.so"));
  EXPECT_FALSE(name("/l/libz.so.1") == name("libz.so"));
  EXPECT_FALSE(name("liby.so.1") == name("libz.so"));
}

TEST(FileName, ANumberBehindSoCountsNextToWhiteSpace) {
  EXPECT_FALSE(name("libz.so.1 ") == name("libz.so"));
  EXPECT_FALSE(name("libz.so.1") == name("libz.so "));
  EXPECT_TRUE(name("libz.so.1 ") == name("libz.so.1"));
}

TEST(FileName, MembersCountInComparisons) {
  EXPECT_TRUE(name("libz.so.1(m)") == name("libz.so(m)"));
  EXPECT_FALSE(name("libz.so.1(m)") == name("libz.so(n)"));
  EXPECT_FALSE(name("libz.so.1(m)") == name("libz.so"));
}

TEST(FileName, SharesTextsOfOneCharacter) {
  EXPECT_EQ(text(FileName::PathSepString()), "/");
  EXPECT_EQ(text(FileName::PeriodString()), ".");
  EXPECT_EQ(text(FileName::LeftParenString()), "(");
  EXPECT_EQ(text(FileName::RightParenString()), ")");
  EXPECT_EQ(&FileName::PathSepString(), &FileName::PathSepString());
}

TEST(FileName, PathSeparatorIsANewTextEachTime) {
  const std::unique_ptr<EncodedString> a(FileName::pathSeparator());
  const std::unique_ptr<EncodedString> b(FileName::pathSeparator());
  EXPECT_NE(a, b);
  EXPECT_EQ(text(*a), "/");
}

TEST(FileName, IsAccessibleWhenItIsAReadableRegularFile) {
  const TemporaryFolder folder;
  const std::string file = folder.file("file");
  writeFile(file, "x");
  chmod(file.c_str(), 0644);
  EXPECT_TRUE(name(file).isAccessible(false));
  EXPECT_FALSE(name(file).isAccessible(true));
  chmod(file.c_str(), 0755);
  EXPECT_TRUE(name(file).isAccessible(true));
  std::filesystem::create_symlink(file, folder.file("link"));
  EXPECT_TRUE(name(folder.file("link")).isAccessible(true));
  EXPECT_FALSE(name(folder.path()).isAccessible(false));
  EXPECT_FALSE(name(folder.file("none")).isAccessible(false));
  EXPECT_FALSE(name("/dev/null").isAccessible(false));
}

CUL_CHILD(FileNameThatMayNotBeRead) {
  const OrdinaryUser user;
  const std::string folder = childArguments().at(0);
  EXPECT_FALSE(name(folder + "/unreadable").isAccessible(false));
  EXPECT_FALSE(name(folder + "/unreadable").isAccessible(true));
  EXPECT_TRUE(name(folder + "/readable").isAccessible(true));
}

TEST(FileName, IsNotAccessibleWithoutThePermissionToReadIt) {
  const TemporaryFolder folder;
  chmod(folder.path().c_str(), 0755);
  writeFile(folder.file("unreadable"), "x");
  writeFile(folder.file("readable"), "x");
  chmod(folder.file("unreadable").c_str(), 0111);
  chmod(folder.file("readable").c_str(), 0555);
  ChildOptions options;
  options.arguments = {folder.path()};
  const ChildResult r = runChild("FileNameThatMayNotBeRead", options);
  EXPECT_EQ(r.status, 0) << r.out << r.err;
}

namespace {

// A working directory with a file in it and two folders of a search path beside it.
class SearchFolder {
 public:
  SearchFolder() {
    for (const char* sub : {"work", "work/sub", "one", "two"}) {
      std::filesystem::create_directory(folder_.file(sub));
    }
    put("work/here", 0644);
    put("work/sub/below", 0644);
    put("one/here", 0755);
    put("one/tool", 0644);
    put("two/tool", 0755);
    put("two/lib.a", 0644);
  }

  void put(const std::string& file, mode_t mode) const {
    writeFile(folder_.file(file), "x");
    chmod(folder_.file(file).c_str(), mode);
  }

  // The findings of a child that has `work` as its working directory.
  void run(const std::string& childCase) const {
    ChildOptions options;
    options.directory = folder_.file("work");
    options.arguments = {std::filesystem::canonical(folder_.path()).string()};
    const ChildResult r = runChild(childCase, options);
    EXPECT_EQ(r.status, 0) << r.out << r.err;
  }

 private:
  TemporaryFolder folder_;
};

std::string find(const std::string& n, const std::string& path, bool executable) {
  return text(FileName::findFile(name(n), encoded(path), executable));
}

}  // namespace

CUL_CHILD(FindFileAlongThePath) {
  const std::string top = childArguments().at(0);
  const std::string path = ":" + top + "/one::" + top + "/two:";
  EXPECT_EQ(find("here", path, false), top + "/work/here");
  EXPECT_EQ(find("here", path, true), top + "/one/here");
  EXPECT_EQ(find("tool", path, false), top + "/one/tool");
  EXPECT_EQ(find("tool", path, true), top + "/two/tool");
  EXPECT_EQ(find("none", path, false), "");
  EXPECT_EQ(find("sub", path, false), "");
  EXPECT_EQ(find("tool", "../two:../one", false), top + "/work/../two/tool");
  EXPECT_EQ(find("here", "", false), top + "/work/here");
  EXPECT_EQ(find("tool", "", false), "");
  EXPECT_EQ(find("", path, false), "");
  EXPECT_EQ(find("here/", path, false), "");
  EXPECT_EQ(find(std::string("here\0/", 6), path, false), "");
}

TEST(FindFile, LooksInTheWorkingDirectoryAndThenAlongThePath) {
  SearchFolder().run("FindFileAlongThePath");
}

CUL_CHILD(FindFileBehindAnEntryThatIsTooLong) {
  const std::string top = childArguments().at(0);
  std::string tooLong(FileName::longest, 'd');
  tooLong.front() = '/';
  EXPECT_EQ(find("tool", tooLong + ":" + top + "/two", false), top + "/two/tool");
}

TEST(FindFile, PassesOverAnEntryThatIsTooLongForAName) {
  SearchFolder().run("FindFileBehindAnEntryThatIsTooLong");
}

CUL_CHILD(FindFileWithAFolder) {
  const std::string top = childArguments().at(0);
  EXPECT_EQ(find("sub/below", "", false), top + "/work/sub/below");
  EXPECT_EQ(find("sub/below", "", true), "");
  EXPECT_EQ(find("./here", "", false), top + "/work/./here");
  EXPECT_EQ(find(top + "/two/tool", "", true), top + "/two/tool");
  EXPECT_EQ(find("sub/none", top, false), "");
  EXPECT_EQ(find("one/tool", top, false), "");
}

CUL_CHILD(FindFileFromAFolderWithAColon) {
  const std::string top = childArguments().at(0);
  std::filesystem::create_directories(top + "/one:../two/below");
  std::filesystem::create_directories(top + "/one:two/two");
  for (const char* file : {"/one:two/mine", "/one:two/here", "/one:two/two/lower",
                           "/one:two/two/here", "/one:../mine", "/one:../two/below/deep"}) {
    writeFile(top + file, "x");
  }
  ASSERT_EQ(chdir((top + "/one:two").c_str()), 0);
  EXPECT_EQ(find("mine", "", false), "") << "the working directory itself is no entry";
  EXPECT_EQ(find("here", "", false), top + "/one/here") << "in front of the first colon";
  EXPECT_EQ(find("lower", "", false), top + "/one:two/two/lower") << "behind it";
  EXPECT_EQ(find("lib.a", top + "/two", false), top + "/two/lib.a");
  EXPECT_EQ(find("./mine", "", false), top + "/one:two/./mine");
  ASSERT_EQ(chdir((top + "/one:../two").c_str()), 0);
  EXPECT_EQ(find("mine", "", false), "");
  ASSERT_EQ(chdir((top + "/one:..").c_str()), 0);
  EXPECT_EQ(find("tool", top + "/none", false), top + "/one/tool");
  EXPECT_EQ(find("mine", ".", false), top + "/one:.././mine");
}

TEST(FindFile, SplitsAWorkingDirectoryWithAColonInItsName) {
  SearchFolder().run("FindFileFromAFolderWithAColon");
}

TEST(FindFile, DoesNotSearchForANameWithAFolder) { SearchFolder().run("FindFileWithAFolder"); }

CUL_CHILD(FindFileWithAMember) {
  const std::string top = childArguments().at(0);
  EXPECT_EQ(find("lib.a(m.o)", top + "/two", false), top + "/two/lib.a(m.o)");
  EXPECT_EQ(find("lib.a(m.o)", top + "/two", true), top + "/two/lib.a(m.o)");
  EXPECT_EQ(find("lib.a()", top + "/two", false), top + "/two/lib.a()");
  EXPECT_EQ(find("lib.a(x(m))", top + "/two", false), "");
  EXPECT_EQ(find("../two/lib.a(d/m.o)", "", false), top + "/work/../two/lib.a(d/m.o)");
  EXPECT_EQ(find("none.a(m.o)", top + "/two", false), "");
  EXPECT_EQ(find("(m.o)", top + "/two", false), "");
  const FileName result = FileName::findFile(name("lib.a(m.o)"), encoded(top + "/two"), false);
  EXPECT_EQ(text(result.member()), "m.o");
}

TEST(FindFile, LooksForTheArchiveOfAMember) { SearchFolder().run("FindFileWithAMember"); }

CUL_CHILD(FindFileInARemovedFolder) {
  const std::string top = childArguments().at(0);
  ASSERT_EQ(mkdir((top + "/gone").c_str(), 0755), 0);
  ASSERT_EQ(chdir((top + "/gone").c_str()), 0);
  ASSERT_EQ(rmdir((top + "/gone").c_str()), 0);
  EXPECT_EQ(find("tool", top + "/one", false), "");
  EXPECT_EQ(find(top + "/one/tool", "", false), "");
}

TEST(FindFile, FindsNothingWithoutAWorkingDirectory) {
  SearchFolder().run("FindFileInARemovedFolder");
}

CUL_CHILD(FindFileBelowALongPath) {
  std::string current = std::filesystem::current_path().string();
  while (current.size() < 2000) {
    const std::string folder(200, 'd');
    ASSERT_EQ(mkdir(folder.c_str(), 0755), 0);
    ASSERT_EQ(chdir(folder.c_str()), 0);
    current += "/" + folder;
  }
  writeFile("deep", "x");
  EXPECT_EQ(find("deep", "", false), current + "/deep");
}

TEST(FindFile, KnowsALongWorkingDirectory) { SearchFolder().run("FindFileBelowALongPath"); }

namespace {

// The tool found from a working directory with a path of that length.
std::string toolFoundFrom(size_t length) {
  const std::string top = childArguments().at(0);
  enterFolders(top + "/work", length);
  return find("tool", top + "/two", false);
}

}  // namespace

CUL_CHILD(FindFileFrom4095) {
  EXPECT_EQ(toolFoundFrom(4095), childArguments().at(0) + "/two/tool");
}
CUL_CHILD(FindFileFrom4096) { EXPECT_EQ(toolFoundFrom(4096), ""); }

TEST(FindFile, FindsNothingFromAWorkingDirectoryOf4096BytesOrMore) {
  SearchFolder().run("FindFileFrom4095");
  SearchFolder().run("FindFileFrom4096");
}

CUL_CHILD(FindFileWithForeignNames) {
  const std::string top = childArguments().at(0);
  // A name in UTF-8 on a system whose code page is ASCII.
  const std::string folder = top + "/d\xC3\xA9";
  ASSERT_EQ(mkdir(folder.c_str(), 0755), 0);
  writeFile(folder + "/\xE2\x82\xAC.x", "x");
  EXPECT_EQ(find("\xE2\x82\xAC.x", folder, false), folder + "/\xE2\x82\xAC.x");
  ASSERT_EQ(chdir(folder.c_str()), 0);
  EXPECT_EQ(find("\xE2\x82\xAC.x", "", false), folder + "/\xE2\x82\xAC.x");
}

TEST(FindFile, FindsNamesThatTheNativeCodePageDoesNotKnow) {
  SearchFolder().run("FindFileWithForeignNames");
}

CUL_CHILD(FindFileInTheNativeCodePage) {
  const std::string top = childArguments().at(0);
  ASSERT_EQ(mkdir((top + "/d\xE9").c_str(), 0755), 0);
  writeFile(top + "/d\xE9/f\xE9", "x");
  EXPECT_EQ(find("f\xC3\xA9", top + "/d\xC3\xA9", false), top + "/d\xC3\xA9/f\xC3\xA9");
  ASSERT_EQ(chdir((top + "/d\xE9").c_str()), 0);
  EXPECT_EQ(find("f\xC3\xA9", "", false), top + "/d\xC3\xA9/f\xC3\xA9");
}

TEST(FindFile, FindsNamesInTheNativeCodePage) {
  const TemporaryFolder folder;
  ChildOptions options;
  options.environment["QVX_DBG_CODEPAGE"] = "ISO-8859-1";
  options.arguments = {std::filesystem::canonical(folder.path()).string()};
  const ChildResult r = runChild("FindFileInTheNativeCodePage", options);
  EXPECT_EQ(r.status, 0) << r.out << r.err;
}
