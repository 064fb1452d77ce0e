#include "Engine/utilities/SearchList_HashTable.h"

#include <climits>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include "Engine/utilities/Properties.h"

#include "tests/memory/ListHeapSupport.h"
#include "tests/support/PlainText.h"

namespace {

using Element = Properties::HashElement;
using Table = Properties::Table;
using TableCursor = Properties::TableCursor;

Element entry(std::string_view key, std::string_view value = "") {
  return {encoded(key), encoded(value)};
}

// Written anew from the published description of the 64-bit FNV-1a hash.
unsigned hashOf(std::string_view s) {
  std::uint64_t hash = 14695981039346656037U;
  for (const char c : s) {
    hash ^= static_cast<unsigned char>(c);
    hash *= 1099511628211U;
  }
  return static_cast<unsigned>(hash & 0xFFFFFFFF);
}

std::vector<std::string> keysForward(Table& table) {
  std::vector<std::string> keys;
  TableCursor cursor(table);
  for (bool any = cursor.first(); any; any = cursor.next()) {
    keys.push_back(std::string(cursor.element()->key.view()));
  }
  return keys;
}

std::vector<std::string> keysBackward(Table& table) {
  std::vector<std::string> keys;
  TableCursor cursor(table);
  for (bool any = cursor.last(); any; any = cursor.previous()) {
    keys.push_back(std::string(cursor.element()->key.view()));
  }
  return keys;
}

// What the walk over a table of `buckets` must give when the keys were added in their order.
std::vector<std::string> inTableOrder(const std::vector<std::string>& added, unsigned buckets) {
  std::vector<std::string> keys;
  for (unsigned bucket = 0; bucket < buckets; ++bucket) {
    for (auto key = added.rbegin(); key != added.rend(); ++key) {
      if (hashOf(*key) % buckets == bucket) {
        keys.push_back(*key);
      }
    }
  }
  return keys;
}

std::vector<std::string> numberedKeys(unsigned count) {
  std::vector<std::string> keys;
  for (unsigned i = 0; i < count; ++i) {
    keys.push_back("key" + std::to_string(i));
  }
  return keys;
}

void addAll(Table& table, const std::vector<std::string>& keys) {
  for (const std::string& key : keys) {
    ASSERT_TRUE(table.add(entry(key)));
  }
}

// Shows the stamp.
class StampedTable : public Table {
 public:
  using SearchList<Element, EncodedString>::stamp_;
  using Table::Table;
};

constexpr size_t nodeSize = 64;  // A link, a pointer to virtual operations, two texts of 24.

}  // namespace

TEST(SearchList_HashTable, FindsWhatWasAdded) {
  Table table(3, 2, 0, nullptr);
  EXPECT_TRUE(table.isEmpty());
  const std::vector<std::string> keys = numberedKeys(20);
  for (const std::string& key : keys) {
    EXPECT_EQ(table.find(encoded(key)), nullptr);
    EXPECT_TRUE(table.add(entry(key, "value of " + key)));
  }
  EXPECT_EQ(table.count(), 20U);
  EXPECT_FALSE(table.isEmpty());
  for (const std::string& key : keys) {
    Element* const found = table.find(encoded(key));
    ASSERT_NE(found, nullptr);
    EXPECT_EQ(found->key.view(), key);
    EXPECT_EQ(found->value.view(), "value of " + key);
  }
  EXPECT_EQ(table.find(encoded("key20")), nullptr);
}

TEST(SearchList_HashTable, HasTheEmptyKeyAndKeysWithZeroBytes) {
  Table table(3, 2, 0, nullptr);
  EXPECT_TRUE(table.add(entry("", "empty")));
  EXPECT_TRUE(table.add(entry(std::string_view("\0", 1), "zero")));
  EXPECT_TRUE(table.add(entry(std::string_view("\0a", 2), "more")));
  EXPECT_EQ(table.find(encoded(""))->value.view(), "empty");
  EXPECT_EQ(table.find(encoded(std::string_view("\0", 1)))->value.view(), "zero");
  EXPECT_EQ(table.find(encoded(std::string_view("\0a", 2)))->value.view(), "more");
}

