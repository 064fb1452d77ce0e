#include "Engine/utilities/DebuggerConfiguration.h"

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <string>

#include <gmock/gmock.h>

#include "Engine/utilities/ProductData.h"

#include "tests/processes/AbortedProcess.h"
#include "tests/support/Child.h"
#include "tests/support/DeadStandardError.h"
#include "tests/support/ProgramTree.h"
#include "tests/support/TemporaryFolder.h"

namespace {

using testing::EndsWith;

const std::string libraries = CUL_TEST_LIBRARIES;

// Runs the launcher from a tree with this file as the configuration module.
ChildResult runWithModule(const std::string& module, const ChildOptions& options = {}) {
  const ProgramTree tree;
  if (!module.empty()) {
    tree.add(module, "lib/libwobnConfig.so");
  }
  return runProgram({tree.launcher(), "configuration"}, abortingWith(options));
}

ChildResult runWithForeignModule(const std::map<std::string, std::string>& environment) {
  return runWithModule(libraries + "/libconfiguration.so", {.environment = environment});
}

std::string stampOfTheLibrary() { return productData().buildStamp; }

std::string refusalOf(const std::string& stamp) {
  return "libwobnConfig.so: its build stamp " + stamp + " is not " + stampOfTheLibrary() +
         ", that of the library\n";
}

CUL_CHILD(Configuration) {
  const DebuggerConfiguration* const configuration = DebuggerConfiguration::instance();
  ASSERT_NE(configuration, nullptr);
  EXPECT_EQ(DebuggerConfiguration::instance(), configuration);
  EXPECT_STREQ(configuration->sourceFilterDefault(), "SOURCE");
  const std::string stamp = configuration->buildStamp();
  EXPECT_EQ(stamp, stampOfTheLibrary());
  EXPECT_EQ(stamp.size(), 14U);
  EXPECT_TRUE(std::all_of(stamp.begin(), stamp.end(), [](unsigned char c) { return isdigit(c); }))
      << stamp;
}

TEST(DebuggerConfiguration, IsLoadedOnceFromTheModuleOfTheSameBuild) {
  const ChildResult r = runChild("Configuration");
  EXPECT_EQ(r.status, 0) << r.out;
  EXPECT_EQ(r.err, "");
}

TEST(DebuggerConfiguration, IsFoundBesideTheLibraryWithoutAnyEnvironment) {
  const ProgramTree tree;
  tree.add(CUL_CONFIGURATION_MODULE, "lib/libwobnConfig.so");
  const ChildResult r =
      runProgram({"/usr/bin/env", "-i", tree.launcher(), "configuration"}, {.directory = "/"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, stampOfTheLibrary() + "\nSOURCE\nsame\n");
  EXPECT_EQ(r.err, "");
}

TEST(DebuggerConfiguration, WorksBeforeMain) {
  const ProgramTree tree;
  tree.add(CUL_CONFIGURATION_MODULE, "lib/libwobnConfig.so");
  const std::string once = stampOfTheLibrary() + "\nSOURCE\nsame\n";
  const ChildResult r = runProgram({tree.launcher(), "configuration"},
                                   {.environment = {{"LAUNCHER_STARTS_EARLY", "1"}}});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, tree.path() + "\n" + once + once);
  EXPECT_EQ(r.err, "");
}

TEST(DebuggerConfiguration, EndsTheProcessWhenTheModuleIsMissing) {
  const ChildResult r = runWithModule("");
  EXPECT_EQ(r.status, aborted);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err, "libwobnConfig.so: cannot open shared object file: No such file or directory\n");
}

TEST(DebuggerConfiguration, EndsTheProcessWhenTheModuleIsNoLibrary) {
  const ProgramTree tree;
  writeFile(tree.file("lib/libwobnConfig.so"), "no library");
  const ChildResult r = runProgram({tree.launcher(), "configuration"}, abortingWith());
  EXPECT_EQ(r.status, aborted);
  EXPECT_EQ(r.out, "");
  EXPECT_THAT(r.err, testing::HasSubstr("/lib/libwobnConfig.so: "));
  EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
}

