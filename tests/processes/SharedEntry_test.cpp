#include "Engine/utilities/SharedEntry.h"

#include <cstdio>
#include <dlfcn.h>
#include <string>
#include <thread>
#include <unistd.h>

#include <gtest/gtest.h>

#include "tests/processes/AbortedProcess.h"
#include "tests/support/Child.h"
#include "tests/support/DeadStandardError.h"
#include "tests/threads/ThreadSupport.h"

namespace {

using Function = int (*)(int);

const std::string folder = CUL_TEST_LIBRARIES;
const std::string entries = folder + "/libentries.so";

constexpr const char* unset = "not touched";

// What the loader itself says.
std::string openingError(const char* path) {
  EXPECT_EQ(dlopen(path, RTLD_NOW), nullptr);
  return dlerror();
}

ChildResult runWithLibraries(const std::string& name) {
  ChildOptions options;
  options.environment["LD_LIBRARY_PATH"] = folder;
  return runChild(name, options);
}

void expectSuccess(const ChildResult& child) {
  EXPECT_EQ(child.status, 0) << child.out << child.err;
  EXPECT_EQ(child.err, "");
}

}  // namespace

CUL_CHILD(FindEntriesByPath) {
  const char* error = unset;
  auto* function =
      reinterpret_cast<Function>(loadSharedEntry(entries.c_str(), "entriesFunction", &error));
  ASSERT_NE(function, nullptr);
  EXPECT_EQ(function(1), 2);
  EXPECT_STREQ(error, "");
  error = unset;
  const auto* number =
      static_cast<const int*>(loadSharedEntry(entries.c_str(), "entriesNumber", &error));
  ASSERT_NE(number, nullptr);
  EXPECT_EQ(*number, 42);
  EXPECT_STREQ(error, "");
  EXPECT_EQ(loadSharedEntry(entries.c_str(), "entriesNumber", nullptr), number);
}

TEST(loadSharedEntry, FindsFunctionsAndDataByThePathOfTheLibrary) {
  expectSuccess(runChild("FindEntriesByPath"));
}

CUL_CHILD(FindEntriesByName) {
  for (const char* member : {"member", "", static_cast<const char*>(nullptr)}) {
    const char* error = unset;
    auto* function =
        reinterpret_cast<Function>(loadSharedEntry("entries", member, "entriesFunction", &error));
    ASSERT_NE(function, nullptr) << error;
    EXPECT_EQ(function(1), 2);
    EXPECT_STREQ(error, "");
  }
  EXPECT_NE(loadSharedEntry("entries", "member", "entriesFunction", nullptr), nullptr);
}

TEST(loadSharedEntry, MakesTheFileNameFromANameAndPaysNoHeedToTheMember) {
  expectSuccess(runWithLibraries("FindEntriesByName"));
}

CUL_CHILD(AbsentName) {
  // Neither "lib" nor ".a" goes away.
  EXPECT_EQ(loadSharedEntry("libabsent.a", "member", "entry", nullptr), nullptr);
  EXPECT_EQ(loadSharedEntry("", "member", "entry", nullptr), nullptr);
}

TEST(loadSharedEntry, PutsLibAndSoAroundWhateverTheNameIs) {
  const ChildResult child = runChild("AbsentName");
  EXPECT_EQ(child.status, 0) << child.out;
  EXPECT_EQ(child.err, openingError("liblibabsent.a.so") + "\n" + openingError("lib.so") + "\n");
}

CUL_CHILD(AbsentLibrary) {
  const char* error = unset;
  EXPECT_EQ(loadSharedEntry("/nowhere/libabsent.so", "entry", &error), nullptr);
  const std::string text = error;
  EXPECT_EQ(text, openingError("/nowhere/libabsent.so"));
  EXPECT_EQ(loadSharedEntry("/nowhere/libabsent.so", "entry", nullptr), nullptr);
  const std::string longName(100000, 'n');
  EXPECT_EQ(loadSharedEntry(longName.c_str(), "member", "entry", nullptr), nullptr);
}

TEST(loadSharedEntry, ReportsALibraryThatCannotBeOpened) {
  const ChildResult child = runChild("AbsentLibrary");
  EXPECT_EQ(child.status, 0) << child.out;
  EXPECT_EQ(child.out, "");
  const std::string text = openingError("/nowhere/libabsent.so") + "\n";
  const std::string longPath = std::string("lib").append(100000, 'n').append(".so");
  EXPECT_EQ(child.err, text + text + openingError(longPath.c_str()) + "\n");
}

