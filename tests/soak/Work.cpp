#include "tests/soak/Work.h"

#include <chrono>
#include <thread>

bool Work::goesOn() const {
  while (!isOver_ && count_ >= allowed_) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return !isOver_;
}

void Work::wrong(const std::string& what, const std::string& detail, unsigned long n) {
  const std::lock_guard guard(lock_);
  Fault& fault = faults_[what];
  if (fault.number == 0) {
    fault.first = detail;
  }
  fault.number += n;
}

std::string Work::whatWentWrong() const {
  const std::lock_guard guard(lock_);
  std::string text;
  for (const auto& [what, fault] : faults_) {
    text += text.empty() ? "" : "; ";
    text += std::to_string(fault.number) + " " + what;
    if (!fault.first.empty()) {
      text += ", first: " + fault.first;
    }
  }
  return text;
}