TEST(SearchList_HashTable, KeepsTheFirstOfTwoElementsWithTheSameUniqueKey) {
  Table table(3, 2, 0, nullptr);
  EXPECT_TRUE(table.add(entry("a", "1")));
  EXPECT_TRUE(table.add(entry("b", "2")));
  EXPECT_FALSE(table.add(entry("a", "3")));
  EXPECT_EQ(table.count(), 2U);
  // The cursor has moved to the one that is there.
  EXPECT_EQ(table.cursor().element()->value.view(), "1");
}

TEST(SearchList_HashTable, KeepsDuplicatesWhenAskedToAndFindsTheLastOneFirst) {
  for (const int allowed : {1, -1}) {
    Table table(3, 2, allowed, nullptr);
    for (const char* const value : {"1", "2", "3"}) {
      EXPECT_TRUE(table.add(entry("a", value)));
    }
    EXPECT_EQ(table.count(), 3U);
    EXPECT_EQ(table.find(encoded("a"))->value.view(), "3");
    EXPECT_TRUE(table.remove(encoded("a")));
    EXPECT_EQ(table.find(encoded("a"))->value.view(), "2");
    EXPECT_TRUE(table.add(*table.find(encoded("a"))));
    EXPECT_EQ(table.count(), 3U);
  }
}

TEST(SearchList_HashTable, VisitsBucketsInOrderAndInEachTheElementAddedLastFirst) {
  // From the table of test vectors that Fowler, Noll and Vo publish.
  ASSERT_EQ(hashOf(""), 0x84222325);
  ASSERT_EQ(hashOf("a"), 0x8601EC8C);
  ASSERT_EQ(hashOf("foobar"), 0xF73967E8);
  const std::vector<std::string> keys = numberedKeys(100);
  for (const unsigned buckets : {1U, 2U, 3U, 17U, 257U, 4001U}) {
    Table table(buckets, 7, 0, nullptr);
    addAll(table, keys);
    std::vector<std::string> expected = inTableOrder(keys, buckets);
    EXPECT_EQ(keysForward(table), expected) << buckets;
    EXPECT_EQ(keysBackward(table), std::vector<std::string>(expected.rbegin(), expected.rend()))
        << buckets;
  }
}

TEST(SearchList_HashTable, HasAtLeastOneBucket) {
  RecordingHeap heap;
  Table table(0, 7, 0, &heap);
  addAll(table, numberedKeys(3));
  EXPECT_EQ(heap.sizes, (std::vector<size_t>{8, 7 * nodeSize + 8}));
  EXPECT_EQ(keysForward(table), (std::vector<std::string>{"key2", "key1", "key0"}));
}

TEST(SearchList_HashTable, TakesBucketsAndBlocksWhenTheyAreNeededAndKeepsThem) {
  RecordingHeap heap;
  {
    Table table(257, 2, 0, &heap);
    EXPECT_EQ(table.find(encoded("a")), nullptr);
    EXPECT_FALSE(table.remove(encoded("a")));
    table.removeAll();
    EXPECT_TRUE(heap.sizes.empty());
    addAll(table, numberedKeys(1));
    const std::vector<size_t> sizes = {size_t{257} * 8, 2 * nodeSize + 8};
    EXPECT_EQ(heap.sizes, sizes);
    addAll(table, {"second", "third"});
    EXPECT_EQ(heap.sizes.size(), 3U);
    table.removeAll();
    addAll(table, {"1", "2", "3", "4"});
    EXPECT_EQ(heap.sizes.size(), 3U);
    EXPECT_EQ(heap.live.size(), 3U);
  }
  EXPECT_TRUE(heap.live.empty());
}

TEST(SearchList_HashTable, PutsOneTo65535ElementsIntoABlock) {
  for (const auto& [asked, taken] :
       std::vector<std::pair<unsigned, size_t>>{{0, 1}, {65535, 65535}, {65536, 65535}}) {
    RecordingHeap heap;
    Table table(1, asked, 0, &heap);
    addAll(table, {"a"});
    ASSERT_EQ(heap.sizes.size(), 2U);
    EXPECT_EQ(heap.sizes[1], taken * nodeSize + 8) << asked;
  }
}

