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
      rest = walk.bytes()[0] != '\n' ? std::optional(walk.offset()) : std::nullopt;
      continue;
    }
    const LinePlace line = {walk.offset(), timeOfDay(walk.bytes().data())};
    if (!since.holds(line.time)) {
      old = line;
      break;
    }
    newest = line;
    rest.reset();
  }
  end = old ? rest.value_or(old->offset) : walk.offset();
}

void catchUp(RingOrder& order, const FileBytes& file, const Since& since) {
  if (order.stretches.empty() || order.newest.offset < order.stretches.back().first.offset) {
    return;
  }
  const WriterPlace writer(file, order.newest.offset, since);
  if (!writer.newest) {
    return;
  }
  order.newest = *writer.newest;
  order.stretches.back().end = writer.end;
  const auto oldest = std::find_if(
      order.stretches.begin(), order.stretches.end(),
      [&](const Stretch& stretch) { return stretch.first.offset > order.newest.offset; });
  if (oldest == order.stretches.end()) {
    return;
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
}
