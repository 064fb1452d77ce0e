#pragma once

#include <atomic>
#include <map>
#include <mutex>
#include <string>

/// \file
/// What a part of the soak has to do, how far it has come, and what went wrong. Any thread may
/// call any of it.

class Work {
 public:
  /// \param name one word.
  /// \param goal how often it is to be done in a run of full length.
  Work(const char* name, unsigned long goal) : name_(name), goal_(goal) {}
  Work(const Work&) = delete;
  Work& operator=(const Work&) = delete;

  [[nodiscard]] const char* name() const { return name_; }
  [[nodiscard]] unsigned long goal() const { return goal_; }
  [[nodiscard]] unsigned long count() const { return count_; }

  /// The share of the goal that is done; above 1 behind it.
  [[nodiscard]] double progress() const {
    return static_cast<double>(count_) / static_cast<double>(goal_);
  }

  /// For the part's threads, before each step: waits while the part may not go further.
  /// \return false when it is to end.
  [[nodiscard]] bool goesOn() const;

  /// Counts what has been done.
  void done(unsigned long n = 1) { count_ += n; }

  /// Takes down that something went wrong, `n` times.
  /// \param what   the kind, the same words each time.
  /// \param detail of the first time, to be shown.
  void wrong(const std::string& what, const std::string& detail = {}, unsigned long n = 1);

  /// What went wrong, each kind with its number and first detail; empty when nothing did.
  [[nodiscard]] std::string whatWentWrong() const;

  /// How far the part may go.
  void allow(unsigned long count) { allowed_ = count; }

  void end() { isOver_ = true; }

 private:
  struct Fault {
    unsigned long number = 0;
    std::string first;
  };

  const char* const name_;
  const unsigned long goal_;
  std::atomic<unsigned long> count_ = 0;
  std::atomic<unsigned long> allowed_ = 0;
  std::atomic<bool> isOver_ = false;
  mutable std::mutex lock_;
  std::map<std::string, Fault> faults_;
};
