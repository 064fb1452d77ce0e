#include "Engine/utilities/EBCDICtableStore.h"

#include <cstdlib>
#include <string>
#include <string_view>
#include <type_traits>

#include <gtest/gtest.h>

#include "tests/support/Child.h"

/// The store belongs to the process: each test that changes it is a process of its own.

namespace {

using Pairs = List<EBCDICtable::ValuePair>;

// A table of one letter.
Pairs letter(unsigned short ucs, unsigned short ebcdic) {
  Pairs pairs;
  pairs.add({ucs, ebcdic});
  return pairs;
}

EBCDICtableStore& store() { return EBCDICtableStore::instance(); }

// What stands for "a" in a table.
int byteForA(const EBCDICtable* table) { return table->fromUCS(L"a", 1)[1]; }

void expectSuccess(const char* child) {
  const ChildResult r = runChild(child);
  EXPECT_EQ(r.status, 0) << r.out << r.err;
}

}  // namespace

TEST(EBCDICtableStore, IsOneForTheProcess) {
  EXPECT_EQ(&EBCDICtableStore::instance(), &EBCDICtableStore::instance());
  EXPECT_FALSE(std::is_default_constructible_v<EBCDICtableStore>);
  EXPECT_FALSE(std::is_copy_constructible_v<EBCDICtableStore>);
}

TEST(EBCDICtableStore, StartsWithTheBuiltInTable) {
  const EBCDICtable* const builtIn = store().find("VKT-1047");
  ASSERT_NE(builtIn, nullptr);
  EXPECT_EQ(builtIn->getName().view(), "VKT-1047");
  EXPECT_EQ(byteForA(builtIn), 0x81);
}

TEST(EBCDICtableStore, FindsTheBuiltInTableWithoutAName) {
  EXPECT_EQ(store().find(nullptr), store().find("VKT-1047"));
  EXPECT_EQ(store().find(""), store().find("VKT-1047"));
}

TEST(EBCDICtableStore, FindsNoTableOfAnotherName) {
  EXPECT_EQ(store().find("VKT-104"), nullptr);
  EXPECT_EQ(store().find("VKT-10470"), nullptr);
  EXPECT_EQ(store().find("vkt-1047"), nullptr);
  EXPECT_EQ(store().find(" VKT-1047"), nullptr);
}

CUL_CHILD(StoreKeepsTables) {
  EBCDICtable* const one = store().add(letter('a', 0x11), "one");
  EBCDICtable* const two = store().add(letter('a', 0x12), "two");
  ASSERT_NE(one, nullptr);
  ASSERT_NE(two, nullptr);
  EXPECT_NE(one, two);
  EXPECT_EQ(store().find("one"), one);
  EXPECT_EQ(store().find("two"), two);
  EXPECT_EQ(byteForA(one), 0x11);
  EXPECT_EQ(byteForA(two), 0x12);
  EXPECT_EQ(two->getName().view(), "two");
  EXPECT_EQ(byteForA(store().find(nullptr)), 0x81);
}

TEST(EBCDICtableStore, KeepsTables) { expectSuccess("StoreKeepsTables"); }

CUL_CHILD(StoreReplacesATableOfTheSameName) {
  store().add(letter('a', 0x11), "one");
  EBCDICtable* const two = store().add(letter('a', 0x12), "two");
  EBCDICtable* const replaced = store().add(letter('a', 0x21), "one");
  EXPECT_EQ(store().find("one"), replaced);
  EXPECT_EQ(byteForA(replaced), 0x21);
  EXPECT_EQ(store().find("two"), two) << "the others stay";
  store().remove("one");
  EXPECT_EQ(store().find("one"), nullptr) << "there was but one";
  EXPECT_EQ(store().find("two"), two);
}

TEST(EBCDICtableStore, ReplacesATableOfTheSameName) {
  expectSuccess("StoreReplacesATableOfTheSameName");
}