TEST(DebuggerConfiguration, EndsTheProcessWhenTheModuleHasNoEntry) {
  const ChildResult r = runWithModule(libraries + "/libentries.so");
  EXPECT_EQ(r.status, aborted);
  EXPECT_EQ(r.out, "");
  EXPECT_THAT(r.err, EndsWith("/libwobnConfig.so: undefined symbol: configInstance\n"));
}

TEST(DebuggerConfiguration, EndsTheProcessWhenTheEntryOfTheModuleHasNoAddress) {
  expectAbort(runWithModule(libraries + "/libconfigurationWithoutAddress.so"),
              "libwobnConfig.so: configInstance is there, but has no address\n");
}

TEST(DebuggerConfiguration, EndsTheProcessWhenTheModuleGivesNoObject) {
  expectAbort(
      runWithForeignModule({{"MODULE_HAS_NO_OBJECT", ""}, {"MODULE_STAMP", stampOfTheLibrary()}}),
      "libwobnConfig.so: configInstance gives no configuration object\n");
}

TEST(DebuggerConfiguration, EndsTheProcessWhenTheModuleIsOfAnotherBuild) {
  const std::string ours = stampOfTheLibrary();
  for (const std::string& stamp :
       {std::string("20000101000000"), ours.substr(0, 13), ours + "0", std::string()}) {
    expectAbort(runWithForeignModule({{"MODULE_STAMP", stamp}}), refusalOf(stamp));
  }
}

TEST(DebuggerConfiguration, EndsTheProcessWhenTheModuleHasNoStamp) {
  expectAbort(runWithForeignModule({}), refusalOf("(none)"));
}

// With the sanitizers the search begins at a run path of the program's, which goes before the
// user's.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)

CUL_CHILD(ConfigurationOfTheSearchPath) {
  EXPECT_STREQ(DebuggerConfiguration::instance()->sourceFilterDefault(), "OTHER");
}

TEST(DebuggerConfiguration, IsFoundAlongTheSearchPathOfTheUserFirst) {
  const TemporaryFolder folder;
  std::filesystem::copy_file(libraries + "/libconfiguration.so", folder.file("libwobnConfig.so"));
  const ChildResult r = runChild(
      "ConfigurationOfTheSearchPath",
      {.environment = {{"LD_LIBRARY_PATH", folder.path()}, {"MODULE_STAMP", stampOfTheLibrary()}}});
  EXPECT_EQ(r.status, 0) << r.out << r.err;
}

CUL_CHILD(ConfigurationUnheard) {
  loseReaderOfStandardError();
  static_cast<void>(DebuggerConfiguration::instance());
}

TEST(DebuggerConfiguration, EndsTheProcessWithItsStatusWhenNobodyReadsWhy) {
  for (const char* module : {"/libconfiguration.so", "/libconfigurationWithoutAddress.so"}) {
    const TemporaryFolder folder;
    std::filesystem::copy_file(libraries + module, folder.file("libwobnConfig.so"));
    for (const char* object : {"MODULE_HAS_NO_OBJECT", "MODULE_STAMP"}) {
      const ChildResult r =
          runChild("ConfigurationUnheard",
                   abortingWith({.environment = {{"LD_LIBRARY_PATH", folder.path()},
                                                 {object, stampOfTheLibrary() + "0"}}}));
      EXPECT_EQ(r.status, aborted) << r.out;
    }
  }
}

#endif

TEST(DebuggerConfiguration, TakesAnyModuleWithTheStampOfTheLibraryAndKeepsItsObject) {
  const ChildResult r = runWithForeignModule({{"MODULE_STAMP", stampOfTheLibrary()}});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out, stampOfTheLibrary() + "\nOTHER\nsame\n");
  EXPECT_EQ(r.err, "");
}

}  // namespace