TEST(SearchList_HashTable, GivesStorageOutAgainLastFirst) {
  Table table(1, 8, 0, nullptr);
  addAll(table, {"a", "b", "c"});
  Element* const a = table.find(encoded("a"));
  Element* const b = table.find(encoded("b"));
  Element* const c = table.find(encoded("c"));
  table.removeAll();
  // The chain was c, b, a, so that a was given back last.
  addAll(table, {"x", "y", "z"});
  EXPECT_EQ(table.find(encoded("x")), a);
  EXPECT_EQ(table.find(encoded("y")), b);
  EXPECT_EQ(table.find(encoded("z")), c);
}

TEST(SearchList_HashTable, RemovesByKey) {
  const std::vector<std::string> keys = numberedKeys(30);
  Table table(3, 4, 0, nullptr);
  addAll(table, keys);
  std::vector<std::string> left = keys;
  EXPECT_FALSE(table.remove(encoded("none")));
  // Heads, tails and what is between.
  while (!left.empty()) {
    const size_t which = left.size() * 2 / 3;
    EXPECT_TRUE(table.remove(encoded(left[which])));
    EXPECT_FALSE(table.remove(encoded(left[which])));
    left.erase(left.begin() + static_cast<std::ptrdiff_t>(which));
    EXPECT_EQ(table.count(), left.size());
    EXPECT_EQ(keysForward(table), inTableOrder(left, 3));
  }
}

TEST(SearchList_HashTable, RemovesByAKeyThatIsPartOfTheElement) {
  Table table(3, 4, 0, nullptr);
  addAll(table, {"a key that does not fit into a small block of the pool of strings, by far"});
  TableCursor cursor(table);
  ASSERT_TRUE(cursor.first());
  EXPECT_TRUE(table.remove(cursor.element()->key));
  EXPECT_TRUE(table.isEmpty());
}

TEST(SearchList_HashTable, RemovesWhatACursorStandsOn) {
  const std::vector<std::string> keys = numberedKeys(30);
  Table table(3, 4, 0, nullptr);
  addAll(table, keys);
  TableCursor cursor(table);
  unsigned left = 30;
  for (bool any = cursor.first(); any; --left) {
    ASSERT_EQ(table.count(), left);
    const std::string key(cursor.element()->key.view());
    TableCursor removed = cursor;
    any = cursor.next();
    EXPECT_TRUE(table.remove(removed));
    EXPECT_EQ(removed.element(), nullptr);
    EXPECT_FALSE(table.remove(removed));
    EXPECT_EQ(table.find(encoded(key)), nullptr);
  }
  EXPECT_EQ(left, 0U);
  EXPECT_TRUE(table.isEmpty());
}

TEST(SearchList_HashTable, RemovesOneOfTheDuplicatesByCursor) {
  Table table(1, 4, 1, nullptr);
  for (const char* const value : {"1", "2", "3"}) {
    table.add(entry("a", value));
  }
  TableCursor cursor(table);
  ASSERT_TRUE(cursor.first() && cursor.next());
  EXPECT_EQ(cursor.element()->value.view(), "2");
  EXPECT_TRUE(table.remove(cursor));
  ASSERT_TRUE(cursor.first());
  EXPECT_EQ(cursor.element()->value.view(), "3");
  ASSERT_TRUE(cursor.next());
  EXPECT_EQ(cursor.element()->value.view(), "1");
}

TEST(SearchList_HashTable, RemovesWhatItsOwnCursorStandsOn) {
  Table table(3, 4, 0, nullptr);
  addAll(table, {"a", "b"});
  EXPECT_TRUE(table.remove(table.cursor()));
  EXPECT_EQ(keysForward(table), std::vector<std::string>{"a"});
  EXPECT_EQ(table.cursor().element(), nullptr);
  EXPECT_FALSE(table.remove(table.cursor()));
  // Also when new elements take the place of the removed one.
  addAll(table, {"b"});
  EXPECT_TRUE(table.remove(encoded("b")));
  EXPECT_EQ(table.cursor().element(), nullptr);
}

