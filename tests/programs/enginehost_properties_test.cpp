#include <filesystem>
#include <map>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include <gmock/gmock.h>

#include "tests/programs/Host.h"
#include "tests/support/TemporaryFolder.h"

/// The listing of a property file and the look-up of one key.

namespace {

ChildResult runProperties(std::vector<std::string> words,
                          const std::map<std::string, std::string>& environment = {}) {
  words.insert(words.begin(), "-properties");
  return runHost(words, {.environment = environment});
}

// A property file of the test's own.
class File {
 public:
  explicit File(const std::string& bytes) : path(folder_.file("properties")) {
    writeFile(path, bytes);
  }

 private:
  TemporaryFolder folder_;

 public:
  const std::string path;
};

void expectOutput(const ChildResult& r, const std::string& out) {
  EXPECT_EQ(r.out, out);
  EXPECT_EQ(r.err, "");
  EXPECT_EQ(r.status, 0);
}

void expectFailure(const ChildResult& r, const std::string& err, int status) {
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err, err);
  EXPECT_EQ(r.status, status);
}

constexpr const char* usage = "enginehost: -properties takes a file and at most one key\n";

TEST(EngineHostProperties, AreListedInTheOrderOfTheirKeys) {
  const File file("b = 2 # note\n# comment\nab=\nB=1\na=3\nverbose\nb=4\n\xC3\xA4=5\nz\n");
  expectOutput(runProperties({file.path}), "B=1\na=3\nab=\nb=4\nverbose=\nz=\n\xC3\xA4=5\n");
}

TEST(EngineHostProperties, AreListedWithoutWhatUpsetsATerminal) {
  const File file(std::string("\x1B[2J=a\rb\n\tk\x01=\x7F\xC3\xA4\\x\nzero=\0!\n", 27));
  expectOutput(runProperties({file.path}),
               "\\x1B[2J=a\\x0Db\nk\\x01=\\x7F\xC3\xA4\\x\nzero=\\x00!\n");
}

TEST(EngineHostProperties, OfAnEmptyFileAreNone) {
  expectOutput(runProperties({File("").path}), "");
  expectOutput(runProperties({File("# nothing\n\n=1\n").path}), "");
}

TEST(EngineHostProperties, AreLookedUpByKey) {
  const File file("a=1\nb= two words \nA=3\nempty=\n\xC3\xA4=\xE2\x82\xAC\n");
  expectOutput(runProperties({file.path, "a"}), "1\n");
  expectOutput(runProperties({file.path, "b"}), "two words\n");
  expectOutput(runProperties({file.path, "A"}), "3\n");
  expectOutput(runProperties({file.path, "empty"}), "\n");
  expectOutput(runProperties({file.path, "\xC3\xA4"}), "\xE2\x82\xAC\n");
}

TEST(EngineHostProperties, AreLookedUpAsTheyStand) {
  const File file(std::string("k=\x1B[1mbold\0\r.\x7F\nlong=", 20) + std::string(100000, 'v'));
  expectOutput(runProperties({file.path, "k"}), std::string("\x1B[1mbold\0\r.\x7F\n", 13));
  std::string expected(100000, 'v');
  expected += '\n';
  const ChildResult r = runProperties({file.path, "long"});
  EXPECT_TRUE(r.out == expected);
  EXPECT_EQ(r.status, 0);
}

TEST(EngineHostProperties, SayNothingOfAnAbsentKey) {
  const File file("a=1\n=2\n");
  for (const char* const key : {"b", "", "A", " a", "a=1", "2", "\xFF", "%s", "-settings"}) {
    expectFailure(runProperties({file.path, key}), "", 1);
  }
}

TEST(EngineHostProperties, AreReadInTheCodePageOfTheUser) {
  const std::map<std::string, std::string> latin = {{"QVX_DBG_CODEPAGE", "ISO-8859-1"}};
  const File file("gr\xFC\xDF=\xE4\n");
  expectOutput(runProperties({file.path}, latin), "gr\xC3\xBC\xC3\x9F=\xC3\xA4\n");
  expectOutput(runProperties({file.path, "gr\xFC\xDF"}, latin), "\xC3\xA4\n");
  expectOutput(runProperties({file.path, "gr\xC3\xBC\xC3\x9F"}, latin), "\xC3\xA4\n");
}

TEST(EngineHostProperties, NeedAFileThatCanBeRead) {
  const TemporaryFolder folder;
  writeFile(folder.file("p"), "a=1\n");
  const std::vector<std::pair<std::string, std::string>> cases = {
      {folder.file("none"), "No such file or directory"},
      {"", "No such file or directory"},
      {folder.path(), "Is a directory"},
      {folder.file("p/"), "Not a directory"},
      {folder.file(std::string(300, 'n')), "File name too long"}};
  for (const auto& [path, reason] : cases) {
    const std::string line = std::string("enginehost: ").append(path) + ": " + reason + "\n";
    expectFailure(runProperties({path}), line, 125);
    expectFailure(runProperties({path, "a"}), line, 125);
  }
  expectFailure(runProperties({"\x1B[2J\n"}),
                "enginehost: \\x1B[2J\\x0A: No such file or directory\n", 125);
  expectFailure(runProperties({"%s%n"}), "enginehost: %s%n: No such file or directory\n", 125);
}

