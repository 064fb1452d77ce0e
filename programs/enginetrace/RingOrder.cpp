#include "programs/enginetrace/RingOrder.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace {

// The trace cuts what is longer.
constexpr std::uint64_t longestWritten = 128'000;

// Weights are logarithms of how much more often something is seen at the seam, or at the end of a
// ring that was not wrapped, than between any two lines.
constexpr double certain = 100;
// By how much all others together must weigh less. Those for where the lines go on speak of few
// places, and are modest.
constexpr double decisive = 6;
constexpr double decisiveOfFew = 2;

// Few cuts are exactly between two lines.
constexpr double shareWithoutRest = 0.03;
// Most traces are read where they were written, or in the same zone. Others were copied.
constexpr double shareInThisZone = 0.6;
constexpr double shareInOtherZone = 0.2;
constexpr double shareWithoutFit = 0.2;
// A second and a half of a day, and of a quarter of an hour.
constexpr double chanceOfFit = 1.7e-5;
constexpr double chanceOfFitInAnyZone = 1.7e-3;
// In one trace of some dozen a clock is set back a little, in one of three there is a silence.
constexpr WallTime usualSetBack = 3 * microsecondsPerHour;
constexpr double weightOfSetBack = 2;
constexpr WallTime shortestSilence = 60 * microsecondsPerSecond;
constexpr double weightOfDayOfSilence = 1;
constexpr double weightOfSetBackInstead = -1.5;
// What was written whole ends in a newline, unless the newest line is cut short.
constexpr double weightOfNoNewline = 5;

// Few passes set rewind points.
constexpr double weightOfRewindPoint = 1;

// What speaks for a seam.
struct Signs {
  explicit Signs(const Junctions& all)
      : groups(all.groups()),
        count(all.count() + 1),
        rests(all.rests() + 1),
        usualGap(all.usualGap()) {}

  // What many junctions have is no sign.
  [[nodiscard]] double weightOfRest(bool hasRest) const {
    return hasRest ? std::log((1 - shareWithoutRest) * count / rests)
                   : std::log(shareWithoutRest * count / (count - rests + 1));
  }

  // Of the gaps, those that are about as long or longer.
  [[nodiscard]] double shareOfLonger(WallTime gap) const {
    double longer = 1;
    for (const Junctions::Group& group : groups) {
      longer += group.below > gap ? group.count : 0;
    }
    return longer / count;
  }

  // At the seam, any time of day is as likely as any other. Between two lines, short times are, but
  // there is a long silence now and then, and a clock was set back.
  [[nodiscard]] double weightOfGap(WallTime gap) const {
    const double day = static_cast<double>(microsecondsPerDay);
    const double time = static_cast<double>(gap);
    const double share = std::min(usualGap / (time + usualGap), shareOfLonger(gap));
    const double weight = std::log((time + usualGap) / day) - std::log(share);
    if (gap < shortestSilence) {
      return weight;
    }
    return std::min(weight, std::log(count) + (gap > microsecondsPerDay - usualSetBack
                                                   ? weightOfSetBack
                                                   : weightOfDayOfSilence + std::log(time / day)));
  }

  // With the file's last change go the newest line, unless the file was copied, and others by
  // chance: the more so when the time zone may be another one.
  static double weightOfFit(LastChange::Fit fit) {
    switch (fit) {
      case LastChange::Fit::inThisZone:
        return std::log(shareInThisZone / chanceOfFit);
      case LastChange::Fit::inOtherZone:
        return std::log(shareInOtherZone / chanceOfFitInAnyZone);
      case LastChange::Fit::none:
        break;
    }
    return std::log(shareWithoutFit);
  }

  [[nodiscard]] double weight(bool hasRest, LastChange::Fit fit, WallTime gap) const {
    return weightOfRest(hasRest) + weightOfFit(fit) + weightOfGap(gap);
  }

  // That the lines of this junction are the newest and the oldest one.
  [[nodiscard]] double weight(const Junction& junction) const {
    return weight(junction.hasRest, junction.fit, junction.gap()) +
           (junction.isTraceEnd ? certain : 0);
  }

  std::vector<Junctions::Group> groups;
  double count;
  double rests;
  double usualGap;
};

bool wasNeverFull(const std::deque<Part>& parts, std::uint64_t limit) {
  const std::uint64_t header = parts.size() == 1 ? 0 : parts[1].begin;
  return limit != 0 && parts.back().end + longestWritten < header + limit;
}

// From the end of the file to where the lines go on, if they do.
WallTime gapBehindEnd(const std::deque<Part>& parts) {
  WallTime gap = microsecondsPerDay;
  for (std::size_t i = parts.size() == 1 ? 0 : 1; i < parts.size(); ++i) {
    if (parts[i].hasLines) {
      gap = std::min(gap, timeBetween(parts.back().last.time, parts[i].first.time));
    }
  }
  return gap;
}

// That the newest line is at the end of the file.
double weightOfNoSeam(const RingScan& scan, const Signs& signs, const LastChange& change,
                      std::uint64_t limit) {
  const Part& body = scan.parts.back();
  const bool isOverFull = limit != 0 && body.end > body.begin + limit;
  // As likely as that there is any seam, and there are many places for that.
  return std::log(signs.count) + Signs::weightOfFit(change.fit(body.last.time)) +
         signs.weightOfGap(gapBehindEnd(scan.parts)) +
         (scan.endsInNewline ? 0 : weightOfNoNewline) +
         (wasNeverFull(scan.parts, limit) || isOverFull ? certain : 0);
}

