#include "Engine/utilities/Engine_Loader.h"

#include <algorithm>
#include <cstdlib>
#include <dlfcn.h>
#include <filesystem>
#include <string>
#include <unistd.h>
#include <vector>

#include <gmock/gmock.h>

#include "Engine/utilities/FileName.h"
#include "Engine/utilities/UNIX/UNIX_Engine_Loader.h"

#include "tests/processes/AbortedProcess.h"
#include "tests/support/Child.h"
#include "tests/support/TemporaryFolder.h"
#include "tests/support/TracedChild.h"
#include "tests/threads/ThreadSupport.h"

namespace {

using testing::ElementsAre;

using Function = int (*)(int);

const std::string folder = CUL_TEST_LIBRARIES;
const std::string entries = folder + "/libentries.so";

FileName named(const std::string& name) { return {name.c_str(), EncodedString::utf8}; }

EncodedString encoded(const std::string& text) { return {text.c_str(), EncodedString::utf8}; }

// What the loader itself says.
std::string openingError(const std::string& path) {
  EXPECT_EQ(dlopen(path.c_str(), RTLD_NOW), nullptr);
  return dlerror();
}

void* handleOfLoaded(const std::string& path) {
  return dlopen(path.c_str(), RTLD_NOW | RTLD_NOLOAD);
}

// A line that the engine loader traces.
std::string getModule(unsigned line, const std::string& text) {
  const std::string tag = line == 69 || line == 80 ? "****: " : "**ERROR: ";
  return tag + "void* UNIX_Engine_Loader::get_korv_module(" + std::to_string(line) + "): " + text;
}

std::string noEntry(const std::string& module, const std::string& entry) {
  return "**ERROR: virtual void* UNIX_Engine_Loader::get_procedure_entry(115): Module " + module +
         " loaded, but entry point \"" + entry + "\" not found";
}

std::string firstTry(const std::string& name) {
  const std::string formed = "lib" + name + ".so";
  return getModule(75, "First try - Cannot load debugger engine module " + formed + ". - " +
                           openingError(formed));
}

// The three lines for a module that is not there.
std::vector<std::string> absence(const std::string& name, const std::string& libraryPath) {
  return {firstTry(name),
          getModule(87, "Cannot load debugger engine module " + name + ". - " + openingError(name)),
          getModule(91, "LD_LIBRARY_PATH=" + libraryPath)};
}

// What the engine loader traced, without times and threads.
std::vector<std::string> linesOfTheLoader(const std::string& trace) {
  std::vector<std::string> lines;
  for (size_t start = 0; start < trace.size();) {
    const size_t end = std::min(trace.find('\n', start), trace.size());
    const std::string line = trace.substr(start, end - start);
    const size_t tag = line.find("**");
    if (tag != std::string::npos && line.find("UNIX_Engine_Loader::", tag) != std::string::npos) {
      lines.push_back(line.substr(tag));
    }
    start = end + 1;
  }
  return lines;
}

// Runs a child case that finds its libraries in `libraryPath`.
// Returns what it traced.
std::vector<std::string> tracedBy(const std::string& name, const std::string& libraryPath,
                                  const std::vector<std::string>& arguments = {}) {
  ChildOptions options;
  if (!libraryPath.empty()) {
    options.environment["LD_LIBRARY_PATH"] = libraryPath;
  }
  options.arguments = arguments;
  const TracedChildResult r = runTracedChild(name, options);
  EXPECT_EQ(r.child.status, 0) << r.child.out;
  EXPECT_EQ(r.child.err, "");
  return linesOfTheLoader(r.trace);
}

CUL_CHILD(LoadByShortName) {
  const UNIX_Engine_Loader loader;
  void* const module = loader.get_korv_module(named("entries"));
  ASSERT_NE(module, nullptr);
  EXPECT_EQ(module, handleOfLoaded(entries));
  EXPECT_EQ(loader.get_korv_module(named("entries")), module);
  EXPECT_EQ(loader.get_korv_module(named("entries")), module);
}

TEST(Engine_Loader, LoadsAModuleOnceByTheNameBetweenLibAndSo) {
  EXPECT_THAT(tracedBy("LoadByShortName", folder),
              ElementsAre(getModule(69, "Debugger engine module libentries.so loaded")));
}

CUL_CHILD(LoadByPath) {
  const UNIX_Engine_Loader loader;
  void* const module = loader.get_korv_module(named(entries));
  ASSERT_NE(module, nullptr);
  EXPECT_EQ(module, handleOfLoaded(entries));
  EXPECT_EQ(loader.get_korv_module(named(entries)), module);
}

TEST(Engine_Loader, LoadsAModuleByItsNameAsGivenOnTheSecondTry) {
  EXPECT_THAT(tracedBy("LoadByPath", ""),
              ElementsAre(firstTry(entries),
                          getModule(80, "Debugger engine module " + entries + " loaded")));
}

CUL_CHILD(LoadSilently) {
  EXPECT_NE(
      Engine_Loader::instance()->get_procedure_entry(named("entries"), encoded("entriesFunction")),
      nullptr);
  EXPECT_EQ(Engine_Loader::instance()->get_procedure_entry(named("entries"), encoded("absent")),
            nullptr);
  EXPECT_EQ(Engine_Loader::instance()->get_procedure_entry(named("absent"), encoded("absent")),
            nullptr);
}

TEST(Engine_Loader, SaysNothingWithoutATrace) {
  const ChildResult r = runChild("LoadSilently", {.environment = {{"LD_LIBRARY_PATH", folder}}});
  EXPECT_EQ(r.status, 0) << r.out;
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err, "");
}