TEST(SearchList_HashTable, RemovesNothingForACursorOfAnotherTable) {
  Table table(3, 4, 0, nullptr);
  Table other(3, 4, 0, nullptr);
  addAll(table, {"a"});
  EXPECT_FALSE(other.remove(table.cursor()));
  addAll(other, {"a"});
  EXPECT_FALSE(other.remove(table.cursor()));
  EXPECT_EQ(table.count(), 1U);
  EXPECT_EQ(other.count(), 1U);
  EXPECT_NE(table.cursor().element(), nullptr);
}

TEST(SearchList_HashTable, MarksWhatWasFoundOrAddedLast) {
  Table table(3, 4, 0, nullptr);
  EXPECT_EQ(table.cursor().element(), nullptr);
  addAll(table, {"a", "b", "c"});
  EXPECT_EQ(table.cursor().element()->key.view(), "c");
  Element* const a = table.find(encoded("a"));
  EXPECT_EQ(table.cursor().element(), a);
  EXPECT_EQ(table.find(encoded("none")), nullptr);
  EXPECT_EQ(table.cursor().element()->key.view(), "a");
  EXPECT_TRUE(table.remove(encoded("b")));
  EXPECT_EQ(table.cursor().element()->key.view(), "a");
  EXPECT_TRUE(table.remove(encoded("a")));
  EXPECT_EQ(table.cursor().element(), nullptr);
}

TEST(SearchList_HashTable, LooksKeysUpThroughAFindThatMayBeReplaced) {
  class Knowing : public Table {
   public:
    using Table::Table;
    Element* find(const EncodedString& key) override {
      return key.view() == "known" ? &known_ : Table::find(key);
    }

   private:
    Element known_ = entry("known");
  };
  Knowing table(3, 4, 0, nullptr);
  EXPECT_FALSE(table.add(entry("known")));
  EXPECT_TRUE(table.add(entry("unknown")));
  EXPECT_EQ(table.count(), 1U);
  Knowing withDuplicates(3, 4, 1, nullptr);
  EXPECT_TRUE(withDuplicates.add(entry("known")));
}

TEST(SearchList_HashTable, StampsItsBucketsAndEachRemovalOfAll) {
  StampedTable table(3, 4, 0, nullptr);
  EXPECT_EQ(table.stamp_, 0);
  EXPECT_EQ(table.find(encoded("a")), nullptr);
  EXPECT_EQ(table.stamp_, 0);
  addAll(table, {"a"});
  EXPECT_EQ(table.stamp_, 1);
  addAll(table, {"b", "c"});
  EXPECT_TRUE(table.remove(encoded("b")));
  EXPECT_TRUE(table.remove(table.cursor()));
  EXPECT_EQ(table.stamp_, 1);
  table.removeAll();
  EXPECT_EQ(table.stamp_, 2);
  table.removeAll();
  EXPECT_EQ(table.stamp_, 3);
  addAll(table, {"a"});
  EXPECT_EQ(table.stamp_, 3);
}

TEST(SearchList_HashTable, RestartsItsStampsAtOne) {
  StampedTable table(3, 4, 0, nullptr);
  addAll(table, {"a"});
  table.stamp_ = INT_MAX - 1;
  table.removeAll();
  EXPECT_EQ(table.stamp_, INT_MAX);
  addAll(table, {"a"});
  TableCursor cursor(table);
  ASSERT_TRUE(cursor.first());
  table.removeAll();
  EXPECT_EQ(table.stamp_, 1);
  EXPECT_EQ(cursor.element(), nullptr);
  EXPECT_FALSE(cursor.next());
}

TEST(SearchList_HashTable, IsWholeAfterRunningOutOfMemoryForItsBuckets) {
  RecordingHeap heap;
  heap.requestsLeft = 0;
  Table table(3, 1, 0, &heap);
  EXPECT_THROW(table.add(entry("a")), std::bad_alloc);
  EXPECT_TRUE(table.isEmpty());
  EXPECT_EQ(table.find(encoded("a")), nullptr);
  EXPECT_EQ(table.cursor().element(), nullptr);
  heap.requestsLeft = 10;
  EXPECT_TRUE(table.add(entry("a")));
  EXPECT_NE(table.find(encoded("a")), nullptr);
}