CUL_CHILD(StoreTakesTheNameOfItsOwnTable) {
  EBCDICtable* const one = store().add(letter('a', 0x11), "a name that is not short");
  EBCDICtable* const replaced = store().add(letter('a', 0x21), one->getName().view().data());
  EXPECT_EQ(byteForA(replaced), 0x21);
  EXPECT_EQ(store().find("a name that is not short"), replaced);
  store().remove(replaced->getName().view().data());
  EXPECT_EQ(store().find("a name that is not short"), nullptr);
}

TEST(EBCDICtableStore, TakesTheNameOfItsOwnTable) {
  expectSuccess("StoreTakesTheNameOfItsOwnTable");
}

CUL_CHILD(StoreNeverReplacesTheBuiltInTable) {
  EBCDICtable* const builtIn = store().find(nullptr);
  EXPECT_EQ(store().add(letter('a', 0x11), "VKT-1047"), builtIn);
  EXPECT_EQ(byteForA(builtIn), 0x81);
  store().add(letter('a', 0x12), "two");
  EXPECT_EQ(store().add(letter('a', 0x11), "VKT-1047"), builtIn);
  EXPECT_EQ(byteForA(store().find("VKT-1047")), 0x81);
}

TEST(EBCDICtableStore, NeverReplacesTheBuiltInTable) {
  expectSuccess("StoreNeverReplacesTheBuiltInTable");
}

CUL_CHILD(StoreNeverRemovesTheBuiltInTable) {
  EBCDICtable* const builtIn = store().find(nullptr);
  EBCDICtable* const two = store().add(letter('a', 0x12), "two");
  for (const char* name : {"VKT-1047", "", static_cast<const char*>(nullptr)}) {
    store().remove(name);
    EXPECT_EQ(store().find("VKT-1047"), builtIn);
    EXPECT_EQ(store().find("two"), two);
  }
  EXPECT_EQ(byteForA(builtIn), 0x81);
}

TEST(EBCDICtableStore, NeverRemovesTheBuiltInTable) {
  expectSuccess("StoreNeverRemovesTheBuiltInTable");
}

CUL_CHILD(StoreRemovesTables) {
  store().add(letter('a', 0x11), "one");
  EBCDICtable* const two = store().add(letter('a', 0x12), "two");
  store().remove("three");
  EXPECT_EQ(store().find("two"), two);
  store().remove("one");
  EXPECT_EQ(store().find("one"), nullptr);
  EXPECT_EQ(store().find("two"), two);
  store().remove("one");
  EXPECT_EQ(byteForA(store().add(letter('a', 0x31), "one")), 0x31);
  store().remove("two");
  EXPECT_EQ(store().find("two"), nullptr);
  EXPECT_EQ(byteForA(store().find("one")), 0x31);
}

TEST(EBCDICtableStore, RemovesTables) { expectSuccess("StoreRemovesTables"); }

CUL_CHILD(StoreTakesNoTableWithoutAName) {
  EXPECT_EQ(store().add(letter('a', 0x11), nullptr), nullptr);
  EXPECT_EQ(store().add(letter('a', 0x11), ""), nullptr);
  EXPECT_EQ(byteForA(store().find("")), 0x81);
}

TEST(EBCDICtableStore, TakesNoTableWithoutAName) { expectSuccess("StoreTakesNoTableWithoutAName"); }

CUL_CHILD(StoreKeepsManyTables) {
  for (int i = 0; i < 300; ++i) {
    store().add(letter('a', static_cast<unsigned short>(i % 200)), std::to_string(i).c_str());
  }
  for (int i = 0; i < 300; ++i) {
    EXPECT_EQ(byteForA(store().find(std::to_string(i).c_str())), i % 200) << i;
  }
}

TEST(EBCDICtableStore, KeepsManyTables) { expectSuccess("StoreKeepsManyTables"); }

CUL_CHILD(StoreOutlivesTheProgram) {
  store().add(letter('a', 0x11), "one");
  std::atexit([] {
    // The status says whether it is still there.
    if (byteForA(store().find("one")) == 0x11) {
      std::_Exit(7);
    }
  });
}

TEST(EBCDICtableStore, OutlivesTheProgram) {
  EXPECT_EQ(runChild("StoreOutlivesTheProgram").status, 7);
}