CUL_CHILD(LoadVersioned) {
  const UNIX_Engine_Loader loader;
  void* const module = loader.get_korv_module(named(entries));
  ASSERT_NE(module, nullptr);
  // There is no such file.
  EXPECT_EQ(loader.get_korv_module(named(entries + ".1")), module);
  EXPECT_EQ(loader.get_korv_module(named(entries + ".22")), module);
  EXPECT_EQ(loader.get_korv_module(named(entries + " ")), module);
  EXPECT_EQ(loader.get_korv_module(named(entries + ".x")), nullptr);
}

TEST(Engine_Loader, TakesAVersionOfALibraryForTheLibrary) {
  std::vector<std::string> expected = {
      firstTry(entries), getModule(80, "Debugger engine module " + entries + " loaded")};
  for (const std::string& line : absence(entries + ".x", "")) {
    expected.push_back(line);
  }
  EXPECT_EQ(tracedBy("LoadVersioned", ""), expected);
}

CUL_CHILD(LoadTwoVersions) {
  const std::string library = childArguments().at(0);
  const UNIX_Engine_Loader loader;
  void* const first = loader.get_korv_module(named(library + ".1"));
  void* const second = loader.get_korv_module(named(library + ".2"));
  ASSERT_NE(first, nullptr);
  ASSERT_NE(second, nullptr);
  EXPECT_NE(first, second);
  EXPECT_EQ(loader.get_korv_module(named(library)), second);
  EXPECT_EQ(loader.get_korv_module(named(library + ".1")), first);
}

TEST(Engine_Loader, LooksThroughItsModulesFromTheLastToTheFirst) {
  const TemporaryFolder copies;
  const std::string library = copies.file("libx.so");
  std::filesystem::copy_file(entries, library + ".1");
  std::filesystem::copy_file(entries, library + ".2");
  const std::vector<std::string> lines = tracedBy("LoadTwoVersions", "", {library});
  ASSERT_EQ(lines.size(), 4U);
  EXPECT_EQ(lines[1], getModule(80, "Debugger engine module " + library + ".1 loaded"));
  EXPECT_EQ(lines[3], getModule(80, "Debugger engine module " + library + ".2 loaded"));
}

