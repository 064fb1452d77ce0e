#pragma once

#include <algorithm>
#include <atomic>
#include <fstream>
#include <functional>
#include <pthread.h>
#include <string>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "Engine/utilities/StdThread.h"
#include "Engine/utilities/UNIX/UNIX_Mutex.h"

#include "tests/support/Child.h"
#include "tests/support/TemporaryFolder.h"
#include "tests/support/VirtualSlot.h"
#include "tests/support/WaitUntil.h"

/// \file
/// What the tests of threads share.

/// Whether the thread with this kernel id waits in the kernel; 0 is none.
inline bool isAsleep(pid_t task) {
  if (task == 0) {
    return false;
  }
  std::ifstream stat("/proc/self/task/" + std::to_string(task) + "/stat");
  const std::string text{std::istreambuf_iterator<char>(stat), {}};
  const size_t name = text.rfind(") ");
  return name != std::string::npos && text[name + 2] == 'S';
}

/// Waits until it does.
inline bool waitUntilAsleep(const std::atomic<pid_t>& task) {
  return waitUntil([&task] { return isAsleep(task); });
}

/// Whether another thread would get the lock at once.
inline bool isFree(UNIX_Mutex& lock) {
  bool result = false;
  std::thread([&lock, &result] {
    result = pthread_mutex_trylock(lock.nativeHandle()) == 0;
    if (result) {
      pthread_mutex_unlock(lock.nativeHandle());
    }
  }).join();
  return result;
}

/// A thread that runs a function. Deletes itself like every started thread.
class FunctionThread : public StdThread {
 public:
  explicit FunctionThread(std::function<void()> body, Termination* termination = nullptr,
                          const char* name = "function", unsigned stackSize = 0)
      : StdThread(name, stackSize, termination), body_(std::move(body)) {}
  void run() override { body_(); }

 private:
  std::function<void()> body_;
};

/// Starts `body` on a thread of its own.
inline FunctionThread* startThread(std::function<void()> body,
                                   StdThread::Termination* termination = nullptr,
                                   const char* name = "function") {
  auto* thread = new FunctionThread(std::move(body), termination, name);
  thread->start_thread(0);
  return thread;
}

/// Runs `body` on a thread of its own and waits for its end.
inline void runOnThread(std::function<void()> body) {
  StdThread::Termination termination;
  startThread(std::move(body), &termination);
  EXPECT_EQ(termination.wait(0), 0);
}

/// Runs a child case that writes a trace.
struct TracedChild {
  explicit TracedChild(const std::string& name, ChildOptions options = {}) {
    const TemporaryFolder folder;
    options.environment["GDIA_ID"] = "root";
    options.environment["QVX_DBG_TRACE"] = folder.file("trace") + ",64";
    result = runChild(name, options);
    std::ifstream stream(folder.file("trace"));
    for (std::string line; std::getline(stream, line);) {
      lines.push_back(line);
    }
  }

  /// How many trace lines are `text` behind time stamp and thread name.
  [[nodiscard]] long count(const std::string& text) const {
    return std::count_if(lines.begin(), lines.end(), [&text](const std::string& line) {
      const size_t at = line.find(')');
      return at != std::string::npos && line.substr(at + 1) == text;
    });
  }

  /// How many trace lines contain `text`.
  [[nodiscard]] long countContaining(const std::string& text) const {
    return std::count_if(lines.begin(), lines.end(), [&text](const std::string& line) {
      return line.find(text) != std::string::npos;
    });
  }

  /// Everything, for messages.
  [[nodiscard]] std::string all() const {
    std::string text = result.out + result.err;
    for (const std::string& line : lines) {
      text += line + "\n";
    }
    return text;
  }

  ChildResult result;
  std::vector<std::string> lines;
};
