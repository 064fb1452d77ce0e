#include "programs/enginetrace/RingScan.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <numeric>
#include <utility>

#include "programs/enginetrace/LineStart.h"
#include "programs/enginetrace/LineWalk.h"

std::size_t Junctions::kindOf(const Junction& junction) noexcept {
  return 2 * static_cast<std::size_t>(junction.fit) + (junction.hasRest ? 1 : 0);
}

void Junctions::add(const Junction& junction) noexcept {
  const WallTime gap = junction.gap();
  const std::size_t kind = kindOf(junction);
  ++counts_[kind][static_cast<unsigned>(std::bit_width(static_cast<std::uint64_t>(gap)))];
  if (junction.isTraceEnd) {
    traceEnd_ = junction;
    return;
  }
  auto& [first, second] = widest_[kind];
  if (kept_[kind] == 0 || gap > first.gap()) {
    second = first;
    first = junction;
  } else if (kept_[kind] == 1 || gap > second.gap()) {
    second = junction;
  } else {
    return;
  }
  kept_[kind] = std::min(kept_[kind] + 1, 2U);
}

std::vector<Junction> Junctions::candidates() const {
  std::vector<Junction> all;
  for (std::size_t kind = 0; kind < kinds; ++kind) {
    all.insert(all.end(), widest_[kind].begin(), widest_[kind].begin() + kept_[kind]);
  }
  if (traceEnd_.isTraceEnd) {
    all.push_back(traceEnd_);
  }
  return all;
}

std::vector<Junctions::Group> Junctions::groups() const {
  std::vector<Group> groups;
  for (std::size_t kind = 0; kind < kinds; ++kind) {
    for (std::size_t digits = 0; digits <= mostDigits; ++digits) {
      if (const std::uint64_t count = counts_[kind][digits]; count > 0) {
        groups.push_back({static_cast<LastChange::Fit>(kind / 2), kind % 2 != 0,
                          WallTime{1} << digits, static_cast<double>(count)});
      }
    }
  }
  return groups;
}

double Junctions::count() const noexcept {
  std::uint64_t count = 0;
  for (const auto& kind : counts_) {
    count = std::accumulate(kind.begin(), kind.end(), count);
  }
  return static_cast<double>(count);
}

double Junctions::rests() const noexcept {
  std::uint64_t count = 0;
  for (std::size_t kind = 1; kind < kinds; kind += 2) {
    count = std::accumulate(counts_[kind].begin(), counts_[kind].end(), count);
  }
  return static_cast<double>(count);
}

double Junctions::usualGap() const noexcept {
  std::uint64_t all = 0;
  for (const auto& kind : counts_) {
    for (std::size_t digits = 0; digits <= mostDigits; ++digits) {
      all += digits * kind[digits];
    }
  }
  return all == 0 ? 1 : std::exp2(static_cast<double>(all) / count());
}

namespace {

// The first line that begins near behind a place.
std::optional<LinePlace> firstLine(const FileBytes& file, std::uint64_t place) {
  char buffer[2048];
  const std::string_view bytes(buffer, file.read(place, buffer, sizeof buffer));
  for (std::size_t at = bytes.find('\n'); at != std::string_view::npos; at = bytes.find('\n', at)) {
    ++at;
    if (beginsLine(bytes.substr(at))) {
      return LinePlace{place + at, timeOfDay(bytes.data() + at)};
    }
  }
  return std::nullopt;
}

}  // namespace

std::optional<BackStep> BackStep::between(const LinePlace& before,
                                          const LinePlace& behind) noexcept {
  const WallTime by = microsecondsPerDay - timeBetween(before.time, behind.time);
  const bool isForward = behind.time >= before.time;
  if (isForward && by > microsecondsPerDay / 2) {
    return std::nullopt;
  }
  return BackStep{behind.offset, by, isForward};
}

RingScan::RingScan(const FileBytes& file, const LastChange& change) {
  parts.emplace_back();
  walk(file, 0, file.size(), change);
}