CUL_CHILD(LoadAbsent) {
  const UNIX_Engine_Loader loader;
  EXPECT_EQ(loader.get_korv_module(named("absent")), nullptr);
  EXPECT_EQ(loader.get_korv_module(named("absent")), nullptr);
}

TEST(Engine_Loader, TracesAnAbsentModuleInThreeLinesAtEveryRequest) {
  for (const std::string& libraryPath : {folder, std::string()}) {
    const std::vector<std::string> once = absence("absent", libraryPath);
    EXPECT_EQ(once[1],
              "**ERROR: void* UNIX_Engine_Loader::get_korv_module(87): Cannot load debugger engine "
              "module absent. - absent: cannot open shared object file: No such file or directory");
    EXPECT_THAT(tracedBy("LoadAbsent", libraryPath),
                ElementsAre(once[0], once[1], once[2], once[0], once[1], once[2]));
  }
}

CUL_CHILD(LoadWhatComesLater) {
  const std::string library = childArguments().at(0);
  const UNIX_Engine_Loader loader;
  EXPECT_EQ(loader.get_korv_module(named(library)), nullptr);
  std::filesystem::create_symlink(entries, library);
  EXPECT_NE(loader.get_korv_module(named(library)), nullptr);
}

TEST(Engine_Loader, TriesAgainAfterAFailure) {
  const TemporaryFolder later;
  const std::string library = later.file("later");
  std::vector<std::string> expected = absence(library, "");
  expected.push_back(firstTry(library));
  expected.push_back(getModule(80, "Debugger engine module " + library + " loaded"));
  EXPECT_EQ(tracedBy("LoadWhatComesLater", "", {library}), expected);
}

CUL_CHILD(LoadUnbound) {
  const UNIX_Engine_Loader loader;
  EXPECT_EQ(loader.get_korv_module(named("needsEntries")), nullptr);
  EXPECT_NE(loader.get_korv_module(named("entries")), nullptr);
  EXPECT_EQ(loader.get_korv_module(named("needsEntries")), nullptr);
}

TEST(Engine_Loader, BindsAllSymbolsAtOnceAndShowsThemToNoOtherModule) {
  const std::string unbound =
      getModule(75, "First try - Cannot load debugger engine module libneedsEntries.so. - " +
                        folder + "/libneedsEntries.so: undefined symbol: entriesFunction");
  const std::vector<std::string> rest = absence("needsEntries", folder);
  EXPECT_THAT(tracedBy("LoadUnbound", folder),
              ElementsAre(unbound, rest[1], rest[2],
                          getModule(69, "Debugger engine module libentries.so loaded"), unbound,
                          rest[1], rest[2]));
}

CUL_CHILD(LoadManyModules) {
  const UNIX_Engine_Loader loader;
  std::vector<void*> modules;
  for (int round = 0; round < 2; ++round) {
    for (const std::string& library : childArguments()) {
      void* const module = loader.get_korv_module(named(library));
      EXPECT_NE(module, nullptr);
      if (round == 0) {
        EXPECT_EQ(std::count(modules.begin(), modules.end(), module), 0) << library;
        modules.push_back(module);
      } else {
        EXPECT_EQ(module, handleOfLoaded(library));
      }
    }
  }
}

TEST(Engine_Loader, KeepsAnyNumberOfModules) {
  const TemporaryFolder copies;
  std::vector<std::string> libraries;
  std::vector<std::string> expected;
  for (int i = 0; i < 30; ++i) {
    libraries.push_back(copies.file("module" + std::to_string(i)));
    std::filesystem::copy_file(entries, libraries.back());
    expected.push_back(firstTry(libraries.back()));
    expected.push_back(getModule(80, "Debugger engine module " + libraries.back() + " loaded"));
  }
  EXPECT_EQ(tracedBy("LoadManyModules", "", libraries), expected);
}

