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
constexpr double decisive = 6;

// Few cuts are exactly between two lines.
constexpr double weightOfNoRest = -3.5;
constexpr double weightOfNoFit = -8;
constexpr double weightOfNoFitInAnyZone = -3;
// Most traces are read where they were written, or in the same zone.
constexpr double weightOfOtherZone = -3;
// A second and a half of a day, and of a quarter of an hour.
constexpr double chanceOfFit = 1.7e-5;
constexpr double chanceOfFitInAnyZone = 1.7e-3;
// A clock that was set back a little.
constexpr WallTime usualSetBack = 3 * microsecondsPerHour;
constexpr double weightOfSetBack = 9;
constexpr WallTime shortestSilence = 60 * microsecondsPerSecond;
constexpr double weightOfDayOfSilence = 11;
// What was written whole ends in a newline, unless the newest line is cut short.
constexpr double weightOfNoNewline = 5;

// What many junctions have is no sign.
double weightOf(double share) { return -std::log(share); }

// At the seam, any time of day is as likely as any other. Between two lines, short times are, but
// there is a long silence now and then, and a clock was set back.
double weightOfGap(WallTime gap, double usualGap) {
  const double day = static_cast<double>(microsecondsPerDay);
  const double time = static_cast<double>(gap);
  const double weight = 2 * std::log(time + usualGap) - std::log(usualGap) - std::log(day);
  if (gap < shortestSilence) {
    return weight;
  }
  return std::min(weight, gap > microsecondsPerDay - usualSetBack
                              ? weightOfSetBack
                              : weightOfDayOfSilence + std::log(time / day));
}

// With the file's last change go the newest line, unless the file was copied, and others by chance:
// the more so when the time zone may be another one.
double weightOfFit(LastChange::Fit fit, const Junctions& all) {
  using Fit = LastChange::Fit;
  if (fit == Fit::none) {
    return all.fits(Fit::inThisZone) > 0    ? weightOfNoFit
           : all.fits(Fit::inOtherZone) > 0 ? weightOfNoFitInAnyZone
                                            : 0;
  }
  const double share = (all.fits(fit) + 1) / (all.count() + 1);
  return fit == Fit::inThisZone
             ? weightOf(std::max(share, chanceOfFit))
             : weightOf(std::max(share, chanceOfFitInAnyZone)) + weightOfOtherZone;
}

// That the lines of this junction are the newest and the oldest one.
double weightAsSeam(const Junction& junction, const Junctions& all) {
  return (junction.hasRest ? weightOf((all.rests() + 1) / (all.count() + 1)) : weightOfNoRest) +
         weightOfFit(junction.fit, all) + weightOfGap(junction.gap(), all.usualGap()) +
         (junction.isTraceEnd ? certain : 0);
}

bool wasNeverFull(const std::vector<Part>& parts, std::uint64_t limit) {
  const std::uint64_t header = parts.size() == 1 ? 0 : parts[1].begin;
  return limit != 0 && parts.back().end + longestWritten < header + limit;
}

// From the end of the file to where the lines go on, if they do.
WallTime gapBehindEnd(const std::vector<Part>& parts) {
  WallTime gap = microsecondsPerDay;
  for (std::size_t i = parts.size() == 1 ? 0 : 1; i < parts.size(); ++i) {
    if (parts[i].hasLines) {
      gap = std::min(gap, timeBetween(parts.back().last.time, parts[i].first.time));
    }
  }
  return gap;
}

// That the newest line is at the end of the file.
double weightOfNoSeam(const RingScan& scan, const LastChange& change, std::uint64_t limit) {
  const Part& body = scan.parts.back();
  const bool isOverFull = limit != 0 && body.end > body.begin + limit;
  const Junctions& all = scan.junctions;
  // As likely as that there is any seam, and there are many places for that.
  return std::log(all.count() + 1) + weightOfFit(change.fit(body.last.time), all) +
         weightOfGap(gapBehindEnd(scan.parts), all.usualGap()) +
         (scan.endsInNewline ? 0 : weightOfNoNewline) +
         (wasNeverFull(scan.parts, limit) || isOverFull ? certain : 0);
}

// The part whose first line was written directly behind the last line of the file.
std::size_t partBehindEnd(const std::vector<Part>& parts, const Junction& seam) {
  std::size_t best = parts.size() - 1;
  WallTime shortest = std::numeric_limits<WallTime>::max();
  for (std::size_t i = parts.size() == 1 ? 0 : 1; i < parts.size(); ++i) {
    const bool hasLines = parts[i].hasLines && parts[i].first.offset < seam.cut;
    const WallTime gap = timeBetween(parts.back().last.time, parts[i].first.time);
    if (hasLines && gap < shortest) {
      best = i;
      shortest = gap;
    }
  }
  return best;
}

}  // namespace

RingOrder::RingOrder(const RingScan& scan, const LastChange& change, std::uint64_t limit) {
  const std::vector<Junction> candidates = scan.junctions.candidates();
  const Junction* seam = nullptr;
  if (scan.parts.back().hasLines) {
    double best = weightOfNoSeam(scan, change, limit);
    double second = -certain;
    for (const Junction& junction : candidates) {
      const double weight = weightAsSeam(junction, scan.junctions);
      second = std::max(second, std::min(weight, best));
      if (weight > best) {
        best = weight;
        seam = &junction;
      }
    }
    isUnknown = best - second < decisive;
  }
  arrange(scan.parts, seam);
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

void RingOrder::arrange(const std::vector<Part>& parts, const Junction* seam) {
  const std::size_t resumes = seam != nullptr ? partBehindEnd(parts, *seam) : parts.size();
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
