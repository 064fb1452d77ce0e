#include "programs/enginetrace/TraceFile.h"

#include <algorithm>
#include <charconv>

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

namespace {

constexpr std::uint64_t headerLength = 65'536;
constexpr std::size_t lastLineLength = 512;

// A writer that comes round more often while a file is looked at cannot be read.
constexpr unsigned mostTries = 20;

std::string bytesAt(const FileBytes& file, std::uint64_t offset, std::uint64_t size) {
  std::string bytes(size, '\0');
  bytes.resize(file.read(offset, bytes.data(), bytes.size()));
  return bytes;
}

}  // namespace

struct TraceFile::State {
  explicit State(const std::string& path);

  [[nodiscard]] Since sinceOpened() const noexcept;
  RingScan findOrder();
  [[nodiscard]] bool isOvertaken(const RingScan& scan) const;
  void describe(const RingScan& scan);
  template <class Read>
  auto untilFailure(Read read);
  [[nodiscard]] std::uint64_t readable() const noexcept;

  FileBytes file;
  WallTime opened = now();
  TraceFacts facts;
  RingOrder order;
  RingStart ring;
  bool isRingElsewhere = false;  // by now
  Dates dates;
  StretchReader reader;
  std::uint64_t unread = 0;  // before anything was lost while reading
  std::uint64_t given = 0;   // bytes, since the oldest line
  std::uint64_t place = 0;   // of the line given last
  WallTime time = 0;
};

TraceFile::State::State(const std::string& path)
    : file(path), reader(file, order.stretches, [this](std::uint64_t from) {
        return WriterPlace(file, from, sinceOpened()).old;
      }) {
  if (!looksLikeATrace(bytesAt(file, 0, std::min<std::uint64_t>(notATraceWithin, file.size())))) {
    throw NotATrace(path);
  }
  facts.process = processOf(path);
  RingScan scan = findOrder();
  for (unsigned tries = 1; isOvertaken(scan); ++tries) {
    if (tries == mostTries) {
      order.isUnknown = true;
      break;
    }
    file.lookAgain();
    opened = now();
    scan = findOrder();
  }
  const LastChange change(file.lastChange(), opened);
  std::optional<WallTime> ended = endOf(bytesAt(file, order.newest.offset, lastLineLength));
  if (!ended) {
    ended = change.dateOf(order.newest.time);
  }
  dates = Dates(scan, order, facts.started, ended);
  facts.isDateUnknown = (!ended && !order.stretches.empty()) || dates.areSomeUnknown();
  describe(scan);
}

RingScan TraceFile::State::findOrder() {
  const LastChange change(file.lastChange(), opened);
  std::optional<RingScan> scan = RingScan::quick(file, change);
  const bool isQuick = scan.has_value();
  if (!isQuick) {
    scan.emplace(file, change);
  }
  // Not before: lines may have come.
  TraceFacts told;
  told.process = facts.process;
  readHeader(bytesAt(file, 0, std::min(headerLength, scan->parts.back().end)), told);
  facts = told;
  order = RingOrder(*scan, change, facts.limit);
  if (isQuick && !order.isPlain(*scan)) {
    scan.emplace(file, change);
    order = RingOrder(*scan, change, facts.limit);
  }
  const Part& body = scan->parts.back();
  isRingElsewhere = file.isWrittenTo() && !catchUp(order, file, body.begin, sinceOpened());
  ring = {body.begin, body.first.offset,
          bytesAt(file, body.first.offset, body.hasLines ? lineStartLength : 0)};
  return std::move(*scan);
}

// Whether the writer has begun the ring anew while the order was looked for, when it may have come
// round more than once, or has set a rewind point.
bool TraceFile::State::isOvertaken(const RingScan& scan) const {
  const Part& body = scan.parts.back();
  if (!body.hasLines || !file.isWrittenTo()) {
    return false;
  }
  return isRingElsewhere || !beginsLine(ring.mark) ||
         timeOfDay(ring.mark.data()) != body.first.time;
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
  const std::uint64_t read = readable() + order.cutBytes + scan.separators * separatorLine.size();
  unread = scan.parts.back().end - std::min(read, scan.parts.back().end);
  facts.unreadBytes = unread;
}

std::uint64_t TraceFile::State::readable() const noexcept {
  std::uint64_t size = 0;
  for (const Stretch& stretch : order.stretches) {
    size += stretch.end - stretch.first.offset;
  }
  return size;
}

// What a disk or a server does not give any more ends this file, and not the others.
template <class Read>
auto TraceFile::State::untilFailure(Read read) {
  decltype(read()) result = {};
  if (!facts.failure) {
    try {
      result = read();
    } catch (const std::system_error& error) {
      facts.failure = error.code();
    }
  }
  facts.unreadBytes =
      unread + (facts.failure ? readable() - std::min(readable(), given) : reader.lost());
  return result;
}

TraceFile::TraceFile(const std::string& path) : state_(std::make_unique<State>(path)) {}

TraceFile::~TraceFile() = default;

const TraceFacts& TraceFile::facts() const noexcept { return state_->facts; }

bool TraceFile::next(Line& line) {
  State& s = *state_;
  const bool isThere = s.untilFailure([&] { return s.reader.nextLine(line.whole, s.place); });
  s.given += isThere ? line.whole.size() + 1 : 0;
  if (isThere && beginsLine(line.whole)) {
    s.time = s.dates.timeOf({s.place, timeOfDay(line.whole.data())});
  }
  line.time = s.time;
  line.process = &s.facts.process;
  return isThere;
}

std::uint64_t TraceFile::place() const noexcept { return state_->place; }

std::uint64_t TraceFile::end() const noexcept { return state_->reader.endOfLine(); }

bool TraceFile::isLineWhole() const noexcept { return state_->reader.isLineWhole(); }

const RingStart& TraceFile::ring() const noexcept { return state_->ring; }

WriterPlace TraceFile::writtenBehind(std::uint64_t end) const {
  return wholeLinesBehind(state_->file, end, state_->sinceOpened());
}

Descriptor TraceFile::duplicate() const noexcept { return state_->file.duplicate(); }

void TraceFile::rewind() {
  state_->reader.rewind();
  state_->dates.rewind();
  state_->given = 0;
  state_->facts.failure.clear();
}

std::string_view TraceFile::nextBytes() {
  const std::string_view bytes =
      state_->untilFailure([this] { return state_->reader.nextLines(); });
  state_->given += bytes.size();
  return bytes;
}