CUL_CHILD(LoadAndForget) {
  { EXPECT_NE(UNIX_Engine_Loader().get_korv_module(named("entries")), nullptr); }
  EXPECT_NE(handleOfLoaded(entries), nullptr);
}

TEST(Engine_Loader, NeverUnloadsAModule) {
  EXPECT_THAT(tracedBy("LoadAndForget", folder), testing::SizeIs(1));
}

CUL_CHILD(LoadWithLongNames) {
  const UNIX_Engine_Loader loader;
  const std::string longName(60000, 'n');
  EXPECT_EQ(loader.get_korv_module(named(longName)), nullptr);
  EXPECT_EQ(loader.get_procedure_entry(named("entries"), encoded(longName)), nullptr);
}

TEST(Engine_Loader, TakesNamesOfAnyLength) {
  const std::string longName(60000, 'n');
  std::vector<std::string> expected = absence(longName, folder);
  // A trace line has its own limit.
  const std::vector<std::string> lines = tracedBy("LoadWithLongNames", folder);
  ASSERT_EQ(lines.size(), 5U);
  EXPECT_TRUE(expected[0].starts_with(lines[0].substr(0, 120000)));
  EXPECT_TRUE(expected[1].starts_with(lines[1].substr(0, 120000)));
  EXPECT_EQ(lines[2], expected[2]);
  EXPECT_EQ(lines[4], noEntry("entries", longName));
}

CUL_CHILD(LoadByForeignName) {
  const UNIX_Engine_Loader loader;
  const std::string module = childArguments().at(0) + "/\xC3\xA9";
  EXPECT_NE(loader.get_korv_module(named(module)), nullptr);
  EXPECT_EQ(loader.get_procedure_entry(named(module), encoded("\xC3\xA8")), nullptr);
}

TEST(Engine_Loader, GivesNamesToTheSystemInItsNativeCodePage) {
  const TemporaryFolder copies;
  std::filesystem::copy_file(entries, copies.file("\xE9"));
  ChildOptions options;
  options.environment["QVX_DBG_CODEPAGE"] = "ISO8859-1";
  options.arguments = {copies.path()};
  const TracedChildResult r = runTracedChild("LoadByForeignName", options);
  EXPECT_EQ(r.child.status, 0) << r.child.out << r.child.err;
  const std::vector<std::string> lines = linesOfTheLoader(r.trace);
  ASSERT_EQ(lines.size(), 3U);
  EXPECT_EQ(lines[2], noEntry(copies.file("\xE9"), "\xE8"));
}

CUL_CHILD(LoadTheProgram) {
  const UNIX_Engine_Loader loader;
  void* const program = loader.get_korv_module(FileName());
  EXPECT_EQ(program, dlopen(nullptr, RTLD_NOW));
  EXPECT_EQ(loader.get_korv_module(FileName()), program);
}

TEST(Engine_Loader, TakesAnEmptyNameForTheProgramItself) {
  EXPECT_THAT(
      tracedBy("LoadTheProgram", ""),
      ElementsAre(getModule(75, "First try - Cannot load debugger engine module lib.so. - " +
                                    openingError("lib.so")),
                  getModule(80, "Debugger engine module  loaded")));
}

CUL_CHILD(FindEntries) {
  const Engine_Loader* const loader = Engine_Loader::instance();
  EXPECT_EQ(Engine_Loader::instance(), loader);
  auto* const function = reinterpret_cast<Function>(
      loader->get_procedure_entry(named("entries"), encoded("entriesFunction")));
  ASSERT_NE(function, nullptr);
  EXPECT_EQ(function(1), 2);
  const auto* const number = static_cast<const int*>(
      loader->get_procedure_entry(named("entries"), encoded("entriesNumber")));
  ASSERT_NE(number, nullptr);
  EXPECT_EQ(*number, 42);
  const auto* const ours = dynamic_cast<const UNIX_Engine_Loader*>(loader);
  ASSERT_NE(ours, nullptr);
  EXPECT_EQ(ours->get_korv_module(named("entries")), handleOfLoaded(entries));
}