TEST(SearchList_HashTable, IsWholeAfterRunningOutOfMemoryForABlock) {
  for (const unsigned before : {0U, 1U}) {
    RecordingHeap heap;
    Table table(3, 1, 0, &heap);
    heap.requestsLeft = 1 + before;
    addAll(table, numberedKeys(before));
    EXPECT_THROW(table.add(entry("a")), std::bad_alloc);
    EXPECT_EQ(table.count(), before);
    EXPECT_EQ(table.find(encoded("a")), nullptr);
    EXPECT_EQ(keysForward(table), numberedKeys(before));
    heap.requestsLeft = 1;
    EXPECT_TRUE(table.add(entry("a")));
    EXPECT_EQ(table.count(), before + 1);
  }
}

namespace {

// An element of a user's own, which counts its objects and throws when one is copied too many.
struct Fragile {
  EncodedString key;

  explicit Fragile(std::string_view name) : key(encoded(name)) { ++objects; }
  Fragile(const Fragile& other) : key(other.key) {
    if (copiesLeft == 0) {
      throw std::runtime_error("no more copies");
    }
    --copiesLeft;
    ++objects;
  }
  Fragile& operator=(const Fragile&) = delete;
  ~Fragile() { --objects; }

  static inline unsigned copiesLeft = UINT_MAX;
  static inline int objects = 0;
};

}  // namespace

TEST(SearchList_HashTable, IsWholeAfterACopyThatFailed) {
  RecordingHeap heap;
  SearchList_HashTable<Fragile, EncodedString> table(3, 1, 0, &heap);
  Fragile::copiesLeft = 1;
  EXPECT_TRUE(table.add(Fragile("a")));
  EXPECT_THROW(table.add(Fragile("b")), std::runtime_error);
  EXPECT_EQ(table.count(), 1U);
  EXPECT_EQ(table.find(encoded("b")), nullptr);
  EXPECT_EQ(table.cursor().element()->key.view(), "a");
  // The storage that was meant for it serves the next one.
  const size_t requests = heap.sizes.size();
  Fragile::copiesLeft = UINT_MAX;
  EXPECT_TRUE(table.add(Fragile("c")));
  EXPECT_EQ(heap.sizes.size(), requests);
}

TEST(SearchList_HashTable, DestroysEachElementOnce) {
  {
    SearchList_HashTable<Fragile, EncodedString> table(3, 4, 1, nullptr);
    for (const std::string& key : numberedKeys(10)) {
      table.add(Fragile(key));
      table.add(Fragile(key));
    }
    EXPECT_EQ(Fragile::objects, 20);
    table.remove(encoded("key3"));
    EXPECT_EQ(Fragile::objects, 19);
    table.remove(table.cursor());
    EXPECT_EQ(Fragile::objects, 18);
    table.removeAll();
    EXPECT_EQ(Fragile::objects, 0);
    table.add(Fragile("a"));
    EXPECT_EQ(Fragile::objects, 1);
  }
  EXPECT_EQ(Fragile::objects, 0);
}

TEST(SearchList_HashTable, AlignsTheNumbersInItsElements) {
  struct Small {
    EncodedString key;
    char tag;
  };
  SearchList_HashTable<Small, EncodedString> table(1, 5, 1, nullptr);
  for (char tag = 'a'; tag < 'a' + 12; ++tag) {
    table.add(Small{encoded("k"), tag});
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(table.cursor().element()) % 8, 0U);
  }
}

TEST(SearchList_HashTable, IsUsedThroughItsBase) {
  std::unique_ptr<SearchList<Element, EncodedString>> list =
      std::make_unique<Table>(3, 4, 0, nullptr);
  EXPECT_TRUE(list->add(entry("a", "1")));
  EXPECT_EQ(list->find(encoded("a"))->value.view(), "1");
  const std::unique_ptr<Cursor<Element, EncodedString>> cursor = list->cursor().clone();
  EXPECT_TRUE(list->remove(*cursor));
  EXPECT_TRUE(list->isEmpty());
  EXPECT_TRUE(list->add(entry("b")));
  EXPECT_TRUE(list->remove(encoded("b")));
  list->removeAll();
  EXPECT_EQ(list->count(), 0U);
}

