#pragma once

#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <set>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/ChildMain.h"

/// \file
/// Programs for tests of what is told about the processes of the machine.

/// A shell that waits for its input to end.
class WaitingProgram {
 public:
  /// \param arguments its last ones.
  explicit WaitingProgram(std::vector<std::string> arguments) {
    int gate[2];
    int ready[2];
    EXPECT_EQ(pipe2(gate, O_CLOEXEC), 0);
    EXPECT_EQ(pipe2(ready, O_CLOEXEC), 0);
    arguments.insert(arguments.begin(), {"waiter", "-c", "read -r line || :", "name"});
    std::vector<char*> words = pointersTo(arguments);
    id_ = fork();
    if (id_ == 0) {
      dup2(gate[0], STDIN_FILENO);
      execv("/bin/sh", words.data());
      _exit(127);
    }
    close(gate[0]);
    close(ready[1]);
    // The other end is closed when the program has started.
    char byte;
    EXPECT_EQ(read(ready[0], &byte, 1), 0);
    close(ready[0]);
    gate_ = gate[1];
    for (const std::string& argument : arguments) {
      list_.append(argument).push_back('\0');
    }
  }
  WaitingProgram(const WaitingProgram&) = delete;
  WaitingProgram& operator=(const WaitingProgram&) = delete;
  ~WaitingProgram() {
    close(gate_);
    if (!isReaped_) {
      reap();
    }
  }

  pid_t id() const { return id_; }

  /// All its arguments, each with its zero byte.
  const std::string& list() const { return list_; }

  /// Ends it and waits until it is a zombie.
  void end() {
    kill(id_, SIGKILL);
    siginfo_t info;
    EXPECT_EQ(waitid(P_PID, static_cast<id_t>(id_), &info, WEXITED | WNOWAIT), 0);
  }

  /// What is left of it goes.
  void reap() {
    EXPECT_EQ(waitpid(id_, nullptr, 0), id_);
    isReaped_ = true;
  }

 private:
  pid_t id_ = 0;
  int gate_ = -1;
  bool isReaped_ = false;
  std::string list_;
};

/// The processes that have a folder in /proc.
inline std::set<pid_t> processesInProc() {
  std::set<pid_t> result;
  for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
    const std::string name = entry.path().filename();
    if (name.find_first_not_of("0123456789") == std::string::npos) {
      result.insert(std::stoi(name));
    }
  }
  return result;
}
