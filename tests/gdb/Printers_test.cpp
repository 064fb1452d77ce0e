#include <filesystem>
#include <ostream>
#include <string>
#include <vector>

#include <gmock/gmock.h>

#include "tests/support/Child.h"
#include "tests/support/TemporaryFolder.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

using Lines = std::vector<std::string>;

struct Session {
  Lines start = {};        ///< Commands before the program is started.
  std::string trust = {};  ///< The folder that gdb may load scripts from; empty: the library's.
  std::string core = {};   ///< A core file to look at; empty: a program that runs.
};

const std::string mark = "----";

// The library as it is built, or stripped and installed, as in a package.
enum class Library { Built, Stripped };

std::ostream& operator<<(std::ostream& out, Library library) {
  return out << (library == Library::Built ? "Built" : "Stripped");
}

class Printers : public testing::TestWithParam<Library> {
 protected:
  Printers() {
    if (GetParam() == Library::Stripped) {
      prefix_ = std::filesystem::canonical(folder_.path()).string() + "/opt";
      const ChildResult r =
          runProgram({CUL_CMAKE, "--install", CUL_BUILD_FOLDER + std::string("/Engine"), "--strip",
                      "--prefix", prefix_});
      EXPECT_EQ(r.status, 0) << r.out << r.err;
    }
  }

  std::string libraryFolder() const {
    return prefix_.empty() ? CUL_LIBRARY_FOLDER : prefix_ + "/" CUL_LIBRARY_SUBFOLDER;
  }
  // Where gdb finds its script of the library.
  std::string scripts() const {
    return prefix_.empty() ? CUL_LIBRARY_FOLDER : prefix_ + "/" CUL_DATA_SUBFOLDER "/gdb/auto-load";
  }

  // The lines that gdb prints for commands, given when the program of known objects is ready.
  Lines answersTo(const Lines& commands, const Session& session = {}) const {
    const TemporaryFolder folder;
    std::string script =
        "set debuginfod enabled off\nset confirm off\nset width 0\nset startup-with-shell off\n"
        // This machine may have debug symbols of a library with the same build identifier.
        "set debug-file-directory /nowhere\n"
        "set disable-randomization off\nset environment QVX_DBG_DEBUG_DELAY 7\n"
        "set environment LD_LIBRARY_PATH " +
        libraryFolder() + "\nadd-auto-load-scripts-directory " + scripts() + "\n";
    for (const std::string& command : session.start) {
      script += command + "\n";
    }
    script += session.core.empty() ? "break ready\nrun\n" : "core-file " + session.core + "\n";
    script += "up\necho \\n" + mark + "\\n\n";
    for (const std::string& command : commands) {
      script += command + "\n";
    }
    writeFile(folder.file("commands"), script);
    const std::string& trust = session.trust.empty() ? scripts() : session.trust;
    const ChildResult r =
        runProgram({CUL_GDB, "-nx", "-batch", "-iex", "add-auto-load-safe-path " + trust, "-x",
                    folder.file("commands"), CUL_TEST_OBJECTS},
                   {.environment = {{"LC_ALL", "C.UTF-8"}}});
    EXPECT_EQ(r.status, 0) << r.out << r.err;
    EXPECT_THAT(r.err, Not(HasSubstr("Traceback")));
    EXPECT_THAT(r.err, Not(HasSubstr("Python Exception"))) << r.out;
    const std::string start = "\n" + mark + "\n";
    std::string::size_type from = r.out.find(start);
    if (from == std::string::npos) {
      ADD_FAILURE() << r.out << r.err;
      return {};
    }
    from += start.size();
    Lines lines;
    for (std::string::size_type end; (end = r.out.find('\n', from)) != std::string::npos;
         from = end + 1) {
      lines.push_back(r.out.substr(from, end - from));
    }
    return lines;
  }

  // How gdb shows expressions, each on a line.
  Lines shown(const Lines& expressions, const Lines& before = {},
              const Session& session = {}) const {
    Lines commands = before;
    for (const std::string& expression : expressions) {
      commands.push_back("output " + expression);
      commands.emplace_back("echo \\n");
    }
    return answersTo(commands, session);
  }

 private:
  TemporaryFolder folder_;
  std::string prefix_;
};

INSTANTIATE_TEST_SUITE_P(WithTheLibrary, Printers,
                         testing::Values(Library::Built, Library::Stripped));

