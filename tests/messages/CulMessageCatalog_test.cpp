#include <dlfcn.h>
#include <string>
#include <vector>

#include <gmock/gmock.h>

#include "tests/support/Child.h"
#include "tests/support/TemporaryFolder.h"

/// The CMake function that makes catalogs, in projects of the tests' own.

namespace {

using testing::AllOf;
using testing::HasSubstr;

const std::string module = CUL_MESSAGE_CATALOG_MODULE;

ChildResult cmake(std::vector<std::string> words) {
  words.insert(words.begin(), CUL_CMAKE);
  return runProgram(words);
}

// A project with one catalog, of which the base is named relative to the project and the
// translation is not.
class Project {
 public:
  Project(const std::string& base, const std::string& translation) {
    writeFile(base_, base);
    writeFile(translation_, translation);
    writeFile(folder_.file("CMakeLists.txt"),
              "cmake_minimum_required(VERSION 3.25)\n"
              "project(own LANGUAGES CXX)\n"
              "add_executable(cul::message_compiler IMPORTED)\n"
              "set_target_properties(cul::message_compiler PROPERTIES\n"
              "  IMPORTED_LOCATION \"" CUL_MESSAGE_COMPILER
              "\")\n"
              "include(\"" +
                  module +
                  "\")\n"
                  "cul_add_message_catalog(texts NAME own MESSAGES en_US base.msg de_DE \"" +
                  translation_ + "\")\n");
    const ChildResult r =
        cmake({"-S", folder_.path(), "-B", folder_.file("build"), "-G", CUL_GENERATOR, "-D",
               std::string("CMAKE_CXX_COMPILER=") + CUL_CXX_COMPILER});
    EXPECT_EQ(r.status, 0) << r.out << r.err;
  }

  [[nodiscard]] ChildResult build() const { return cmake({"--build", folder_.file("build")}); }

  [[nodiscard]] const std::string& base() const { return base_; }

  // The text of a message of set 1 in the library.
  [[nodiscard]] std::string text(const char* locale, int number) const {
    const std::string library = folder_.file("build/libwobnown.so");
    void* const handle = dlopen(library.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr) {
      return dlerror();
    }
    const auto setLanguage =
        reinterpret_cast<int (*)(const char*)>(dlsym(handle, "setMessageLang"));
    const auto get = reinterpret_cast<const char* (*)(int, int)>(dlsym(handle, "getMessage"));
    EXPECT_EQ(setLanguage(locale), 1);
    const char* const found = get(1, number);
    std::string text = found == nullptr ? "no such message" : found;
    dlclose(handle);
    return text;
  }

 private:
  TemporaryFolder folder_;
  std::string base_ = folder_.file("base.msg");
  std::string translation_ = folder_.file("translation.msg");
};

TEST(CulMessageCatalog, MakesALibraryAndMakesItAgainWhenASourceHasChanged) {
  const Project project("1 one\n2 two\n", "1 eins\n");
  const ChildResult first = project.build();
  EXPECT_EQ(first.status, 0) << first.out << first.err;
  EXPECT_THAT(first.out, HasSubstr("Compiling the messages of own"));
  EXPECT_EQ(project.text("en_US", 1), "one");
  EXPECT_EQ(project.text("de_DE", 1), "eins");
  EXPECT_EQ(project.text("de_DE", 2), "two");

  writeFile(project.base(), "1 one\n2 second\n3 three\n");
  EXPECT_EQ(project.build().status, 0);
  EXPECT_EQ(project.text("de_DE", 2), "second");
  EXPECT_EQ(project.text("de_DE", 3), "three");
}

TEST(CulMessageCatalog, TellsAnErrorInASourceWithItsFileAndLine) {
  const Project project("1 one\nno message\n", "");
  const ChildResult r = project.build();
  EXPECT_NE(r.status, 0);
  EXPECT_THAT(r.out + r.err,
              HasSubstr(project.base() + ":2: error: neither a directive nor a message\n"));
}

TEST(CulMessageCatalog, RefusesACallThatIsNotOfItsForm) {
  for (const char* const call :
       {"texts", "texts NAME own", "texts MESSAGES en_US base.msg", "texts NAME own MESSAGES",
        "texts NAME own MESSAGES en_US", "texts NAME own MESSAGES en_US base.msg de_DE",
        "texts more NAME own MESSAGES en_US base.msg"}) {
    const TemporaryFolder folder;
    const std::string script = folder.file("script.cmake");
    writeFile(script,
              "include(\"" + module + "\")\ncul_add_message_catalog(" + std::string(call) + ")\n");
    const ChildResult r = cmake({"-P", script});
    EXPECT_EQ(r.status, 1) << call;
    EXPECT_THAT(r.err, AllOf(HasSubstr("(message):"), HasSubstr("cul_add_message_catalog(texts")))
        << call;
  }
}

}  // namespace
