#include "Engine/utilities/StringBuffer.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>
#include <random>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Engine/utilities/Checksums.h"
#include "Engine/utilities/StringPoolManager.h"

namespace {

template <class T>
std::vector<T> elements(std::string_view ascii) {
  return std::vector<T>(ascii.begin(), ascii.end());
}

template <class T>
StringBuffer<T> make(const std::vector<T>& values) {
  return {values.data(), static_cast<unsigned>(values.size())};
}

template <class T>
StringBuffer<T> make(std::string_view ascii) {
  return make(elements<T>(ascii));
}

// The elements as they are; fails when the terminator is missing.
template <class T>
std::vector<T> valuesOf(const StringBuffer<T>& s) {
  const T* text = s;
  EXPECT_EQ(text[s.length()], 0);
  return std::vector<T>(text, text + s.length());
}

// The elements of a text that holds only ASCII.
template <class T>
std::string asciiOf(const StringBuffer<T>& s) {
  std::string result;
  for (const T value : valuesOf(s)) {
    EXPECT_GE(value, 0);
    EXPECT_LT(value, 128);
    result += static_cast<char>(value);
  }
  return result;
}

template <class T>
const T* address(const StringBuffer<T>& s) {
  return s;
}

template <class T>
class StringBufferTest : public testing::Test {};

using Elements = testing::Types<char, unsigned char, wchar_t>;
TYPED_TEST_SUITE(StringBufferTest, Elements);

constexpr unsigned maximum = 0xFFFFFFFF;

TYPED_TEST(StringBufferTest, IsAVirtualTablePointerABufferAndALength) {
  using T = TypeParam;
  struct Opened : StringBuffer<T> {
    using StringBuffer<T>::buffer;
    using StringBuffer<T>::len;
  };
  static_assert(std::has_virtual_destructor_v<StringBuffer<T>>);
  static_assert(std::is_same_v<decltype(Opened::buffer), T*>);
  static_assert(std::is_same_v<decltype(Opened::len), unsigned>);
  EXPECT_EQ(sizeof(StringBuffer<T>), 24U);
  Opened s;
  const auto* const start = reinterpret_cast<const char*>(&s);
  EXPECT_EQ(reinterpret_cast<const char*>(&s.buffer) - start, 8);
  EXPECT_EQ(reinterpret_cast<const char*>(&s.len) - start, 16);
}

TYPED_TEST(StringBufferTest, IsDestroyedThroughItsBase) {
  using T = TypeParam;
  struct Derived : StringBuffer<T> {
    explicit Derived(bool& flag) : gone(flag) {}
    ~Derived() override { gone = true; }
    bool& gone;
  };
  bool gone = false;
  std::unique_ptr<StringBuffer<T>> s = std::make_unique<Derived>(gone);
  s.reset();
  EXPECT_TRUE(gone);
}

TYPED_TEST(StringBufferTest, EmptyPointsAtAZeroElementAndIsNoNumber) {
  using T = TypeParam;
  const StringBuffer<T> s;
  EXPECT_EQ(s.length(), 0U);
  ASSERT_NE(address(s), nullptr);
  EXPECT_EQ(*address(s), 0);
  EXPECT_EQ(s.hashValue(), 0x84222325U);
  EXPECT_EQ(s.hashValue8(), 0);
  EXPECT_FALSE(s.isDigits());
  EXPECT_FALSE(s.isHexDigits());
  EXPECT_FALSE(s.isBinaryDigits());
}

TYPED_TEST(StringBufferTest, EmptyOnesShareTwoStaticElementsOneForMakingOneForClearing) {
  using T = TypeParam;
  const StringBuffer<T> first;
  const StringBuffer<T> second(nullptr, 0);
  EXPECT_EQ(address(first), address(second));
  StringBuffer<T> cleared = make<T>("x");
  cleared.clear();
  StringBuffer<T> alsoCleared = make<T>("yz");
  alsoCleared.clear();
  EXPECT_EQ(address(cleared), address(alsoCleared));
  EXPECT_NE(address(cleared), address(first));
  EXPECT_EQ(*address(cleared), 0);
}

TYPED_TEST(StringBufferTest, EmptyOnesTakeNothingFromThePoolAndGiveNothingBack) {
  using T = TypeParam;
  StringPoolManager& pool = StringPoolManager::instance();
  pool.freeBuffer(pool.getBuffer(8), 8);
  const unsigned before = pool.freeBlocks(sizeof(T));
  {
    StringBuffer<T> s;
    StringBuffer<T> copy(s);
    copy = s;
    copy += s;
    copy.clear();
    copy.makeBuffer(0);
    EXPECT_EQ(pool.freeBlocks(sizeof(T)), before);
  }
  EXPECT_EQ(pool.freeBlocks(sizeof(T)), before);
}

TYPED_TEST(StringBufferTest, TakesAndGivesBackOneElementMoreThanItsLength) {
  using T = TypeParam;
  StringPoolManager& pool = StringPoolManager::instance();
  // The longest text in a block of 16 and the shortest in a block of 24.
  constexpr unsigned fits = 16 / sizeof(T) - 1;
  const std::string text(fits + 1, 'x');
  const auto warmUp = [&] {
    const StringBuffer<T> a = make<T>(text.substr(1));
    const StringBuffer<T> b = make<T>(text);
  };
  warmUp();
  const unsigned of16 = pool.freeBlocks(16);
  const unsigned of24 = pool.freeBlocks(24);
  {
    const StringBuffer<T> a = make<T>(text.substr(1));
    EXPECT_EQ(pool.freeBlocks(16), of16 - 1);
    EXPECT_EQ(pool.freeBlocks(24), of24);
    const StringBuffer<T> b = make<T>(text);
    EXPECT_EQ(pool.freeBlocks(16), of16 - 1);
    EXPECT_EQ(pool.freeBlocks(24), of24 - 1);
  }
  EXPECT_EQ(pool.freeBlocks(16), of16);
  EXPECT_EQ(pool.freeBlocks(24), of24);
}

TYPED_TEST(StringBufferTest, CopiesTextWithElementsOfValueZero) {
  using T = TypeParam;
  const std::vector<T> values = {T{'a'}, T{0}, T{'b'}, T{0}};
  const StringBuffer<T> s = make(values);
  EXPECT_EQ(s.length(), 4U);
  EXPECT_EQ(valuesOf(s), values);
}

TYPED_TEST(StringBufferTest, TailStartsAtThePositionAndIsEmptyBehindTheEnd) {
  using T = TypeParam;
  using Buffer = StringBuffer<T>;
  const Buffer s = make<T>("abcde");
  EXPECT_EQ(asciiOf(Buffer(s, 1)), "abcde");
  EXPECT_EQ(asciiOf(Buffer(s, 2)), "bcde");
  EXPECT_EQ(asciiOf(Buffer(s, 5)), "e");
  EXPECT_EQ(asciiOf(Buffer(s, 6)), "");
  EXPECT_EQ(asciiOf(Buffer(s, 7)), "");
  EXPECT_EQ(asciiOf(Buffer(s, maximum)), "");
  EXPECT_EQ(asciiOf(Buffer(s, 0)), "abcde");
  EXPECT_EQ(asciiOf(Buffer(Buffer(), 1)), "");
}

TYPED_TEST(StringBufferTest, SliceHasExactlyTheCountAndIsPaddedBehindTheEnd) {
  using T = TypeParam;
  using Buffer = StringBuffer<T>;
  const Buffer s = make<T>("abcde");
  EXPECT_EQ(asciiOf(Buffer(s, 2, 3, '.')), "bcd");
  EXPECT_EQ(asciiOf(Buffer(s, 2, 4, '.')), "bcde");
  EXPECT_EQ(asciiOf(Buffer(s, 2, 5, '.')), "bcde.");
  EXPECT_EQ(asciiOf(Buffer(s, 5, 3, '.')), "e..");
  EXPECT_EQ(asciiOf(Buffer(s, 6, 3, '.')), "...");
  EXPECT_EQ(asciiOf(Buffer(s, maximum, 2, '.')), "..");
  EXPECT_EQ(asciiOf(Buffer(s, 0, 2, '.')), "ab");
  EXPECT_EQ(asciiOf(Buffer(s, 3, 0, '.')), "");
  EXPECT_EQ(asciiOf(Buffer(Buffer(), 1, 2, '.')), "..");
}

TYPED_TEST(StringBufferTest, PadIsAWholeElement) {
  using T = TypeParam;
  using Buffer = StringBuffer<T>;
  T pad;
  std::memset(&pad, 0, sizeof pad);
  std::memset(&pad, 0xE9, 1);
  EXPECT_EQ(valuesOf(Buffer(Buffer(), 1, 2, pad)), (std::vector<T>{pad, pad}));
}

TYPED_TEST(StringBufferTest, CopyIsIndependent) {
  using T = TypeParam;
  const StringBuffer<T> s = make<T>("abc");
  StringBuffer<T> copy(s);
  copy[2] = 'X';
  EXPECT_EQ(asciiOf(copy), "aXc");
  EXPECT_EQ(asciiOf(s), "abc");
}

TYPED_TEST(StringBufferTest, MovingLeavesTheSourceEmptyAndUsable) {
  using T = TypeParam;
  StringBuffer<T> s = make<T>("abc");
  const T* const block = address(s);
  StringBuffer<T> moved(std::move(s));
  EXPECT_EQ(address(moved), block);
  EXPECT_EQ(asciiOf(moved), "abc");
  EXPECT_EQ(s.length(), 0U);  // What is left is promised.
  EXPECT_EQ(*address(s), 0);
  s += moved;
  EXPECT_EQ(asciiOf(s), "abc");

  StringBuffer<T> target = make<T>("what was before");
  target = std::move(moved);
  EXPECT_EQ(address(target), block);
  EXPECT_EQ(moved.length(), 0U);

  StringBuffer<T>& self = target;
  target = std::move(self);
  EXPECT_EQ(asciiOf(target), "abc");

  target = StringBuffer<T>();
  EXPECT_EQ(asciiOf(target), "");
}

TYPED_TEST(StringBufferTest, AssignmentKeepsTheBlockWhenTheLengthsAreEqual) {
  using T = TypeParam;
  StringBuffer<T> s = make<T>("abc");
  const T* const block = address(s);
  const StringBuffer<T> other = make<T>("uvw");
  s = other;
  EXPECT_EQ(address(s), block);
  EXPECT_EQ(asciiOf(s), "uvw");
}

TYPED_TEST(StringBufferTest, AssignmentChangesTheLength) {
  using T = TypeParam;
  StringBuffer<T> s = make<T>("abc");
  const StringBuffer<T> longer = make<T>(std::string(100, 'l'));
  s = longer;
  EXPECT_EQ(asciiOf(s), std::string(100, 'l'));
  const StringBuffer<T> empty;
  s = empty;
  EXPECT_EQ(asciiOf(s), "");
  s = longer;
  EXPECT_EQ(asciiOf(s), std::string(100, 'l'));
}

TYPED_TEST(StringBufferTest, AssignmentToItselfDoesNothing) {
  using T = TypeParam;
  StringBuffer<T> s = make<T>("abc");
  const T* const block = address(s);
  const StringBuffer<T>& self = s;
  s = self;
  EXPECT_EQ(address(s), block);
  EXPECT_EQ(asciiOf(s), "abc");
}

TYPED_TEST(StringBufferTest, AppendJoinsTexts) {
  using T = TypeParam;
  StringBuffer<T> s;
  s += StringBuffer<T>();
  EXPECT_EQ(asciiOf(s), "");
  s += make<T>("ab");
  EXPECT_EQ(asciiOf(s), "ab");
  const T* const block = address(s);
  s += StringBuffer<T>();
  EXPECT_EQ(address(s), block);
  s += make<T>("cde");
  EXPECT_EQ(asciiOf(s), "abcde");
}

TYPED_TEST(StringBufferTest, AppendsItself) {
  using T = TypeParam;
  StringBuffer<T> s = make<T>("abc");
  s += s;
  s += s;
  EXPECT_EQ(asciiOf(s), "abcabcabcabc");
  StringBuffer<T> empty;
  empty += empty;
  EXPECT_EQ(empty.length(), 0U);
}

TYPED_TEST(StringBufferTest, MakeBufferKeepsABlockOfTheRightLength) {
  using T = TypeParam;
  StringBuffer<T> s = make<T>("abc");
  const T* const block = address(s);
  s.makeBuffer(3);
  EXPECT_EQ(address(s), block);
  EXPECT_EQ(asciiOf(s), "abc");
  s.makeBuffer(200);
  EXPECT_EQ(s.length(), 200U);
  EXPECT_EQ(address(s)[200], 0);
  s.makeBuffer(0);
  EXPECT_EQ(s.length(), 0U);
  EXPECT_EQ(address(s), address(StringBuffer<T>()));
}

TYPED_TEST(StringBufferTest, DeleteBufferLeavesANullPointerUntilMakeBuffer) {
  using T = TypeParam;
  StringBuffer<T> s = make<T>("abc");
  s.deleteBuffer();
  EXPECT_EQ(address(s), nullptr);
  EXPECT_EQ(s.length(), 0U);
  s.deleteBuffer();
  s.clear();
  EXPECT_EQ(address(s), nullptr);
  s.makeBuffer(0);
  EXPECT_EQ(asciiOf(s), "");
  s.deleteBuffer();
  EXPECT_NE(address(s), nullptr) << "an empty buffer has nothing to give back";
  s.makeBuffer(2);
  s.deleteBuffer();
  s.makeBuffer(2);
  EXPECT_EQ(s.length(), 2U);
  EXPECT_EQ(address(s)[2], 0);
  s.deleteBuffer();
}

TYPED_TEST(StringBufferTest, ClearLeavesAnEmptyBufferAsItIs) {
  using T = TypeParam;
  StringBuffer<T> s;
  const T* const before = address(s);
  s.clear();
  EXPECT_EQ(address(s), before);
  s += make<T>("abc");
  s.clear();
  EXPECT_EQ(asciiOf(s), "");
  s += make<T>("def");
  EXPECT_EQ(asciiOf(s), "def");
}

TYPED_TEST(StringBufferTest, ElementsAreCountedFromOne) {
  using T = TypeParam;
  StringBuffer<T> s = make<T>("abc");
  const StringBuffer<T>& constant = s;
  EXPECT_EQ(constant[1], 'a');
  EXPECT_EQ(constant[3U], 'c');
  EXPECT_EQ(constant[4], 0);
  s[1] = 'x';
  s[2U] = 'y';
  EXPECT_EQ(asciiOf(s), "xyc");
  T* text = s;
  text[2] = 'z';
  EXPECT_EQ(asciiOf(s), "xyz");
}

TYPED_TEST(StringBufferTest, IndexOfFindsTheFirstAtOrBehindTheStart) {
  using T = TypeParam;
  const StringBuffer<T> s = make<T>("banana");
  EXPECT_EQ(s.indexOf(T{'a'}), 2U);
  EXPECT_EQ(s.indexOf(T{'a'}, 0), 2U);
  EXPECT_EQ(s.indexOf(T{'a'}, 1), 2U);
  EXPECT_EQ(s.indexOf(T{'a'}, 2), 2U);
  EXPECT_EQ(s.indexOf(T{'a'}, 3), 4U);
  EXPECT_EQ(s.indexOf(T{'a'}, 6), 6U);
  EXPECT_EQ(s.indexOf(T{'a'}, 7), 0U);
  EXPECT_EQ(s.indexOf(T{'a'}, maximum), 0U);
  EXPECT_EQ(s.indexOf(T{'x'}), 0U);
  EXPECT_EQ(s.indexOf(T{0}), 0U) << "the terminator is no element";
  EXPECT_EQ(StringBuffer<T>().indexOf(T{'a'}), 0U);
}

TYPED_TEST(StringBufferTest, IndexOfAnyButFindsTheFirstOther) {
  using T = TypeParam;
  const StringBuffer<T> s = make<T>("  ab  ");
  EXPECT_EQ(s.indexOfAnyBut(T{' '}), 3U);
  EXPECT_EQ(s.indexOfAnyBut(T{' '}, 0), 3U);
  EXPECT_EQ(s.indexOfAnyBut(T{' '}, 4), 4U);
  EXPECT_EQ(s.indexOfAnyBut(T{' '}, 5), 0U);
  EXPECT_EQ(s.indexOfAnyBut(T{' '}, 7), 0U);
  EXPECT_EQ(s.indexOfAnyBut(T{' '}, maximum), 0U);
  EXPECT_EQ(s.indexOfAnyBut(T{'x'}), 1U);
  EXPECT_EQ(StringBuffer<T>().indexOfAnyBut(T{'a'}), 0U);
}

TYPED_TEST(StringBufferTest, LastIndexOfSearchesBackFromTheStart) {
  using T = TypeParam;
  const StringBuffer<T> s = make<T>("banana");
  EXPECT_EQ(s.lastIndexOf(T{'n'}, s.length()), 5U);
  EXPECT_EQ(s.lastIndexOf(T{'n'}, maximum), 5U);
  EXPECT_EQ(s.lastIndexOf(T{'n'}, 5), 5U);
  EXPECT_EQ(s.lastIndexOf(T{'n'}, 4), 3U);
  EXPECT_EQ(s.lastIndexOf(T{'n'}, 2), 0U);
  EXPECT_EQ(s.lastIndexOf(T{'b'}, 1), 1U);
  EXPECT_EQ(s.lastIndexOf(T{'b'}, 0), 0U);
  EXPECT_EQ(s.lastIndexOf(T{0}, 7), 0U);
  EXPECT_EQ(StringBuffer<T>().lastIndexOf(T{'b'}, 1), 0U);
}

TYPED_TEST(StringBufferTest, LastIndexOfAnyButSearchesBackForAnother) {
  using T = TypeParam;
  const StringBuffer<T> s = make<T>("  ab  ");
  EXPECT_EQ(s.lastIndexOfAnyBut(T{' '}, 6), 4U);
  EXPECT_EQ(s.lastIndexOfAnyBut(T{' '}, maximum), 4U);
  EXPECT_EQ(s.lastIndexOfAnyBut(T{' '}, 3), 3U);
  EXPECT_EQ(s.lastIndexOfAnyBut(T{' '}, 2), 0U);
  EXPECT_EQ(s.lastIndexOfAnyBut(T{' '}, 0), 0U);
  EXPECT_EQ(StringBuffer<T>().lastIndexOfAnyBut(T{'a'}, 1), 0U);
}

// What the searches for one element must give, element by element.
template <class T>
unsigned firstPosition(const std::vector<T>& text, T c, bool equal, unsigned start) {
  for (std::size_t i = start == 0 ? 0 : start - 1; i < text.size(); ++i) {
    if ((text[i] == c) == equal) {
      return static_cast<unsigned>(i + 1);
    }
  }
  return 0;
}

template <class T>
unsigned lastPosition(const std::vector<T>& text, T c, bool equal, unsigned start) {
  for (std::size_t i = std::min<std::size_t>(start, text.size()); i != 0; --i) {
    if ((text[i - 1] == c) == equal) {
      return static_cast<unsigned>(i);
    }
  }
  return 0;
}

TYPED_TEST(StringBufferTest, SearchesForOneElementAgreeWithAScanAtEveryLengthAndPlace) {
  using T = TypeParam;
  const T c = static_cast<T>(0xE9);
  const T other = 'o';
  for (unsigned length = 0; length <= 70; ++length) {
    for (unsigned place = 0; place <= length; ++place) {
      // One `c` among others, and one other among `c`; none at all when `place` is the end.
      std::vector<T> one(length, other);
      std::vector<T> allButOne(length, c);
      if (place < length) {
        one[place] = c;
        allButOne[place] = other;
      }
      const StringBuffer<T> a = make(one);
      const StringBuffer<T> b = make(allButOne);
      for (const unsigned start : {0U, 1U, 2U, place, place + 1, place + 2, length, length + 1}) {
        ASSERT_EQ(a.indexOf(c, start), firstPosition(one, c, true, start)) << length << start;
        ASSERT_EQ(b.indexOfAnyBut(c, start), firstPosition(allButOne, c, false, start))
            << length << ' ' << place << ' ' << start;
        ASSERT_EQ(a.lastIndexOf(c, start), lastPosition(one, c, true, start))
            << length << ' ' << place << ' ' << start;
        ASSERT_EQ(b.lastIndexOfAnyBut(c, start), lastPosition(allButOne, c, false, start))
            << length << ' ' << place << ' ' << start;
      }
    }
  }
}

TEST(WideStringBuffer, SearchesCompareWholeElements) {
  // Values that share bytes with what is sought, but at other places.
  const std::vector<wchar_t> text = {0x6100, 0x610000, 0x61000000, 0x161, 0x61};
  const StringBuffer<wchar_t> s = make(text);
  EXPECT_EQ(s.indexOf(L'\x61'), 5U);
  EXPECT_EQ(s.lastIndexOf(L'\x61', 4), 0U);
  EXPECT_EQ(s.indexOf(make(std::vector<wchar_t>{0x61})), 5U);
  // The bytes of the pattern stand in the text, but not on the border of an element.
  EXPECT_EQ(make(std::vector<wchar_t>{0x01000000, 0x02000000, 0})
                .indexOf(make(std::vector<wchar_t>{0x01, 0x02})),
            0U);
}

TYPED_TEST(StringBufferTest, PatternIsFoundAtOrBehindTheStart) {
  using T = TypeParam;
  const StringBuffer<T> s = make<T>("banana");
  const StringBuffer<T> pattern = make<T>("ana");
  EXPECT_EQ(s.indexOf(pattern), 2U);
  EXPECT_EQ(s.indexOf(pattern, 0), 2U);
  EXPECT_EQ(s.indexOf(pattern, 2), 2U);
  EXPECT_EQ(s.indexOf(pattern, 3), 4U);
  EXPECT_EQ(s.indexOf(pattern, 4), 4U);
  EXPECT_EQ(s.indexOf(pattern, 5), 0U);
  EXPECT_EQ(s.indexOf(pattern, maximum), 0U);
  EXPECT_EQ(s.indexOf(s), 1U);
  EXPECT_EQ(s.indexOf(make<T>("bananas")), 0U);
  EXPECT_EQ(s.indexOf(make<T>("bananas"), maximum), 0U);
  EXPECT_EQ(s.indexOf(make<T>("nb")), 0U);
}

TYPED_TEST(StringBufferTest, EmptyPatternMatchesAtTheStart) {
  using T = TypeParam;
  const StringBuffer<T> s = make<T>("abc");
  const StringBuffer<T> nothing;
  EXPECT_EQ(s.indexOf(nothing), 1U);
  EXPECT_EQ(s.indexOf(nothing, 0), 1U);
  EXPECT_EQ(s.indexOf(nothing, 3), 3U);
  EXPECT_EQ(s.indexOf(nothing, 4), 4U);
  EXPECT_EQ(s.indexOf(nothing, 5), 0U);
  EXPECT_EQ(nothing.indexOf(nothing), 1U);
  EXPECT_EQ(nothing.indexOf(s), 0U);
}

class Random {
 public:
  explicit Random(unsigned seed) : engine_(seed) {}
  // A number below `bound`.
  unsigned operator()(unsigned bound) { return static_cast<unsigned>(engine_() % bound); }