// From a line on, which is not taken again if it was, to the first that begins behind `end`.
void RingScan::walk(const FileBytes& file, std::uint64_t begin, std::uint64_t end,
                    const LastChange& change) {
  LineWalk lines(file, begin, end - begin);
  while (lines.next()) {
    const std::string_view bytes = lines.bytes();
    if (beginsLine(bytes)) {
      if (!hasLine_ || lines.offset() != line_.offset) {
        takeLine({lines.offset(), timeOfDay(bytes.data())}, change);
      }
      isTraceEnd_ = bytes.substr(lineStartLength).starts_with(LineWalk::traceEnd);
      if (lines.offset() >= end && end < file.size()) {
        return;
      }
    } else if (beginsSeparator(bytes)) {
      takeSeparator(lines.offset());
    } else {
      // An empty line is hardly the rest of a cut one, but often the end of a text.
      hasRest_ = bytes[0] != '\n';
      rest_ = lines.offset();
    }
  }
  parts.back().end = lines.offset();
  endsInNewline = lines.endsInNewline();
}

std::optional<RingScan> RingScan::quick(const FileBytes& file, const LastChange& change) {
  constexpr std::uint64_t stride = 65'536;
  constexpr std::uint64_t smallest = 256 * stride;
  constexpr WallTime unusual = 8;
  RingScan scan;
  if (file.size() < smallest) {
    return std::nullopt;
  }
  scan.parts.emplace_back();
  scan.walk(file, 0, stride, change);
  if (scan.parts.size() != 2 || !scan.parts[1].hasLines) {
    return std::nullopt;
  }
  WallTime passed = timeBetween(scan.parts[1].first.time, scan.line_.time);
  WallTime strides = 1;
  std::uint64_t place = scan.line_.offset;
  while (place + 2 * stride < file.size()) {
    place += stride;
    const std::optional<LinePlace> line = firstLine(file, place);
    const WallTime gap = line ? line->time - scan.line_.time : -1;
    scan.usualStride = passed / strides * unusual + microsecondsPerSecond / 100;
    if (gap < 0 || gap > scan.usualStride) {
      scan.walk(file, scan.line_.offset, place, change);
      if (scan.line_.offset < place || scan.parts.size() != 2) {
        return std::nullopt;
      }
    } else {
      passed += gap;
      ++strides;
      scan.line_ = scan.parts.back().last = *line;
    }
    place = std::max(place, scan.line_.offset);
  }
  scan.walk(file, scan.line_.offset, file.size(), change);
  return scan.parts.size() == 2 ? std::optional(std::move(scan)) : std::nullopt;
}

void RingScan::takeLine(const LinePlace& line, const LastChange& change) {
  if (hasLine_) {
    join(line, change);
  }
  Part& part = parts.back();
  if (!part.hasLines) {
    part.hasLines = true;
    part.first = line;
  }
  part.last = line;
  line_ = line;
  hasLine_ = true;
  hasRest_ = false;
}

void RingScan::join(const LinePlace& line, const LastChange& change) {
  const Part& part = parts.back();
  Junction junction;
  junction.before = line_;
  junction.behind = line;
  junction.cut = !part.hasLines ? part.begin : hasRest_ ? rest_ : line.offset;
  junction.hasRest = hasRest_;
  junction.isTraceEnd = isTraceEnd_;
  const WallTime gap = junction.gap();
  if (const std::optional<BackStep> step = BackStep::between(line_, line)) {
    if (backSteps.size() < mostBackSteps) {
      backSteps.push_back(*step);
    }
  } else if (gap > widest.gap()) {
    secondWidest = widest;
    widest = junction;
  } else if (gap > secondWidest.gap()) {
    secondWidest = junction;
  }
  // Nothing is cut directly behind the header.
  if (part.hasLines || parts.size() > 2) {
    junction.fit = change.fit(line_.time);
    junctions.add(junction);
  }
}

void RingScan::takeSeparator(std::uint64_t offset) {
  ++separators;
  if (parts.size() == 1 || parts.back().hasLines) {
    parts.back().end = offset;
    parts.emplace_back();
  }
  parts.back().begin = offset + separatorLine.size();
  junctions.clear();
  hasRest_ = false;
}
