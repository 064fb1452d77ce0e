#include "programs/enginetrace/TraceFile.h"

#include <algorithm>
#include <charconv>
#include <ctime>

#include "programs/enginetrace/Dates.h"
#include "programs/enginetrace/FileBytes.h"
#include "programs/enginetrace/LastChange.h"
#include "programs/enginetrace/LineStart.h"
#include "programs/enginetrace/RingOrder.h"
#include "programs/enginetrace/RingScan.h"
#include "programs/enginetrace/StretchReader.h"
#include "programs/enginetrace/TraceHeader.h"
#include "programs/enginetrace/WriterPlace.h"

bool looksLikeATrace(std::string_view bytes) noexcept {
  if (bytes.empty()) {
    return true;
  }
  bytes = bytes.substr(0, notATraceWithin);
  while (!beginsLine(bytes)) {
    const std::size_t newline = bytes.find('\n');
    if (newline == std::string_view::npos) {
      return false;
    }
    bytes.remove_prefix(newline + 1);
  }
  return true;
}

namespace {

// "root.1234.trc" and "1234.trc" in any folder.
Process processOf(const std::string& path) {
  Process process;
  process.path = path;
  std::string_view name = path;
  name.remove_prefix(name.rfind('/') + 1);
  process.mark = name;
  constexpr std::string_view ending = ".trc";
  if (!name.ends_with(ending)) {
    return process;
  }
  name.remove_suffix(ending.size());
  const std::size_t dot = name.rfind('.');
  const std::string_view digits = name.substr(dot + 1);
  unsigned id = 0;
  const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), id);
  if (error != std::errc() || end != digits.data() + digits.size()) {
    return process;
  }
  process.id = id;
  process.role = dot == std::string_view::npos ? std::string_view() : name.substr(0, dot);
  process.mark = name;
  return process;
}

}  // namespace

namespace {

constexpr std::size_t headerLength = 65'536;
constexpr std::size_t lastLineLength = 512;

std::string bytesAt(const FileBytes& file, std::uint64_t offset, std::uint64_t size) {
  std::string bytes(std::min(size, file.size()), '\0');
  bytes.resize(file.read(offset, bytes.data(), bytes.size()));
  return bytes;
}

WallTime now() noexcept {
  std::timespec time = {};
  clock_gettime(CLOCK_REALTIME, &time);
  return time.tv_sec * microsecondsPerSecond + time.tv_nsec / 1000;
}

}  // namespace

struct TraceFile::State {
  explicit State(const std::string& path);

  [[nodiscard]] Since sinceOpened() const noexcept;
  void describe(const RingScan& scan);

  FileBytes file;
  WallTime opened = now();
  TraceFacts facts;
  RingOrder order;
  Dates dates;
  StretchReader reader;
  std::uint64_t unread = 0;  // before anything was lost while reading
  WallTime time = 0;
};

TraceFile::State::State(const std::string& path)
    : file(path), reader(file, order.stretches, [this](std::uint64_t from) {
        return WriterPlace(file, from, sinceOpened()).old;
      }) {
  if (!looksLikeATrace(bytesAt(file, 0, notATraceWithin))) {
    throw NotATrace(path);
  }
  const LastChange change(file.lastChange(), opened);
  facts.process = processOf(path);
  readHeader(bytesAt(file, 0, headerLength), facts);
  std::optional<RingScan> scan = RingScan::quick(file, change);
  if (scan) {
    order = RingOrder(*scan, change, facts.limit);
  }
  if (!scan || !order.isPlain(*scan)) {
    scan.emplace(file, change);
    order = RingOrder(*scan, change, facts.limit);
  }
  if (file.isWrittenTo()) {
    catchUp(order, file, sinceOpened());
  }
  std::optional<WallTime> ended = endOf(bytesAt(file, order.newest.offset, lastLineLength));
  if (!ended) {
    ended = change.dateOf(order.newest.time);
  }
  dates = Dates(*scan, order, facts.started, ended);
  facts.isDateUnknown = (!ended && !order.stretches.empty()) || dates.areSomeUnknown();
  describe(*scan);
}

Since TraceFile::State::sinceOpened() const noexcept {
  return {order.newest.time, opened - file.lastChange(), now() - file.lastChange()};
}

void TraceFile::State::describe(const RingScan& scan) {
  facts.size = file.size();
  facts.first = dates.first();
  facts.last = dates.last();
  facts.hasLost = order.hasSeam;
  facts.lostFrom = dates.lostFrom();
  facts.lostUntil = dates.lostUntil();
  facts.cutLines = order.cutBytes > 0 ? 1 : 0;
  facts.isOrderUnknown = order.isUnknown;
  std::uint64_t read = order.cutBytes + (scan.parts.size() - 1) * separatorLine.size();
  for (const Stretch& stretch : order.stretches) {
    read += stretch.end - stretch.first.offset;
  }
  unread = scan.parts.back().end - std::min(read, scan.parts.back().end);
  facts.unreadBytes = unread;
}

TraceFile::TraceFile(const std::string& path) : state_(std::make_unique<State>(path)) {}

TraceFile::~TraceFile() = default;

const TraceFacts& TraceFile::facts() const noexcept { return state_->facts; }

bool TraceFile::next(Line& line) {
  State& s = *state_;
  std::uint64_t offset = 0;
  const bool isThere = s.reader.nextLine(line.whole, offset);
  s.facts.unreadBytes = s.unread + s.reader.lost();
  if (isThere && beginsLine(line.whole)) {
    s.time = s.dates.timeOf({offset, timeOfDay(line.whole.data())});
  }
  line.time = s.time;
  line.process = &s.facts.process;
  return isThere;
}

void TraceFile::rewind() {
  state_->reader.rewind();
  state_->dates.rewind();
}

std::string_view TraceFile::nextBytes() {
  const std::string_view bytes = state_->reader.nextLines();
  state_->facts.unreadBytes = state_->unread + state_->reader.lost();
  return bytes;
}
