#pragma once

#include <algorithm>
#include <csignal>
#include <cstddef>
#include <deque>
#include <fcntl.h>
#include <initializer_list>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "Engine/utilities/EncodedString.h"
#include "Engine/utilities/SpawnedProcess.h"

#include "tests/processes/AnsweredCalls.h"
#include "tests/support/TemporaryFolder.h"
#include "tests/support/WaitUntil.h"

/// \file
/// What the tests of spawned processes share.

inline EncodedString utf8(const std::string& text) {
  return {text.data(), static_cast<unsigned>(text.size()), EncodedString::utf8};
}

/// The arguments of a program.
class Arguments {
 public:
  Arguments(std::initializer_list<std::string> texts)
      : Arguments(std::vector<std::string>(texts)) {}
  explicit Arguments(const std::vector<std::string>& texts) {
    for (const std::string& text : texts) {
      texts_.push_back(utf8(text));
      list_.add(&texts_.back());
    }
  }

  const List<EncodedString*>& list() const { return list_; }

 private:
  std::deque<EncodedString> texts_;
  List<EncodedString*> list_;
};

constexpr int shared = 1;
constexpr int silenced = 0;
constexpr int inherited = 1;
constexpr int closed = 0;

inline SpawnedProcess spawn(const std::string& program, const std::vector<std::string>& arguments,
                            int sharesParentConsoleIO = silenced,
                            int inheritsFileDescriptors = closed) {
  return {utf8(program), utf8("/bin:/usr/bin"), Arguments(arguments).list(), sharesParentConsoleIO,
          inheritsFileDescriptors};
}

/// Runs a command of the shell; the arguments are its $0, $1 and so on.
inline SpawnedProcess spawnShell(const std::string& command,
                                 const std::vector<std::string>& arguments = {},
                                 int sharesParentConsoleIO = silenced,
                                 int inheritsFileDescriptors = closed) {
  std::vector<std::string> all = {"-c", command};
  all.insert(all.end(), arguments.begin(), arguments.end());
  return spawn("sh", all, sharesParentConsoleIO, inheritsFileDescriptors);
}

/// The raw status, once the program has ended.
inline int statusOf(const SpawnedProcess& process) {
  EXPECT_FALSE(process.wait(60));
  EXPECT_TRUE(process.done());
  return process.returnCode();
}

/// What the child calls while it silences its streams.
inline const CaughtCalls openForWriting{SYS_openat, 2, O_WRONLY, O_WRONLY};
inline const CaughtCalls closeStream{SYS_close, 0, 0, 2};
inline const CaughtCalls duplicate{SYS_fcntl, 1, F_DUPFD, F_DUPFD};

inline bool isRunning(pid_t process) { return kill(process, 0) == 0; }

/// Whether this process has no children, neither running ones nor zombies.
bool hasNoChildren();

/// The open descriptors of this process and where they lead.
std::vector<std::string> targetsOfDescriptors();

/// The number of threads of this process.
size_t threadCount();

/// Limits the descriptors of this process until the end of the scope, as far as it may.
class DescriptorLimit {
 public:
  explicit DescriptorLimit(rlim_t most) {
    getrlimit(RLIMIT_NOFILE, &before_);
    rlimit limit = before_;
    limit.rlim_cur = std::min(most, before_.rlim_max);
    limit_ = static_cast<int>(limit.rlim_cur);
    EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
  }
  DescriptorLimit(const DescriptorLimit&) = delete;
  DescriptorLimit& operator=(const DescriptorLimit&) = delete;
  ~DescriptorLimit() { setrlimit(RLIMIT_NOFILE, &before_); }

  [[nodiscard]] int limit() const { return limit_; }

 private:
  rlimit before_;
  int limit_ = 0;
};

/// A program that runs until it is released, which the destructor does as well.
class HeldProgram {
 public:
  HeldProgram() {
    EXPECT_EQ(mkfifo(gate().c_str(), 0600), 0);
    gateHandle_ = open(gate().c_str(), O_RDWR | O_CLOEXEC);
  }
  HeldProgram(const HeldProgram&) = delete;
  HeldProgram& operator=(const HeldProgram&) = delete;
  ~HeldProgram() {
    release();
    if (process_ > 0) {
      EXPECT_TRUE(waitUntil([this] { return !isRunning(process_); }));
    }
    close(gateHandle_);
  }

  /// Starts it and waits until it runs; it ends with status 7.
  SpawnedProcess start() {
    SpawnedProcess result = spawnShell(command(), {folder_.path()});
    awaitStart();
    return result;
  }

  static std::string command() {
    return "echo $$ > \"$0/new\"; mv \"$0/new\" \"$0/id\"; read line < \"$0/gate\"; "
           "echo released > \"$0/end\"; exit 7";
  }

  void awaitStart() {
    EXPECT_TRUE(waitUntil([this] { return std::ifstream(folder_.file("id")).good(); }));
    process_ = std::stoi("0" + contentsOf(folder_.file("id")));
  }

  void release() {
    if (!isReleased_) {
      isReleased_ = true;
      EXPECT_EQ(write(gateHandle_, "\n", 1), 1);
    }
  }

  [[nodiscard]] pid_t process() const { return process_; }
  [[nodiscard]] const std::string& folder() const { return folder_.path(); }
  [[nodiscard]] bool cameToItsEnd() const {
    return contentsOf(folder_.file("end")) == "released\n";
  }

 private:
  [[nodiscard]] std::string gate() const { return folder_.file("gate"); }

  TemporaryFolder folder_;
  int gateHandle_ = -1;
  pid_t process_ = 0;
  bool isReleased_ = false;
};