TEST(EngineHostProperties, NeedAFileThatMayBeRead) {
  if (geteuid() == 0) {
    // Root may read every file; this one it cannot: its memory begins at an invalid address.
    expectFailure(runProperties({"/proc/self/mem"}),
                  "enginehost: /proc/self/mem: Input/output error\n", 125);
    return;
  }
  const File file("a=1\n");
  ASSERT_EQ(chmod(file.path.c_str(), 0), 0);
  expectFailure(runProperties({file.path}), "enginehost: " + file.path + ": Permission denied\n",
                125);
}

TEST(EngineHostProperties, AreFoundUnderAnyNameOfAFile) {
  const TemporaryFolder folder;
  for (const char* const name : {"\xFF\xFE", "gr\xC3\xBC\xC3\x9F", "a(b)", "#=", "-settings"}) {
    writeFile(folder.file(name), "a=1\n");
    expectOutput(runProperties({folder.file(name), "a"}), "1\n");
  }
}

TEST(EngineHostProperties, AreReadFromAFileThatIsStandardInput) {
  const File file("b=2\na=1");
  const ChildResult r =
      runProgram({"/bin/sh", "-c", std::string(host) + " -properties /dev/stdin <" + file.path});
  expectOutput(r, "a=1\nb=2\n");
}

TEST(EngineHostProperties, AreReadFromARegularFileOnly) {
  const TemporaryFolder folder;
  const std::string pipe = folder.file("pipe");
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  for (const std::string& path : {std::string("/dev/zero"), std::string("/dev/null"), pipe}) {
    const std::string line = "enginehost: " + path + ": it is no regular file\n";
    expectFailure(runProperties({path}), line, 125);
    expectFailure(runProperties({path, "a"}), line, 125);
  }
  expectFailure(runProgram({host, "-properties", "/dev/stdin"}, {.input = "a=1\n"}),
                "enginehost: /dev/stdin: it is no regular file\n", 125);
}

// The same with little memory, so that nothing of the size of the file is taken up.
ChildResult runPropertiesWithLittleMemory(const std::string& path) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  // A sanitizer reserves more than there is.
  return runProperties({path});
#else
  return runProgram(
      {"/bin/sh", "-c", "ulimit -v 500000; exec \"$@\"", "sh", host, "-properties", path});
#endif
}

TEST(EngineHostProperties, AreNotInALineOfMoreThan16Megabytes) {
  const TemporaryFolder folder;
  const std::string path = folder.file("properties");
  const std::string refusal = "enginehost: " + path + ": it has a line of more than 16 MB\n";
  constexpr std::size_t most = 16 << 20;
  const std::string comment = "#" + std::string(most - 1, 'x');
  for (const std::string before : {"", "a=1\n", "\n\n"}) {
    const std::string out = before == "a=1\n" ? "a=1\n" : "";
    for (const std::string after : {"", "\n", "\nb=2\n"}) {
      writeFile(path, before + comment + after);
      expectOutput(runProperties({path}), after.size() > 1 ? out + "b=2\n" : out);
      writeFile(path, before + comment + "x" + after);
      expectFailure(runProperties({path}), refusal, 125);
    }
  }
  // A hole is a line of zero bytes.
  writeFile(path, "a=1\n");
  std::filesystem::resize_file(path, 1UL << 30);
  expectFailure(runPropertiesWithLittleMemory(path), refusal, 125);
}

TEST(EngineHostProperties, MayBeInAFileOfAnyLength) {
  std::string bytes;
  for (int i = 0; i < 20; ++i) {
    bytes += "#" + std::string(1 << 20, 'x') + "\n";
  }
  expectOutput(runProperties({File(bytes + "a=1").path}), "a=1\n");
}

TEST(EngineHostProperties, AreFoundUnderTheNameThatTheNativeCodePageGives) {
  const TemporaryFolder folder;
  writeFile(folder.file("gr\xFC\xDF"), "a=1\n");
  expectOutput(
      runProperties({folder.file("gr\xC3\xBC\xC3\x9F")}, {{"QVX_DBG_CODEPAGE", "ISO-8859-1"}}),
      "a=1\n");
}

TEST(EngineHostProperties, FailWhenTheyCannotBeWritten) {
  const File file("a=1\n");
  const std::string command = std::string(host) + " -properties " + file.path;
  for (const char* const rest : {" >/dev/full", " a >/dev/full"}) {
    const ChildResult r = runProgram({"/bin/sh", "-c", command + rest});
    EXPECT_EQ(r.status, 125);
    EXPECT_THAT(r.err, testing::StartsWith("enginehost: "));
  }
}

TEST(EngineHostProperties, TakeAFileAndAtMostOneKey) {
  const File file("a=1\n");
  expectFailure(runProperties({}), usage, 2);
  expectFailure(runProperties({file.path, "a", "b"}), usage, 2);
  expectFailure(runProperties({file.path, "a", ""}), usage, 2);
}

TEST(EngineHostProperties, SurviveAFileOfNonsense) {
  const ChildResult r = runProperties({host});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.err, "");
  EXPECT_THAT(r.out, testing::HasSubstr("=\n"));
}

}  // namespace