TEST(SearchList_HashTable, IsNotCopied) {
  static_assert(!std::is_copy_constructible_v<Table> && !std::is_copy_assignable_v<Table>);
  static_assert(!std::is_copy_assignable_v<TableCursor> &&
                std::is_copy_constructible_v<TableCursor>);
  static_assert(std::has_virtual_destructor_v<Element>);
  // The count, the flag and the stamp with the virtual operations; the cursor with them, the
  // table, the element, the bucket, the stamp and the removals; the storage; the buckets.
  EXPECT_EQ(sizeof(Table), 24U + 40U + 32U + 16U);
}

TEST(Cursor_HashTable, StandsNowhereAtFirst) {
  Table table(3, 4, 0, nullptr);
  TableCursor cursor(table);
  for (int round = 0; round < 2; ++round) {
    EXPECT_EQ(cursor.element(), nullptr);
    EXPECT_FALSE(cursor.next());
    EXPECT_FALSE(cursor.previous());
    addAll(table, numberedKeys(round == 0 ? 1 : 0));
  }
}

TEST(Cursor_HashTable, FindsNothingInAnEmptyTable) {
  Table table(3, 4, 0, nullptr);
  TableCursor cursor(table);
  EXPECT_FALSE(cursor.first());
  EXPECT_FALSE(cursor.last());
  addAll(table, {"a"});
  ASSERT_TRUE(cursor.first());
  table.remove(encoded("a"));
  EXPECT_FALSE(cursor.first());
  EXPECT_FALSE(cursor.last());
  EXPECT_EQ(cursor.element(), nullptr);
}

TEST(Cursor_HashTable, StandsNowhereBeyondEitherEnd) {
  Table table(3, 4, 0, nullptr);
  addAll(table, {"a", "b"});
  TableCursor cursor(table);
  ASSERT_TRUE(cursor.last());
  EXPECT_FALSE(cursor.next());
  EXPECT_EQ(cursor.element(), nullptr);
  EXPECT_FALSE(cursor.next());
  EXPECT_FALSE(cursor.previous());
  ASSERT_TRUE(cursor.first());
  EXPECT_FALSE(cursor.previous());
  EXPECT_EQ(cursor.element(), nullptr);
  EXPECT_FALSE(cursor.previous());
  EXPECT_FALSE(cursor.next());
  EXPECT_TRUE(cursor.first());
  cursor.leave();
  EXPECT_EQ(cursor.element(), nullptr);
  EXPECT_FALSE(cursor.next());
}

TEST(Cursor_HashTable, TurnsRound) {
  Table table(2, 4, 0, nullptr);
  addAll(table, numberedKeys(9));
  const std::vector<std::string> order = inTableOrder(numberedKeys(9), 2);
  TableCursor cursor(table);
  for (size_t turn = 1; turn < order.size(); ++turn) {
    ASSERT_TRUE(cursor.first());
    for (size_t i = 0; i < turn; ++i) {
      ASSERT_TRUE(cursor.next());
    }
    EXPECT_EQ(cursor.element()->key.view(), order[turn]);
    ASSERT_TRUE(cursor.previous());
    EXPECT_EQ(cursor.element()->key.view(), order[turn - 1]);
  }
}

TEST(Cursor_HashTable, ReportsNoFurtherElementsAfterTheRemovalOfAll) {
  Table table(3, 4, 0, nullptr);
  addAll(table, numberedKeys(9));
  TableCursor cursor(table);
  TableCursor other(table);
  ASSERT_TRUE(cursor.first() && other.last());
  table.removeAll();
  EXPECT_EQ(cursor.element(), nullptr);
  EXPECT_FALSE(cursor.next());
  EXPECT_FALSE(other.previous());
  EXPECT_EQ(table.cursor().element(), nullptr);
  EXPECT_FALSE(table.remove(cursor));
  // Not even when the same storage is used again.
  addAll(table, numberedKeys(9));
  EXPECT_EQ(cursor.element(), nullptr);
  EXPECT_FALSE(cursor.next());
  EXPECT_EQ(table.count(), 9U);
  EXPECT_TRUE(cursor.first());
}

