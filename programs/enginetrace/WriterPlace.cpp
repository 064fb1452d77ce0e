#include "programs/enginetrace/WriterPlace.h"

#include <algorithm>

#include "programs/enginetrace/LineStart.h"
#include "programs/enginetrace/LineWalk.h"

bool Since::holds(WallTime timeOfDay) const noexcept {
  // What was written while the file was looked at, and the second that times lag behind.
  constexpr WallTime tolerance = 4 * microsecondsPerSecond;
  const WallTime later = timeBetween(newest, timeOfDay);
  return later <= tolerance || (later >= opened - tolerance && later <= now + tolerance);
}

WriterPlace::WriterPlace(const FileBytes& file, std::uint64_t from, const Since& since)
    : end(from) {
  LineWalk walk(file, from);
  std::optional<std::uint64_t> rest;
  while (walk.next()) {
    if (!beginsLine(walk.bytes())) {
      separator = beginsSeparator(walk.bytes()) ? walk.offset() : separator;
      rest = walk.bytes()[0] != '\n' ? std::optional(walk.offset()) : std::nullopt;
      continue;
    }
    const LinePlace line = {walk.offset(), timeOfDay(walk.bytes().data())};
    if (!since.holds(line.time)) {
      old = line;
      break;
    }
    before = newest;
    newest = line;
    rest.reset();
  }
  end = old ? rest.value_or(old->offset) : walk.offset();
}

WriterPlace wholeLinesBehind(const FileBytes& file, std::uint64_t from, const Since& since) {
  const WriterPlace place(file, from, since);
  if (!place.newest) {
    return place;
  }
  // The newest line may be there in part, up to the next look. When others have come behind it,
  // it is whole, and so are all but the last of those.
  file.awaitWrite();
  WriterPlace later(file, place.newest->offset, since);
  if (later.newest && later.newest->offset != place.newest->offset) {
    later.end = later.newest->offset;
    later.newest = later.before;
  } else if (!later.newest) {
    // It has gone.
    later.end = place.newest->offset;
    later.newest = place.before;
  }
  later.separator = std::max(later.separator, place.separator);
  return later;
}

bool catchUp(RingOrder& order, const FileBytes& file, std::uint64_t ring, const Since& since) {
  // While no line is in the ring, the newest one is kept and stays as it is.
  if (order.stretches.empty() || order.newest.offset < order.stretches.back().first.offset ||
      order.newest.offset < ring) {
    return true;
  }
  const WriterPlace writer = wholeLinesBehind(file, order.newest.offset, since);
  if (writer.separator > ring) {
    return false;
  }
  if (!writer.newest) {
    return true;
  }
  const auto oldest = std::find_if(
      order.stretches.begin(), order.stretches.end(),
      [&](const Stretch& stretch) { return stretch.first.offset > order.newest.offset; });
  order.newest = *writer.newest;
  order.stretches.back().end = writer.end;
  if (oldest == order.stretches.end()) {
    return true;
  }
  if (writer.old) {
    oldest->first = *writer.old;
    order.cutBytes = writer.old->offset - writer.end;
  } else {
    order.stretches.erase(oldest);
    order.cutBytes = 0;
  }
  if (order.lost && order.resumed) {
    order.lost->behind = writer.old.value_or(order.resumed->behind);
  }
  if (!writer.old) {
    order.resumed.reset();
  }
  return true;
}
