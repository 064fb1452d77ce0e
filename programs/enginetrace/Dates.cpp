#include "programs/enginetrace/Dates.h"

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <limits>

namespace {

// Clocks are set back by less, and silences are shorter than what is left of a day then.
constexpr WallTime usualSilence = 3 * microsecondsPerHour;
constexpr WallTime noSilence = microsecondsPerDay + 1;
constexpr std::uint64_t nowhere = std::numeric_limits<std::uint64_t>::max();

// The midnight before a line that was written about `time`.
WallTime dayAbout(WallTime time, WallTime timeOfDay) noexcept {
  const WallTime middle = time - timeOfDay + microsecondsPerDay / 2;
  const WallTime rest = middle % microsecondsPerDay;
  return middle - (rest < 0 ? rest + microsecondsPerDay : rest);
}

bool isBehind(const std::optional<Jump>& jump, std::uint64_t offset) noexcept {
  return jump && jump->behind.offset == offset;
}

// The steps backward in the order of the lines, the largest first. Where lines are lost is none:
// any number of days may be.
std::vector<BackStep> stepsIn(const RingScan& scan, const RingOrder& order) {
  std::vector<BackStep> steps;
  for (const BackStep& step : scan.backSteps) {
    if (!isBehind(order.lost, step.offset) && !isBehind(order.resumed, step.offset)) {
      steps.push_back(step);
    }
  }
  if (order.resumed) {
    if (const auto step = BackStep::between(order.resumed->before, order.resumed->behind)) {
      steps.push_back(*step);
    }
  }
  std::sort(steps.begin(), steps.end(),
            [](const BackStep& a, const BackStep& b) { return a.by > b.by; });
  return steps;
}

// Up to a line.
WallTime daysIn(const std::vector<BackStep>& steps, WallTime silence,
                std::uint64_t offset = nowhere) {
  WallTime days = 0;
  for (const BackStep& step : steps) {
    days += step.offset <= offset ? step.days(silence) : 0;
  }
  return days;
}

// Where a silence may be longer than it seems.
std::uint64_t longestSilence(const RingScan& scan, const RingOrder& order) {
  const std::uint64_t widest = scan.widest.behind.offset;
  const bool isInOrder = !isBehind(order.resumed, widest) &&
                         (!order.hasSeam || order.stretches.front().first.offset != widest);
  return isInOrder ? widest : scan.secondWidest.behind.offset;
}

// Between the parts of a file whole passes can be missing: there, what looks like a clock that was
// set back may be a day.
bool hasDoubt(const RingScan& scan, const std::vector<BackStep>& steps) {
  const auto beginsPart = [&](std::uint64_t offset) {
    const auto next =
        std::upper_bound(scan.parts.begin(), scan.parts.end(), offset,
                         [](std::uint64_t place, const Part& part) { return place < part.begin; });
    const Part& part = *std::prev(next);
    return part.hasLines && part.first.offset == offset;
  };
  return std::any_of(steps.begin(), steps.end(), [&](const BackStep& step) {
    return step.by < usualSilence && beginsPart(step.offset);
  });
}

}  // namespace

Dates::Dates(const RingScan& scan, const RingOrder& order, std::optional<WallTime> started,
             std::optional<WallTime> ended)
    : silence_(usualSilence), leapAt_(nowhere) {
  if (order.stretches.empty()) {
    return;
  }
  firstTime_ = order.stretches.front().first.time;
  const std::vector<BackStep> steps = stepsIn(scan, order);
  if (order.lost) {
    leapAt_ = order.lost->behind.offset;
    leap_ = order.lost->behind.time < order.lost->before.time ? microsecondsPerDay : 0;
  }
  const WallTime lastDay = ended ? dayAbout(*ended, order.newest.time) : 0;
  if (started) {
    firstDay_ = dayAbout(*started, firstTime_);
  } else if (ended) {
    firstDay_ = lastDay - leap_ - daysIn(steps, silence_) * microsecondsPerDay;
  }
  if (started && ended) {
    fit(steps, order, (lastDay - firstDay_) / microsecondsPerDay);
    if (!order.lost && leap_ != 0) {
      leapAt_ = longestSilence(scan, order);
    }
    areAllKnown_ = silence_ == usualSilence &&
                   (leap_ == 0 ? !hasDoubt(scan, steps) : order.lost && scan.parts.size() == 2);
  }
  last_ = firstDay_ + daysIn(steps, silence_) * microsecondsPerDay + leap_ + order.newest.time;
  if (order.lost) {
    const WallTime day =
        firstDay_ + daysIn(steps, silence_, order.lost->before.offset) * microsecondsPerDay;
    lostFrom_ = day + order.lost->before.time;
    lostUntil_ = day + leap_ + order.lost->behind.time;
  }
  rewind();
}

// Takes as many of the steps, the largest ones, for silences as the days ask for. Where lines are
// lost, more days may have gone by.
void Dates::fit(const std::vector<BackStep>& steps, const RingOrder& order, WallTime days) {
  const WallTime fewest = daysIn(steps, noSilence);
  const WallTime usual = daysIn(steps, silence_);
  const WallTime most = order.lost ? usual : fewest + static_cast<WallTime>(steps.size());
  const WallTime taken = std::clamp(days, fewest, most) - fewest;
  if (taken != usual - fewest) {
    silence_ = taken == 0 ? noSilence : steps[static_cast<std::size_t>(taken) - 1].by;
  }
  leap_ = (days - daysIn(steps, silence_)) * microsecondsPerDay;
}

WallTime Dates::timeOf(const LinePlace& line) noexcept {
  if (line.offset == leapAt_) {
    day_ += leap_;
  } else if (const auto step = BackStep::between({0, time_}, line)) {
    day_ += step->days(silence_) * microsecondsPerDay;
  }
  time_ = line.time;
  return day_ + line.time;
}

void Dates::rewind() noexcept {
  time_ = firstTime_;
  day_ = firstDay_;
}
