#include "programs/enginetrace/Merge.h"

#include <algorithm>
#include <utility>

Merge::Merge(const std::vector<Source>& sources) {
  for (std::size_t rank = 0; rank < sources.size(); ++rank) {
    Input input{sources[rank], rank, {}};
    if (read(input)) {
      inputs_.push_back(input);
    }
  }
  // What is sorted is a heap.
  std::sort(inputs_.begin(), inputs_.end(), comesFirst);
}

bool Merge::read(Input& input) {
  const bool isThere = input.source.lines->next(input.line);
  input.line.process = input.source.process;
  return isThere;
}

bool Merge::comesFirst(const Input& one, const Input& other) noexcept {
  return one.line.time < other.line.time ||
         (one.line.time == other.line.time && one.rank < other.rank);
}

bool Merge::next(Line& line) {
  if (hasGiven_) {
    // Only now: the line that was given last has been used.
    if (!read(inputs_.front())) {
      inputs_.front() = inputs_.back();
      inputs_.pop_back();
    }
    sink();
    hasGiven_ = false;
  }
  if (inputs_.empty()) {
    return false;
  }
  line = inputs_.front().line;
  hasGiven_ = true;
  return true;
}

// Moves the first input to where it belongs. Most often it stays: a process writes several lines
// in a row.
void Merge::sink() noexcept {
  std::size_t place = 0;
  for (;;) {
    std::size_t next = 2 * place + 1;
    if (next >= inputs_.size()) {
      return;
    }
    if (next + 1 < inputs_.size() && comesFirst(inputs_[next + 1], inputs_[next])) {
      ++next;
    }
    if (!comesFirst(inputs_[next], inputs_[place])) {
      return;
    }
    std::swap(inputs_[next], inputs_[place]);
    place = next;
  }
}
