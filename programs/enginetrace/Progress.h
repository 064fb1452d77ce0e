#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <thread>

/// \file
/// How much has been read, for who waits at a terminal.

/// Tells on standard error, as long as it lives and when that is longer than a second, how much of
/// the traces has been read.
class Progress {
 public:
  /// \param size of all traces in bytes. They are read twice: for their order, and line by line.
  explicit Progress(std::uint64_t size);
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;
  /// Wipes it out.
  ~Progress();

 private:
  void run();

  const std::uint64_t size_;
  std::mutex mutex_;
  std::condition_variable changed_;
  bool isOver_ = false;
  std::thread thread_;
};
