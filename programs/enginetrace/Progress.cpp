#include "programs/enginetrace/Progress.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <string>

#include "programs/enginetrace/Messages.h"

namespace {

// What this process has read in all, as the kernel counts; 0 where it does not tell.
std::uint64_t bytesRead() {
  std::ifstream file("/proc/self/io");
  std::string name;
  std::uint64_t bytes = 0;
  return file >> name >> bytes && name == "rchar:" ? bytes : 0;
}

void show(const std::string& text) {
  // From the start of the line, whose rest is wiped out.
  std::fprintf(stderr, "\r%s\33[K", text.c_str());
}

}  // namespace

Progress::Progress(std::uint64_t size) : size_(size), thread_([this] { run(); }) {}

Progress::~Progress() {
  {
    const std::lock_guard guard(mutex_);
    isOver_ = true;
  }
  changed_.notify_one();
  thread_.join();
}

void Progress::run() {
  std::unique_lock lock(mutex_);
  bool isShown = false;
  while (!changed_.wait_for(lock, std::chrono::seconds(1), [this] { return isOver_; })) {
    const std::uint64_t percent = bytesRead() * 50 / std::max<std::uint64_t>(size_, 1);
    show(
        "enginetrace: " +
        messageText(Message::reading, static_cast<unsigned>(std::min<std::uint64_t>(percent, 99))));
    isShown = true;
  }
  if (isShown) {
    show("");
  }
}