TEST(Cursor_HashTable, StaysOnItsElementWhenOthersComeAndGo) {
  const std::vector<std::string> keys = numberedKeys(9);
  Table table(2, 4, 0, nullptr);
  addAll(table, keys);
  for (const std::string& key : keys) {
    ASSERT_NE(table.find(encoded(key)), nullptr);
    const TableCursor cursor = table.cursor();
    for (const std::string& other : keys) {
      if (other != key) {
        ASSERT_TRUE(table.remove(encoded(other)));
        EXPECT_EQ(cursor.element()->key.view(), key);
        addAll(table, {other});
        EXPECT_EQ(cursor.element()->key.view(), key);
      }
    }
  }
}

TEST(Cursor_HashTable, StandsNowhereWhenItsElementIsRemoved) {
  for (const unsigned buckets : {1U, 2U, 17U}) {
    const std::vector<std::string> keys = numberedKeys(9);
    for (const std::string& key : keys) {
      Table table(buckets, 4, 0, nullptr);
      addAll(table, keys);
      table.find(encoded(key));
      TableCursor cursor = table.cursor();
      TableCursor other = cursor;
      ASSERT_TRUE(table.remove(encoded(key)));
      EXPECT_EQ(cursor.element(), nullptr);
      EXPECT_FALSE(cursor.next());
      EXPECT_FALSE(other.previous());
      EXPECT_FALSE(table.remove(cursor));
      EXPECT_EQ(table.count(), 8U);
      EXPECT_TRUE(cursor.first());
    }
  }
}

TEST(Cursor_HashTable, StandsOnWhatTakesThePlaceOfItsRemovedElementInTheSameBucketOnly) {
  // Of three buckets, "a" is in the second (0x8601EC8C is 1 modulo 3).
  Table table(3, 4, 0, nullptr);
  std::string same = "b";
  std::string different = "b";
  while (hashOf(same) % 3 != 1) {
    same += "b";
  }
  while (hashOf(different) % 3 == 1) {
    different += "b";
  }
  addAll(table, {"a"});
  const TableCursor cursor = table.cursor();
  Element* const storage = cursor.element();
  table.remove(encoded("a"));
  addAll(table, {different});
  ASSERT_EQ(table.find(encoded(different)), storage);
  EXPECT_EQ(cursor.element(), nullptr);
  table.remove(encoded(different));
  addAll(table, {same});
  ASSERT_EQ(table.find(encoded(same)), storage);
  EXPECT_EQ(cursor.element(), storage);
}

TEST(Cursor_HashTable, IsClonedWithItsPosition) {
  Table table(3, 4, 0, nullptr);
  addAll(table, numberedKeys(9));
  TableCursor cursor(table);
  EXPECT_EQ(cursor.clone()->element(), nullptr);
  ASSERT_TRUE(cursor.first() && cursor.next());
  const std::unique_ptr<Cursor<Element, EncodedString>> clone = cursor.clone();
  EXPECT_EQ(clone->element(), cursor.element());
  Element* const stood = cursor.element();
  ASSERT_TRUE(cursor.next());
  EXPECT_EQ(clone->element(), stood);
  ASSERT_TRUE(clone->next());
  EXPECT_EQ(clone->element(), cursor.element());
}

TEST(Cursor_HashTable, EqualsACursorAtTheSamePlaceOfTheSameTable) {
  Table table(3, 4, 0, nullptr);
  Table otherTable(3, 4, 0, nullptr);
  addAll(table, {"a", "b"});
  TableCursor cursor(table);
  TableCursor other(table);
  const TableCursor elsewhere(otherTable);
  EXPECT_TRUE(cursor == other);
  EXPECT_FALSE(cursor != other);
  EXPECT_FALSE(cursor == elsewhere);
  EXPECT_TRUE(cursor != elsewhere);
  ASSERT_TRUE(cursor.first());
  EXPECT_TRUE(cursor != other);
  ASSERT_TRUE(other.last());
  EXPECT_TRUE(cursor != other);
  ASSERT_TRUE(other.previous());
  EXPECT_TRUE(cursor == other);
  // Both nowhere again, if for different reasons.
  EXPECT_TRUE(table.remove(cursor));
  EXPECT_TRUE(cursor == other);
}
