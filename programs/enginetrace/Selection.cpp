#include "programs/enginetrace/Selection.h"

#include <utility>

Selection::Selection(const Filter& filter, const SelectionLimits& limits, LineWriter& to)
    : filter_(filter), limits_(limits), to_(to) {}

void Selection::write(const Line& line) {
  if (!filter_.isInTime(line)) {
    return;
  }
  if (isFull() || !filter_.finds(line.whole) || ++found_ <= limits_.skip) {
    pass(line);
  } else {
    take(line);
  }
}

void Selection::take(const Line& line) {
  if (hasTaken_ && hasDropped_ && (limits_.before > 0 || limits_.after > 0)) {
    to_.gap();
  }
  if (!kept_.empty()) {
    for (const Kept& kept : kept_) {
      to_.write({kept.whole, kept.time, kept.process});
    }
    kept_.clear();
  }
  to_.write(line);
  after_ = limits_.after;
  hasTaken_ = true;
  hasDropped_ = false;
}

void Selection::pass(const Line& line) {
  if (after_ > 0) {
    --after_;
    to_.write(line);
  } else if (limits_.before > 0) {
    keep(line);
  } else {
    hasDropped_ = true;
  }
}

void Selection::keep(const Line& line) {
  Kept kept;
  if (kept_.size() == limits_.before) {
    // Its memory serves again.
    kept = std::move(kept_.front());
    kept_.pop_front();
    hasDropped_ = true;
  }
  kept.whole = line.whole;
  kept.time = line.time;
  kept.process = line.process;
  kept_.push_back(std::move(kept));
}