// That any other junction than this one is the seam.
double weightOfOthers(const Signs& signs, const Junction* seam) {
  double all = 0;
  bool isLeftOut = seam == nullptr;
  for (const Junctions::Group& group : signs.groups) {
    const bool isOwn = !isLeftOut && group.fit == seam->fit && group.hasRest == seam->hasRest &&
                       seam->gap() < group.below;
    isLeftOut = isLeftOut || isOwn;
    all += (group.count - (isOwn ? 1 : 0)) *
           std::exp(signs.weight(group.hasRest, group.fit, group.below / 4 * 3));
  }
  return std::log(all);
}

// A silence in a ring that has not lasted much longer, or the newest line behind it and a clock
// that was set back: both show the same gaps.
bool isSetBackInstead(WallTime gapOfSeam, WallTime silence) {
  // An hour, and what the ring has lasted.
  constexpr WallTime most = 4000 * microsecondsPerSecond;
  const WallTime by = microsecondsPerDay - gapOfSeam;
  return by <= most && silence >= shortestSilence && silence <= by && silence > by / 2;
}

// Whether a pass that has begun there has ended where the file does.
bool isEndOfPass(const Part& part, std::uint64_t end, std::uint64_t limit) {
  return limit == 0 || (end <= part.begin + limit && end + longestWritten > part.begin + limit);
}

// The part whose first line was written directly behind the last line of the file.
struct Resumption {
  std::size_t part;
  bool isUnknown = false;
};

Resumption partBehindEnd(const std::deque<Part>& parts, const Signs& signs, const Junction& seam,
                         std::uint64_t limit) {
  Resumption best{parts.size() - 1};
  double most = std::numeric_limits<double>::lowest();
  double second = most;
  // Where the present pass has set rewind points, its parts follow each other as its lines do.
  double behind = 0;
  const Part* next = nullptr;
  for (std::size_t i = parts.size(); i-- > (parts.size() == 1 ? 0 : 1);) {
    const Part& part = parts[i];
    if (!part.hasLines || part.first.offset >= seam.cut) {
      continue;
    }
    if (next != nullptr) {
      const auto gap = static_cast<double>(timeBetween(part.last.time, next->first.time));
      behind -= std::log(1 + gap / signs.usualGap) + weightOfRewindPoint;
    }
    const double weight = behind -
                          signs.weightOfGap(timeBetween(parts.back().last.time, part.first.time)) -
                          (isEndOfPass(part, parts.back().end, limit) ? 0 : certain);
    second = std::max(second, std::min(weight, most));
    if (weight > most) {
      most = weight;
      best.part = i;
    }
    next = &part;
  }
  best.isUnknown = most - second < decisiveOfFew;
  return best;
}

}  // namespace

RingOrder::RingOrder(const RingScan& scan, const LastChange& change, std::uint64_t limit) {
  const Signs signs(scan.junctions);
  const std::vector<Junction> candidates = scan.junctions.candidates();
  const Junction* seam = nullptr;
  std::size_t resumes = scan.parts.size();
  if (scan.parts.back().hasLines) {
    double best = weightOfNoSeam(scan, signs, change, limit);
    double second = -certain;
    for (const Junction& junction : candidates) {
      const double weight = signs.weight(junction);
      second = std::max(second, std::min(weight, best));
      if (weight > best) {
        best = weight;
        seam = &junction;
      }
    }
    second = std::max(second, weightOfOthers(signs, seam));
    const WallTime gap = seam != nullptr ? seam->gap() : gapBehindEnd(scan.parts);
    for (const Junction& rival : candidates) {
      if (isSetBackInstead(gap, rival.gap())) {
        second =
            std::max(second, signs.weight(rival.hasRest, rival.fit, gap) + weightOfSetBackInstead);
      }
    }
    isUnknown = best - second < decisive;
  }
  if (seam != nullptr) {
    const Resumption resumption = partBehindEnd(scan.parts, signs, *seam, limit);
    resumes = resumption.part;
    isUnknown = isUnknown || resumption.isUnknown;
  }
  arrange(scan.parts, seam, resumes);
  // The present pass may have overwritten the one before to its end.
  const bool isFull = limit != 0 && !wasNeverFull(scan.parts, limit);
  if (!hasSeam && isFull && stretches.size() == 2 && scan.parts.size() == 2) {
    lost = {scan.parts[0].last, scan.parts[1].first};
  }
}

bool RingOrder::isPlain(const RingScan& scan) const {
  return !isUnknown &&
         (!hasSeam ? !lost
                   : resumed && timeBetween(resumed->before.time, resumed->behind.time) <=
                                    scan.usualStride);
}

void RingOrder::arrange(const std::deque<Part>& parts, const Junction* seam, std::size_t resumes) {
  for (std::size_t i = 0; i < parts.size(); ++i) {
    const Part& part = parts[i];
    if (seam != nullptr && i == resumes) {
      if (!stretches.empty()) {
        lost = {newest, seam->behind};
      }
      stretches.push_back({seam->behind, parts.back().end});
      newest = parts.back().last;
    }
    const std::uint64_t end = seam != nullptr && i + 1 == parts.size() ? seam->cut : part.end;
    if (part.hasLines && part.first.offset < end) {
      if (i == resumes) {
        resumed = {newest, part.first};
      }
      stretches.push_back({part.first, end});
      newest = part.last;
    }
  }
  if (seam != nullptr) {
    newest = seam->before;
    hasSeam = true;
    cutBytes = seam->behind.offset - seam->cut;
  }
}