TEST(Engine_Loader, FindsFunctionsAndDataInAModuleThatItLoadsOnce) {
  EXPECT_THAT(tracedBy("FindEntries", folder),
              ElementsAre(getModule(69, "Debugger engine module libentries.so loaded")));
}

CUL_CHILD(FindAbsentEntries) {
  const Engine_Loader* const loader = Engine_Loader::instance();
  EXPECT_EQ(loader->get_procedure_entry(named("entries"), encoded("absent")), nullptr);
  EXPECT_EQ(loader->get_procedure_entry(named("entries"), encoded("entriesNothing")), nullptr);
  EXPECT_EQ(loader->get_procedure_entry(named("entries"), encoded("")), nullptr);
  EXPECT_EQ(loader->get_procedure_entry(named("entries"), encoded("absent")), nullptr);
}

TEST(Engine_Loader, TracesAnAbsentEntryAtEveryRequest) {
  EXPECT_THAT(tracedBy("FindAbsentEntries", folder),
              ElementsAre(getModule(69, "Debugger engine module libentries.so loaded"),
                          noEntry("entries", "absent"), noEntry("entries", "entriesNothing"),
                          noEntry("entries", ""), noEntry("entries", "absent")));
}

CUL_CHILD(FindInAbsentModule) {
  EXPECT_EQ(Engine_Loader::instance()->get_procedure_entry(named("absent"), encoded("entry")),
            nullptr);
}

TEST(Engine_Loader, TracesNoEntryForAnAbsentModule) {
  EXPECT_EQ(tracedBy("FindInAbsentModule", folder), absence("absent", folder));
}

CUL_CHILD(EndWhileFindingAnEntryOfAModule) {
  const UNIX_Engine_Loader loader;
  runOnThread([&] {
    static_cast<void>(
        loader.get_procedure_entry(named("endsItsUser"), encoded("endsItsUserEntry")));
    for (;;) {
      pause();
    }
  });
  // The dynamic loader is free for others, and the module is kept.
  EXPECT_NE(loader.get_procedure_entry(named("entries"), encoded("entriesFunction")), nullptr);
  EXPECT_NE(loader.get_korv_module(named("endsItsUser")), nullptr);
}

TEST(Engine_Loader, IsNotCutShortByARequestToEndTheThread) {
  for (const char* moment : {"loaded", "looked up"}) {
    const TracedChildResult r = runTracedChild(
        "EndWhileFindingAnEntryOfAModule",
        endingInHandlerWith(
            {.environment = {{"LD_LIBRARY_PATH", folder}, {"MODULE_ENDS_ITS_USER", moment}}}));
    EXPECT_EQ(r.child.status, 0) << r.child.out << r.child.err;
    EXPECT_THAT(linesOfTheLoader(r.trace),
                ElementsAre(getModule(69, "Debugger engine module libendsItsUser.so loaded"),
                            getModule(69, "Debugger engine module libentries.so loaded")));
  }
}

// Made before main in the child case that asks for it.
const bool isMadeEarly = std::getenv("TEST_LOADS_EARLY") != nullptr &&
                         Engine_Loader::instance()->get_procedure_entry(
                             named("entries"), encoded("entriesFunction")) != nullptr;

CUL_CHILD(FindEarly) { EXPECT_TRUE(isMadeEarly); }

TEST(Engine_Loader, WorksBeforeMain) {
  const ChildResult r = runChild(
      "FindEarly", {.environment = {{"LD_LIBRARY_PATH", folder}, {"TEST_LOADS_EARLY", "1"}}});
  EXPECT_EQ(r.status, 0) << r.out << r.err;
}

}  // namespace