CUL_CHILD(AbsentLibraryUnheard) {
  loseReaderOfStandardError();
  EXPECT_EQ(loadSharedEntry("/nowhere/libabsent.so", "entry", nullptr), nullptr);
  const FullStandardError full;
  EXPECT_EQ(loadSharedEntry("/nowhere/libabsent.so", "entry", nullptr), nullptr);
}

TEST(loadSharedEntry, GoesOnWhenNobodyReadsTheReport) {
  const ChildResult child = runChild("AbsentLibraryUnheard");
  EXPECT_EQ(child.status, 0) << child.out;
}

CUL_CHILD(AbsentEntry) {
  EXPECT_EQ(dlopen(entries.c_str(), RTLD_NOW | RTLD_NOLOAD), nullptr);
  const char* error = unset;
  EXPECT_EQ(loadSharedEntry(entries.c_str(), "absent", &error), nullptr);
  EXPECT_EQ(error, entries + ": undefined symbol: absent");
  EXPECT_EQ(loadSharedEntry("entries", "entriesFunction", "absent", nullptr), nullptr);
  EXPECT_NE(dlopen(entries.c_str(), RTLD_NOW | RTLD_NOLOAD), nullptr);
}

TEST(loadSharedEntry, ReportsAMissingEntryAndLeavesTheLibraryOpen) {
  const ChildResult child = runWithLibraries("AbsentEntry");
  EXPECT_EQ(child.status, 0) << child.out;
  EXPECT_EQ(child.out, "");
  const std::string text = entries + ": undefined symbol: absent\n";
  EXPECT_EQ(child.err, text + text);
}

CUL_CHILD(NullEntry) {
  const char* error = unset;
  EXPECT_EQ(loadSharedEntry(entries.c_str(), "entriesNothing", &error), nullptr);
  const std::string text = entries + ": entriesNothing is there, but has no address";
  EXPECT_EQ(error, text);
  std::thread([] {
    // The library's symbols are visible in the whole program by now.
    const char* own = unset;
    EXPECT_EQ(loadSharedEntry(nullptr, "entriesNothing", &own), nullptr);
    EXPECT_STREQ(own, "this program: entriesNothing is there, but has no address");
  }).join();
  EXPECT_EQ(error, text) << "of this thread";
}

TEST(loadSharedEntry, ReportsAnEntryWithoutAnAddressInWordsThatTheLoaderLacks) {
  const ChildResult child = runChild("NullEntry");
  EXPECT_EQ(child.status, 0) << child.out;
  EXPECT_EQ(child.err, entries + ": entriesNothing is there, but has no address\n" +
                           "this program: entriesNothing is there, but has no address\n");
}

CUL_CHILD(LibraryThatNeedsAnother) {
  const char* error = unset;
  // Bound at once: the call that cannot be resolved keeps the library out.
  EXPECT_EQ(loadSharedEntry("needsEntries", "", "needsEntriesFunction", &error), nullptr);
  EXPECT_EQ(error, folder + "/libneedsEntries.so: undefined symbol: entriesFunction");
  EXPECT_NE(loadSharedEntry("entries", "", "entriesFunction", &error), nullptr);
  EXPECT_STREQ(error, "");
  // Its symbols are visible from now on.
  auto* function = reinterpret_cast<Function>(
      loadSharedEntry("needsEntries", "", "needsEntriesFunction", &error));
  ASSERT_NE(function, nullptr) << error;
  EXPECT_EQ(function(1), 20);
}

TEST(loadSharedEntry, BindsAllSymbolsAtOnceAndShowsThemToLibrariesLoadedLater) {
  const ChildResult child = runWithLibraries("LibraryThatNeedsAnother");
  EXPECT_EQ(child.status, 0) << child.out;
  EXPECT_EQ(child.err, folder + "/libneedsEntries.so: undefined symbol: entriesFunction\n");
}

CUL_CHILD(EndWhileFindingAnEntry) {
  runOnThread([] {
    static_cast<void>(loadSharedEntry("endsItsUser", "", "endsItsUserEntry", nullptr));
    for (;;) {
      pause();
    }
  });
  // The dynamic loader is free for others.
  EXPECT_NE(loadSharedEntry("entries", "", "entriesFunction", nullptr), nullptr);
}

TEST(loadSharedEntry, IsNotCutShortByARequestToEndTheThread) {
  for (const char* moment : {"loaded", "looked up"}) {
    expectSuccess(runChild(
        "EndWhileFindingAnEntry",
        endingInHandlerWith(
            {.environment = {{"LD_LIBRARY_PATH", folder}, {"MODULE_ENDS_ITS_USER", moment}}})));
  }
}