 private:
  std::mt19937 engine_;
};

template <class T>
std::vector<T> randomText(Random& random, unsigned length, unsigned alphabet) {
  std::vector<T> text;
  for (unsigned i = 0; i < length; ++i) {
    text.push_back(static_cast<T>("\xE9zab\0"[random(alphabet)]));
  }
  return text;
}

TYPED_TEST(StringBufferTest, PatternSearchAgreesWithAScan) {
  using T = TypeParam;
  Random random(20);
  for (unsigned round = 0; round < 4000; ++round) {
    const std::vector<T> text = randomText<T>(random, random(90), 2 + random(4));
    const std::vector<T> pattern = randomText<T>(random, 1 + random(6), 2 + random(2));
    const unsigned start = random(100);
    const unsigned skipped = start == 0 ? 0 : start - 1;
    unsigned expected = 0;
    if (skipped <= text.size()) {
      const auto found =
          std::search(text.begin() + skipped, text.end(), pattern.begin(), pattern.end());
      expected = found == text.end() ? 0 : static_cast<unsigned>(found - text.begin()) + 1;
    }
    ASSERT_EQ(make(text).indexOf(make(pattern), start), expected) << round;
  }
}

TYPED_TEST(StringBufferTest, PatternIsFoundBehindThousandsOfNearMatches) {
  using T = TypeParam;
  std::string text(5000, 'a');
  const StringBuffer<T> pattern = make<T>("aba");
  EXPECT_EQ(make<T>(text).indexOf(pattern), 0U);
  text += "ba";
  EXPECT_EQ(make<T>(text).indexOf(pattern), 5000U);
}

TYPED_TEST(StringBufferTest, OccurrencesDoNotOverlap) {
  using T = TypeParam;
  const StringBuffer<T> s = make<T>("aaaaa");
  const StringBuffer<T> aa = make<T>("aa");
  EXPECT_EQ(s.occurrencesOf(aa), 2U);
  EXPECT_EQ(s.occurrencesOf(aa, 0), 2U);
  EXPECT_EQ(s.occurrencesOf(aa, 2), 2U);
  EXPECT_EQ(s.occurrencesOf(aa, 3), 1U);
  EXPECT_EQ(s.occurrencesOf(aa, 4), 1U);
  EXPECT_EQ(s.occurrencesOf(aa, 5), 0U);
  EXPECT_EQ(s.occurrencesOf(aa, 6), 0U);
  EXPECT_EQ(s.occurrencesOf(aa, maximum), 0U);
  EXPECT_EQ(s.occurrencesOf(make<T>("aaaaaa")), 0U);
  EXPECT_EQ(s.occurrencesOf(s), 1U);
  EXPECT_EQ(make<T>("banana").occurrencesOf(make<T>("an")), 2U);
  EXPECT_EQ(make<T>("banana").occurrencesOf(make<T>("ana")), 1U);
}

TYPED_TEST(StringBufferTest, NothingOccursNowhere) {
  using T = TypeParam;
  EXPECT_EQ(make<T>("abc").occurrencesOf(StringBuffer<T>()), 0U);
  EXPECT_EQ(StringBuffer<T>().occurrencesOf(StringBuffer<T>()), 0U);
  EXPECT_EQ(StringBuffer<T>().occurrencesOf(make<T>("a")), 0U);
}

TYPED_TEST(StringBufferTest, EqualityLooksAtLengthAndContents) {
  using T = TypeParam;
  EXPECT_TRUE(make<T>("abc") == make<T>("abc"));
  EXPECT_FALSE(make<T>("abc") != make<T>("abc"));
  EXPECT_FALSE(make<T>("abc") == make<T>("abd"));
  EXPECT_TRUE(make<T>("abc") != make<T>("abd"));
  EXPECT_FALSE(make<T>("abc") == make<T>("ab"));
  EXPECT_TRUE(make<T>("ab") != make<T>("abc"));
  EXPECT_TRUE(StringBuffer<T>() == StringBuffer<T>());
  EXPECT_FALSE(StringBuffer<T>() == make<T>("a"));
}

TYPED_TEST(StringBufferTest, OrderLooksAtTheCommonLengthOnly) {
  using T = TypeParam;
  const StringBuffer<T> ab = make<T>("ab");
  const StringBuffer<T> abc = make<T>("abc");
  const StringBuffer<T> abd = make<T>("abd");
  EXPECT_FALSE(ab < abc);
  EXPECT_FALSE(ab > abc);
  EXPECT_FALSE(abc < ab);
  EXPECT_FALSE(abc > ab);
  EXPECT_TRUE(abd > abc);
  EXPECT_FALSE(abd < abc);
  EXPECT_TRUE(abc < abd);
  EXPECT_FALSE(StringBuffer<T>() < abc);
  EXPECT_FALSE(StringBuffer<T>() > abc);
  EXPECT_TRUE(make<T>("b") > make<T>("azz"));
}

TEST(ByteStringBuffer, OrderIsThatOfUnsignedBytes) {
  EXPECT_TRUE(make(std::vector<char>{'\x80'}) > make(std::vector<char>{'\x7F'}));
  EXPECT_TRUE(make(std::vector<unsigned char>{0x80}) > make(std::vector<unsigned char>{0x7F}));
}

TEST(WideStringBuffer, OrderIsThatOfLittleEndianBytes) {
  EXPECT_TRUE(make(std::vector<wchar_t>{0x0100}) < make(std::vector<wchar_t>{0x0001}));
  EXPECT_TRUE(make(std::vector<wchar_t>{0x01, 0x80}) > make(std::vector<wchar_t>{0x01, 0x7F}));
}

TYPED_TEST(StringBufferTest, ClassificationLooksAtEveryElement) {
  using T = TypeParam;
  for (int value = 0; value < 256; ++value) {
    const T c = static_cast<T>(value);
    const StringBuffer<T> s = make(std::vector<T>{T{'1'}, c, T{'0'}});
    const auto isOneOf = [value](std::string_view set) {
      return value != 0 && set.find(static_cast<char>(value)) != std::string_view::npos;
    };
    EXPECT_EQ(s.isDigits(), isOneOf("0123456789")) << value;
    EXPECT_EQ(s.isHexDigits(), isOneOf("0123456789abcdefABCDEF")) << value;
    EXPECT_EQ(s.isBinaryDigits(), isOneOf("01")) << value;
  }
  EXPECT_FALSE(make<T>("12345x").isDigits());
  EXPECT_FALSE(make<T>("x12345").isDigits());
}

TEST(WideStringBuffer, OnlyAsciiDigitsAreDigits) {
  for (const wchar_t c : {wchar_t{0x130}, wchar_t{0x0660}, wchar_t{0xFF10}, wchar_t{-0xD0}}) {
    const StringBuffer<wchar_t> s = make(std::vector<wchar_t>{c});
    EXPECT_FALSE(s.isDigits());
    EXPECT_FALSE(s.isHexDigits());
    EXPECT_FALSE(s.isBinaryDigits());
  }
}

// The published reference code, in full 64 bits.
std::uint64_t fnv1a(const void* data, std::size_t size) {
  std::uint64_t hash = 0xCBF29CE484222325;
  for (std::size_t i = 0; i < size; ++i) {
    hash = (hash ^ static_cast<const unsigned char*>(data)[i]) * 0x100000001B3;
  }
  return hash;
}

TEST(ByteStringBuffer, HashIsTheLowHalfOfThePublishedFnv1aValues) {
  EXPECT_EQ(make<char>("a").hashValue(), 0x8601EC8CU);       // 0xAF63DC4C8601EC8C
  EXPECT_EQ(make<char>("foobar").hashValue(), 0xF73967E8U);  // 0x85944171F73967E8
}

TYPED_TEST(StringBufferTest, HashesCoverAllBytesOfTheElements) {
  using T = TypeParam;
  std::mt19937 random(7);
  for (unsigned length = 1; length < 50; ++length) {
    std::vector<T> text;
    for (unsigned i = 0; i < length; ++i) {
      text.push_back(static_cast<T>(random()));
    }
    const StringBuffer<T> s = make(text);
    const auto bytes = static_cast<unsigned>(length * sizeof(T));
    EXPECT_EQ(s.hashValue(), static_cast<unsigned>(fnv1a(text.data(), bytes)));
    EXPECT_EQ(s.hashValue8(), crc8(bytes, text.data(), 0U));
  }
}

TYPED_TEST(StringBufferTest, RemoveTakesElementsOut) {
  using T = TypeParam;
  const auto removed = [](unsigned pos, unsigned count) {
    StringBuffer<T> s = make<T>("abcde");
    s.remove(pos, count);
    return asciiOf(s);
  };
  EXPECT_EQ(removed(1, 1), "bcde");
  EXPECT_EQ(removed(2, 3), "ae");
  EXPECT_EQ(removed(2, 4), "a");
  EXPECT_EQ(removed(2, 5), "a");
  EXPECT_EQ(removed(2, maximum - 1), "a");
  EXPECT_EQ(removed(2, maximum), "a");
  EXPECT_EQ(removed(5, 1), "abcd");
  EXPECT_EQ(removed(1, 4), "e");
  EXPECT_EQ(removed(1, 5), "");
  EXPECT_EQ(removed(1, maximum), "");
  EXPECT_EQ(removed(3, 0), "abcde");
  EXPECT_EQ(removed(0, 5), "abcde");
  EXPECT_EQ(removed(0, maximum), "abcde");
  EXPECT_EQ(removed(6, 1), "abcde");
  EXPECT_EQ(removed(6, maximum), "abcde");
  StringBuffer<T> empty;
  empty.remove(1, 1);
  EXPECT_EQ(asciiOf(empty), "");
}

TYPED_TEST(StringBufferTest, ChangeReplacesTheFirstOccurrenceOnly) {
  using T = TypeParam;
  const auto changed = [](std::string_view text, std::string_view from, std::string_view to,
                          unsigned start) {
    StringBuffer<T> s = make<T>(text);
    s.change(make<T>(from), make<T>(to), start);
    return asciiOf(s);
  };
  EXPECT_EQ(changed("banana", "a", "XY", 1), "bXYnana");
  EXPECT_EQ(changed("banana", "a", "XY", 0), "bXYnana");
  EXPECT_EQ(changed("banana", "a", "XY", 3), "banXYna");
  EXPECT_EQ(changed("banana", "a", "XY", 6), "bananXY");
  EXPECT_EQ(changed("banana", "a", "XY", 7), "banana");
  EXPECT_EQ(changed("banana", "x", "XY", 1), "banana");
  EXPECT_EQ(changed("banana", "ana", "", 1), "bna");
  EXPECT_EQ(changed("banana", "banana", "", 1), "");
  EXPECT_EQ(changed("banana", "banana", "kiwi", 1), "kiwi");
  EXPECT_EQ(changed("banana", "bananas", "kiwi", 1), "banana");
  EXPECT_EQ(changed("banana", "", "X", 3), "baXnana");
  EXPECT_EQ(changed("banana", "", "X", 7), "banana");
  EXPECT_EQ(changed("", "", "X", 1), "");
  EXPECT_EQ(changed("", "", "X", 0), "X");
  StringBuffer<T> s = make<T>("cab");
  s.change(make<T>("a"), make<T>("o"));
  EXPECT_EQ(asciiOf(s), "cob");
}

TYPED_TEST(StringBufferTest, ChangeTakesItselfForEitherText) {
  using T = TypeParam;
  StringBuffer<T> s = make<T>("ab");
  s.change(s, s, 1);
  EXPECT_EQ(asciiOf(s), "ab");
  s.change(make<T>("b"), s, 1);
  EXPECT_EQ(asciiOf(s), "aab");
  s.change(s, make<T>("z"), 1);
  EXPECT_EQ(asciiOf(s), "z");
}

TYPED_TEST(StringBufferTest, RightJustifyPutsPadsInFront) {
  using T = TypeParam;
  const auto justified = [](std::string_view text, unsigned width) {
    StringBuffer<T> s = make<T>(text);
    s.rightJustify(width, '0');
    return asciiOf(s);
  };
  EXPECT_EQ(justified("42", 5), "00042");
  EXPECT_EQ(justified("42", 3), "042");
  EXPECT_EQ(justified("42", 2), "42");
  EXPECT_EQ(justified("42", 1), "42");
  EXPECT_EQ(justified("42", 0), "42");
  EXPECT_EQ(justified("123456", 5), "123456");
  EXPECT_EQ(justified("", 3), "000");
  EXPECT_EQ(justified("", 0), "");
}

TYPED_TEST(StringBufferTest, EditsAgreeWithAModel) {
  using T = TypeParam;
  Random random(11);
  std::vector<T> model;
  StringBuffer<T> s;
  for (unsigned round = 0; round < 5000; ++round) {
    const std::vector<T> piece = randomText<T>(random, random(30), 4);
    const auto length = static_cast<unsigned>(model.size());
    const unsigned pos = random(length + 3);
    switch (random(4)) {
      case 0:
        s += make(piece);
        model.insert(model.end(), piece.begin(), piece.end());
        break;
      case 1: {
        const unsigned count = random(40);
        s.remove(pos, count);
        if (pos != 0 && pos <= length) {
          const auto from = model.begin() + pos - 1;
          model.erase(from, from + std::min(count, length - pos + 1));
        }
        break;
      }
      case 2: {
        const std::vector<T> from = randomText<T>(random, 1 + random(2), 3);
        s.change(make(from), make(piece), pos);
        if (length >= pos) {
          const auto found = std::search(model.begin() + (pos == 0 ? 0 : pos - 1), model.end(),
                                         from.begin(), from.end());
          if (found != model.end()) {
            const auto behind = model.erase(found, found + static_cast<long>(from.size()));
            model.insert(behind, piece.begin(), piece.end());
          }
        }
        break;
      }
      default:
        s.rightJustify(pos, T{'p'});
        if (pos > length) {
          model.insert(model.begin(), pos - length, T{'p'});
        }
    }
    ASSERT_EQ(valuesOf(s), model) << round;
  }
}

TYPED_TEST(StringBufferTest, LengthWhoseBlockCannotBeHadLeavesAnUsableBuffer) {
  using T = TypeParam;
  // The smallest length whose elements and terminator fill 4 GiB.
  constexpr auto tooLong = static_cast<unsigned>((std::uint64_t{1} << 32) / sizeof(T) - 1);
  StringBuffer<T> s = make<T>("abc");
  EXPECT_THROW(s.rightJustify(tooLong, T{'p'}), std::bad_alloc);
  EXPECT_EQ(asciiOf(s), "abc");
  EXPECT_THROW(s.rightJustify(maximum, T{'p'}), std::bad_alloc);
  EXPECT_EQ(asciiOf(s), "abc");
  EXPECT_THROW(s.makeBuffer(tooLong), std::bad_alloc);
  EXPECT_EQ(asciiOf(s), "");
  s += make<T>("abc");
  EXPECT_EQ(asciiOf(s), "abc");
}

TYPED_TEST(StringBufferTest, EditWhoseResultCannotBeHadChangesNothing) {
  using T = TypeParam;
  struct Opened : StringBuffer<T> {
    using StringBuffer<T>::buffer;
    using StringBuffer<T>::len;
  };
  // Two such texts fill 4 GiB without their terminator. Nothing may look at the elements,
  // which are not there.
  constexpr auto half = static_cast<unsigned>((std::uint64_t{1} << 31) / sizeof(T));
  Opened s;
  const T* const before = s.buffer;
  s.len = half;
  EXPECT_THROW(s += s, std::bad_alloc);
  EXPECT_EQ(s.buffer, before);
  EXPECT_EQ(s.len, half);
  s.len = 0;
}

}  // namespace
