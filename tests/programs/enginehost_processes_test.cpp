#include <cstddef>
#include <fcntl.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <vector>

#include <gmock/gmock.h>

#include "tests/programs/Host.h"
#include "tests/support/WaitingProgram.h"

/// The listing of the processes.

namespace {

using nlohmann::json;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

// The area that the host takes arguments into.
constexpr std::size_t area = 65536;

std::map<pid_t, json> listed() {
  const ChildResult r = runHost({"-processes", "--json"});
  EXPECT_EQ(r.status, 0) << r.err;
  std::map<pid_t, json> result;
  const json document = json::parse(r.out);
  for (const json& process : document.at("processes")) {
    result.emplace(process.at("process"), process);
  }
  return result;
}

// The line of a process, without what stands in front of its number.
std::string lineOf(const WaitingProgram& program) {
  const ChildResult r = runHost({"-processes"});
  EXPECT_EQ(r.status, 0) << r.err;
  const std::string number = std::to_string(program.id());
  for (std::size_t at = 0; at < r.out.size();) {
    const std::size_t end = r.out.find('\n', at);
    const std::string line = r.out.substr(at, end - at);
    const std::size_t start = line.find_first_not_of(' ');
    const bool isNumber =
        line.compare(start, number.size(), number) == 0 &&
        (start + number.size() == line.size() || line[start + number.size()] == ' ');
    if (isNumber) {
      EXPECT_EQ(start + number.size(), 7U) << line;
      return line.substr(start);
    }
    at = end + 1;
  }
  ADD_FAILURE() << number << " is not listed:\n" << r.out;
  return {};
}

// What a list of `size` bytes takes behind those that every waiting program has.
std::string fillerFor(std::size_t size) {
  std::string filler;
  filler.resize(size - WaitingProgram({}).list().size() - 1, 'x');
  return filler;
}

TEST(EngineHostProcesses, AreListedForProgramsWithTheirArguments) {
  const WaitingProgram program({"one", "", "with blank", "tab\there", "\"q\" \\", "ä"});
  EXPECT_EQ(listed().at(program.id()), json({{"process", program.id()},
                                             {"arguments",
                                              {"waiter", "-c", "read -r line || :", "name", "one",
                                               "", "with blank", "tab\there", "\"q\" \\", "ä"}},
                                             {"cut", false}}));
}

TEST(EngineHostProcesses, AreAllThatAreThereAllTheTime) {
  const WaitingProgram program({});
  const std::set<pid_t> before = processesInProc();
  const std::map<pid_t, json> found = listed();
  const std::set<pid_t> after = processesInProc();
  for (const pid_t process : before) {
    EXPECT_TRUE(found.contains(process) || !after.contains(process)) << process;
  }
  EXPECT_TRUE(found.contains(program.id()));
  EXPECT_TRUE(found.contains(getpid()));
}

TEST(EngineHostProcesses, AreAlignedForPeople) {
  const WaitingProgram program({"a", "b"});
  const ChildResult r = runHost({"-processes"});
  EXPECT_THAT(r.out, testing::StartsWith("PROCESS  ARGUMENTS\n"));
  EXPECT_EQ(lineOf(program),
            std::to_string(program.id()) + "  waiter -c \"read -r line || :\" name a b");
}

TEST(EngineHostProcesses, ShowArgumentsThatCouldBeTakenForOthersInQuotes) {
  const WaitingProgram program({"", "with blank", "say \"hi\"", "back\\slash", "...", "....", "'",
                                "\x1B[2J", "a\nb", "\x7F", "ä", "$HOME", "\\x1B"});
  EXPECT_EQ(lineOf(program), std::to_string(program.id()) +
                                 "  waiter -c \"read -r line || :\" name \"\" \"with blank\" "
                                 "\"say \\\"hi\\\"\" \"back\\\\slash\" \"...\" .... ' "
                                 "\"\\x1B[2J\" \"a\\x0Ab\" \"\\x7F\" ä $HOME \"\\\\x1B\"");
}

TEST(EngineHostProcesses, CannotUpsetTheTerminal) {
  const WaitingProgram program({"\x1B[2J\a\r"});
  EXPECT_THAT(runHost({"-processes"}).out,
              AllOf(HasSubstr("\"\\x1B[2J\\x07\\x0D\""), Not(HasSubstr("\x1B"))));
}

TEST(EngineHostProcesses, MayHaveArgumentsOfAnyBytes) {
  const WaitingProgram program({"\xFF\xC3(", "\xE4"});
  EXPECT_EQ(listed().at(program.id()).at("arguments").at(4), "\uFFFD\uFFFD(");
  EXPECT_THAT(lineOf(program), testing::EndsWith(" name \xFF\xC3( \xE4"));
}

TEST(EngineHostProcesses, WithoutArgumentsHaveAnEmptyList) {
  WaitingProgram program({"a"});
  program.end();
  EXPECT_EQ(lineOf(program), std::to_string(program.id()));
  EXPECT_EQ(listed().at(program.id()),
            json({{"process", program.id()}, {"arguments", json::array()}, {"cut", false}}));
}

TEST(EngineHostProcesses, ThatHaveEndedAreLeftOut) {
  WaitingProgram program({"a"});
  EXPECT_TRUE(listed().contains(program.id()));
  program.end();
  program.reap();
  EXPECT_FALSE(listed().contains(program.id()));
}

TEST(EngineHostProcesses, ShowThatTheirArgumentsAreCut) {
  const WaitingProgram whole({fillerFor(area - 2)});
  ASSERT_EQ(whole.list().size(), area - 2);
  EXPECT_EQ(listed().at(whole.id()).at("cut"), false);
  EXPECT_THAT(lineOf(whole), testing::EndsWith("xxx"));

  const WaitingProgram cut({fillerFor(area), "more"});
  const json entry = listed().at(cut.id());
  EXPECT_EQ(entry.at("cut"), true);
  EXPECT_EQ(entry.at("arguments").size(), 5U);
  EXPECT_EQ(entry.at("arguments").at(4), fillerFor(area));
  EXPECT_THAT(lineOf(cut), testing::EndsWith("xxx ..."));
}

TEST(EngineHostProcesses, TakeNothingButJson) {
  for (const std::vector<std::string>& words : {std::vector<std::string>{"-processes", "--xml"},
                                                {"-processes", ""},
                                                {"-processes", "--JSON"},
                                                {"-processes", "1"},
                                                {"-processes", "\x1B\xFF"},
                                                {"-processes", "--json", "--json"},
                                                {"-processes", "--json", "more"}}) {
    const ChildResult r = runHost(words);
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.err, "enginehost: -processes takes nothing but --json\n");
    EXPECT_EQ(r.out, "");
  }
}