// A value that an object of nothing but these bytes has at its address.
const std::string a5 = "0xa5a5a5a5a5a5a5a5";
const std::string a5Count = "2779096485";

TEST_P(Printers, ShowTextsWithTheirCharactersQuotesAndZeroBytes) {
  EXPECT_THAT(shown({"text", "empty", "zeros", "endsInZero", "onlyZero", "quoted", "bytes", "wide",
                     "reference", "*pointer", "base"}),
              ElementsAre("\"Καλημέρα\"", "\"\"", R"("a\000b")", R"("a\000")", R"("\000")",
                          R"("say \"no\"\n\\")", R"("\001\177\377text\000")", R"(L"Ελ\000x")",
                          "\"Καλημέρα\"", "\"Καλημέρα\"", "\"Καλημέρα\""));
}

TEST_P(Printers, ShowBytesThatAreNoUtf8AsNumbers) {
  EXPECT_THAT(shown({"invalid", "badCodeValue"}),
              ElementsAre(R"("\303(\377")", R"(L"a\xffffffff\142")"));
}

TEST_P(Printers, ShowMovedAndDeletedTextsAsEmpty) {
  EXPECT_THAT(shown({"movedFrom", "movedTo", "deleted"}), ElementsAre("\"\"", "\"gone\"", "\"\""));
}

TEST_P(Printers, ReadNoMoreOfATextThanTheLimitOfElements) {
  EXPECT_THAT(
      shown({"numbers", "ints", "great"}, {"set print elements 4", "set print repeats 10"}),
      ElementsAre("\"0123\"...", "List<int> of 5, room for 8 = {1, 4, 9, 16...}", "\"xxxx\"..."));
  EXPECT_THAT(
      shown({"numbers", "great"}),
      ElementsAre("\"0123456789012345678901234567890123456789\"", "'x' <repeats 200 times>..."));
  EXPECT_THAT(shown({"numbers"}, {"set print elements unlimited"}),
              ElementsAre("\"0123456789012345678901234567890123456789\""));
}

TEST_P(Printers, ShowListsWithTheirElements) {
  EXPECT_THAT(shown({"ints", "noInts", "roomForBools", "pairs"}),
              ElementsAre("List<int> of 5, room for 8 = {1, 4, 9, 16, 25}",
                          "List<int> of 0, room for 0", "List<bool> of 0, room for 3",
                          "List<(anonymous namespace)::Pair> of 1, room for 8 = "
                          "{{first = 7, second = true}}"));
}

TEST_P(Printers, ShowWhatTheElementsOfAListPointTo) {
  const Lines lines = shown({"strings", "literals", "addresses", "owned", "chosen", "lost",
                             "/x (long)&text", "/x (long)&empty", "/x (long)literals.elements_[0]",
                             "/x (long)owned.objects_.elements_[0]", "/x (long)&integer"});
  ASSERT_EQ(lines.size(), 11U);
  const std::string& text = lines[6];
  const std::string& empty = lines[7];
  const std::string& literal = lines[8];
  const std::string& file = lines[9];
  const std::string& setting = lines[10];
  EXPECT_EQ(lines[0], "List<EncodedString const*> of 3, room for 8 = {" + text +
                          " \"Καλημέρα\", 0x0, " + empty + " \"\"}");
  EXPECT_EQ(lines[1], "List<char const*> of 1, room for 8 = {" + literal + " \"one\"}");
  EXPECT_EQ(lines[2], "List<void const*> of 1, room for 8 = {0x0}");
  EXPECT_EQ(lines[3], "OwningList<FileName> of 1, room for 8 = {" + file +
                          " \"lib/libx.so.6\" = {directory = \"lib/\", base = \"libx.so.6\", "
                          "extension = \".6\"}}");
  EXPECT_EQ(lines[4], "List<DebuggerSetting*> of 1, room for 8 = {" + setting +
                          " DebuggerIntegerSetting AN_INTEGER = {value = \"-7\", number = -7, "
                          "origin = DebuggerSetting::Changed}}");
  // What cannot be read has its address only.
  EXPECT_EQ(lines[5], "List<EncodedString const*> of 1, room for 8 = {0x10}");
}

TEST_P(Printers, ShowTheTakenIdentifiers) {
  EXPECT_THAT(shown({"ids"}), ElementsAre("IdList of 13 identifiers, 3 direct, taken = {0, 2, 3}"));
}

TEST_P(Printers, ShowThePartsOfFileNames) {
  EXPECT_THAT(shown({"file", "bare", "folder", "noFile"}),
              ElementsAre("\"lib/libx.a(shr.o)\" = {directory = \"lib/\", base = \"libx.a\", "
                          "extension = \".a\", member = \"shr.o\"}",
                          "\"README\" = {base = \"README\"}", "\"lib/\"", "\"\""));
}

TEST_P(Printers, ShowReferencesWithTheCountOfTheirObject) {
  const Lines lines = shown({"counted", "other", "nothing", "/x (long)counted.object_"});
  ASSERT_EQ(lines.size(), 4U);
  const std::string held =
      "Reference<(anonymous namespace)::Counted>, one of 2 = {get() = " + lines[3] + "}";
  EXPECT_EQ(lines[0], held);
  EXPECT_EQ(lines[1], held);
  EXPECT_EQ(lines[2], "Reference<(anonymous namespace)::Counted> to nothing");
}

TEST_P(Printers, ShowEachTypeOfSettingWithItsValueNumberAndOrigin) {
  EXPECT_THAT(
      shown({"string", "boolean", "integer", "number", "choice", "list", "refused", "*delayed"}),
      ElementsAre("DebuggerStringSetting A_STRING = {value = \"a value\", "
                  "origin = DebuggerSetting::Changed}",
                  "DebuggerBooleanSetting A_BOOLEAN = {value = \"1\", number = true, "
                  "origin = DebuggerSetting::Changed}",
                  "DebuggerIntegerSetting AN_INTEGER = {value = \"-7\", number = -7, "
                  "origin = DebuggerSetting::Changed}",
                  "DebuggerUnsignedSetting AN_UNSIGNED = {value = \"4294967295\", "
                  "number = 4294967295, origin = DebuggerSetting::Changed}",
                  "DebuggerEnumSetting AN_ENUM = {value = \"GREEN\", number = 5, "
                  "origin = DebuggerSetting::Changed}",
                  "DebuggerListSetting A_LIST = {value = \"A,B\", number = 0xf1, "
                  "origin = DebuggerSetting::Changed}",
                  "DebuggerIntegerSetting REFUSED = {value = \"\", number = 0, "
                  "origin = DebuggerSetting::Nowhere}",
                  "DebuggerUnsignedSetting DEBUG_DELAY = {value = \"7\", number = 7, "
                  "origin = DebuggerSetting::Environment}"));
  const Lines lines = shown({"path", "/x (long)path.paths_.objects_.elements_[0]",
                             "/x (long)path.paths_.objects_.elements_[1]"});
  ASSERT_EQ(lines.size(), 3U);
  EXPECT_EQ(lines[0],
            "DebuggerPathSetting A_PATH = {value = \"/usr/lib:/lib\", "
            "origin = DebuggerSetting::Changed, paths = OwningList<FileName> of 2, "
            "room for 8 = {" +
                lines[1] + " \"/usr/lib\" = {directory = \"/usr/\", base = \"lib\"}, " + lines[2] +
                " \"/lib\" = {directory = \"/\", base = \"lib\"}}}");
}

TEST_P(Printers, ShowTheRegistryBySettingNames) {
  const Lines lines = shown({"settings", "settings.settings_.implementation_.count"});
  ASSERT_EQ(lines.size(), 2U);
  EXPECT_THAT(lines[0], testing::StartsWith("DebuggerSettings of " + lines[1] + " slots = {"));
  EXPECT_THAT(lines[0], HasSubstr(", DEBUG_DELAY = \"7\", "));
  EXPECT_THAT(lines[0], HasSubstr(", ASSERTION = \"NOEXCEPTION,NOPOPUP\", "));
}

TEST_P(Printers, ShowArgumentsAndPropertiesByTheirNames) {
  const Lines lines = shown({"arguments", "table", "properties"});
  ASSERT_EQ(lines.size(), 3U);
  EXPECT_EQ(lines[0], "DebuggerArgList of 2 = {-qhost = \"here\", -qquiet = \"\"}");
  EXPECT_EQ(lines[1],
            "SearchList_HashTable<(anonymous namespace)::Entry, EncodedString> of 2 = "
            "{{key = \"two\", number = 2}, {key = \"one\", number = 1}}");
  EXPECT_THAT(lines[2], testing::AnyOf("Properties of 2 = {colour = \"red\", size = \"9\"}",
                                       "Properties of 2 = {size = \"9\", colour = \"red\"}"));
}

TEST_P(Printers, ShowStampsLocksAndEvents) {
  EXPECT_THAT(
      shown({"unset", "unreadable", "stamp", "freeSection", "heldSection", "closed", "open"}),
      ElementsAre("unset", "unreadable (-1)", "2024-01-31 23:59:59 UTC (1706745599)", "free",
                  "held by thread 1, depth 2", "closed", "open"));
  EXPECT_THAT(shown({"freeLock", "readLock", "writeLock"}),
              ElementsAre("free, 0 wait to read, 0 to write",
                          "held by 1, 0 wait to read, 0 to write = "
                          "{thread 1 = 2 times to read, 0 to write}",
                          "held by 1, 0 wait to read, 0 to write = "
                          "{thread 1 = 0 times to read, 1 to write}"));
}

TEST_P(Printers, ShowObjectsOfZeroBytesAsEmpty) {
  EXPECT_THAT(shown({"badString.zeros", "badWide.zeros", "badFile.zeros", "badList.zeros",
                     "badOwned.zeros", "badIds.zeros", "badReference.zeros", "badSetting.zeros",
                     "badSettings.zeros", "badArguments.zeros", "badProperties.zeros",
                     "badStamp.zeros", "badSection.zeros", "badLock.zeros", "badEvent.zeros"}),
              ElementsAre("\"\"", "L\"\"", "\"\"", "List<int> of 0, room for 0",
                          "OwningList<FileName> of 0, room for 0",
                          "IdList of 0 identifiers, 0 direct, taken",
                          "Reference<(anonymous namespace)::Counted> to nothing",
                          "DebuggerIntegerSetting = {value = \"\", number = 0, "
                          "origin = DebuggerSetting::Nowhere}",
                          "DebuggerSettings of 0 slots", "DebuggerArgList of 0", "Properties of 0",
                          "unset", "free", "free, 0 wait to read, 0 to write", "closed"));
}

TEST_P(Printers, ShowObjectsThatNobodyMadeAsNone) {
  EXPECT_THAT(
      shown({"badString.others", "badWide.others", "badFile.others", "badList.others",
             "badOwned.others", "badIds.others", "badReference.others", "badSetting.others",
             "badSettings.others", "badArguments.others", "badProperties.others", "badStamp.others",
             "badSection.others", "badLock.others", "badEvent.others"}),
      ElementsAre(
          "<no EncodedString: " + a5Count + " elements at " + a5 + ">",
          "<no CharString: " + a5Count + " elements at " + a5 + ">",
          "<no FileName: " + a5Count + " elements at " + a5 + ">",
          "<no List<int>: " + a5Count + " of " + a5Count + " elements at " + a5 + ">",
          "<no OwningList<FileName>: " + a5Count + " of " + a5Count + " elements at " + a5 + ">",
          "<no IdList: " + a5Count + " of " + a5Count + " elements at " + a5 + ">",
          "Reference<(anonymous namespace)::Counted> = {get() = " + a5 + "}",
          "<no DebuggerIntegerSetting: " + a5Count + " elements at " + a5 + ">",
          "<no DebuggerSettings: " + a5Count + " of " + a5Count + " elements at " + a5 + ">",
          "<no DebuggerArgList: " + a5Count + " of " + a5Count + " elements at " + a5 + ">",
          "<no Properties: " + a5Count + " elements in " + a5Count + " buckets>",
          "beyond the calendar (-6510615555426900571)",
          "held by thread " + a5 + ", which is not known, depth " + a5Count,
          "<no RWlock: " + a5Count + " of " + a5Count + " elements at " + a5 + ">", "open"));
}

TEST_P(Printers, ShowObjectsThatWereWrittenOver) {
  const Lines before = {
      "set var ints.implementation_.count = 9",
      "set var roomForBools.implementation_.count = 1",
      "set var roomForBools.elements_ = 0",
      "set var text.len = 7",
      "set var wide.buffer = 0",
      "set var file.basePosition = 99",
      "set var bare.extensionPosition = 60000",
      "set var path.name_.buffer = (char*)1",
      "set var integer.value_.buffer = (char*)1",
      "set var choice.origin_ = (DebuggerSetting::Origin)77",
  };
  const Lines lines = shown({"ints", "roomForBools", "text", "wide", "file", "bare", "path",
                             "integer", "choice", "/x (long)text.buffer"},
                            before);
  ASSERT_EQ(lines.size(), 10U);
  EXPECT_EQ(lines[0].substr(0, 36), "<no List<int>: 9 of 8 elements at 0x");
  EXPECT_EQ(lines[1], "<no List<bool>: 1 of 3 elements at 0x0>");
  EXPECT_EQ(lines[2], "<no EncodedString: 7 elements at " + lines[9] + ">");
  EXPECT_EQ(lines[3], "<no CharString: 4 elements at 0x0>");
  EXPECT_EQ(lines[4], "\"lib/libx.a(shr.o)\" = {damaged = <the parts lie outside of the text>}");
  EXPECT_EQ(lines[5], "\"README\" = {damaged = <the parts lie outside of the text>}");
  EXPECT_EQ(lines[6], "<no DebuggerPathSetting: 6 elements at 0x1>");
  EXPECT_EQ(lines[7],
            "DebuggerIntegerSetting AN_INTEGER = {value = <no EncodedString: 2 elements "
            "at 0x1>, number = -7, origin = DebuggerSetting::Changed}");
  EXPECT_EQ(lines[8],
            "DebuggerEnumSetting AN_ENUM = {value = \"GREEN\", number = 5, "
            "origin = 77}");
}

TEST_P(Printers, LeaveClassesOfOthersAlone) {
  EXPECT_THAT(shown({"foreign", "derived"}),
              ElementsAre("{only = 3}", "{<EncodedString> = \"base\", more = 5}"));
}

TEST_P(Printers, CanBeTurnedOff) {
  EXPECT_THAT(shown({"nothing"}, {"disable pretty-printer .* cul"}),
              testing::Contains("{object_ = 0x0}"));
  EXPECT_THAT(shown({"/r nothing"}), ElementsAre("{object_ = 0x0}"));
}

TEST_P(Printers, ShowTheObjectsOfACoreFile) {
  const TemporaryFolder folder;
  const std::string core = folder.file("core");
  answersTo({"generate-core-file " + core});
  EXPECT_THAT(shown({"text", "ints", "file", "integer", "heldSection", "badString.others"}, {},
                    {.core = core}),
              ElementsAre("\"Καλημέρα\"", "List<int> of 5, room for 8 = {1, 4, 9, 16, 25}",
                          "\"lib/libx.a(shr.o)\" = {directory = \"lib/\", base = \"libx.a\", "
                          "extension = \".a\", member = \"shr.o\"}",
                          "DebuggerIntegerSetting AN_INTEGER = {value = \"-7\", number = -7, "
                          "origin = DebuggerSetting::Changed}",
                          "held by thread 1, depth 2",
                          "<no EncodedString: " + a5Count + " elements at " + a5 + ">"));
}

TEST_P(Printers, AreLoadedWithTheLibrary) {
  EXPECT_THAT(answersTo({"info auto-load python-scripts libcul"}),
              testing::Contains(HasSubstr(scripts())));
}

// A program that is compiled with -g knows little of a class with virtual functions.
TEST_P(Printers, NeedNoDebugInformationOfTheLibrary) {
  const Lines lines = answersTo({"info sharedlibrary libcul", "output (void*)0", "echo \\n"});
  ASSERT_FALSE(lines.empty());
  EXPECT_THAT(lines[1], HasSubstr(GetParam() == Library::Stripped ? " Yes (*) " : " Yes  "));
  // The object that describes the types stands nowhere in the program.
  EXPECT_EQ(lines.back(), "(void *) 0x0");
}

TEST_P(Printers, CanBeLoadedByHand) {
  const Lines source = {"source " CUL_SOURCE_FOLDER "/Engine/gdb/libcul-gdb.py"};
  EXPECT_THAT(shown({"text", "integer"}, {}, {.start = source, .trust = "/nowhere"}),
              ElementsAre("\"Καλημέρα\"",
                          "DebuggerIntegerSetting AN_INTEGER = {value = \"-7\", number = -7, "
                          "origin = DebuggerSetting::Changed}"));
  // The frame that is looked at stays.
  EXPECT_THAT(shown({"text"}, source, {.trust = "/nowhere"}), ElementsAre("\"Καλημέρα\""));
}

}  // namespace