TEST(EngineHostProcesses, AreInTheUsage) {
  EXPECT_THAT(runHost({"-?"}).out, HasSubstr("-processes [--json]"));
}

TEST(EngineHostProcesses, TellThatTheyCannotBeWritten) {
  const std::string listing = std::string("exec \"$0\" -processes ");
  for (const std::string words : {"> /dev/full", "--json > /dev/full"}) {
    const ChildResult r = runProgram({"/bin/sh", "-c", listing + words, host});
    EXPECT_EQ(r.status, 125);
    EXPECT_EQ(r.err, "enginehost: standard output cannot be written\n");
  }
}

// No folder can be opened as one any more, in this process and those that it starts.
void forbidFolders() {
  sock_filter program[] = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_openat, 0, 3),
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, args) + 2 * sizeof(__u64)),
      BPF_JUMP(BPF_JMP | BPF_JSET | BPF_K, O_DIRECTORY, 0, 1),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EACCES),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
  };
  const sock_fprog filter = {sizeof program / sizeof *program, program};
  ASSERT_EQ(prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0), 0);
  ASSERT_EQ(prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter), 0);
}

CUL_CHILD(HostWithoutProc) {
  forbidFolders();
  for (const std::vector<std::string>& words :
       {std::vector<std::string>{"-processes"}, {"-processes", "--json"}}) {
    const ChildResult r = runHost(words);
    EXPECT_EQ(r.status, 125);
    EXPECT_EQ(r.err, "enginehost: the processes cannot be read; the trace tells why\n");
    EXPECT_EQ(r.out, "");
  }
}

TEST(EngineHostProcesses, TellThatTheyCannotBeRead) {
  const ChildResult r = runChild("HostWithoutProc");
  EXPECT_EQ(r.status, 0) << r.out << r.err;
}

}  // namespace
