#include "programs/enginetrace/FollowedFile.h"

#include <algorithm>
#include <cstddef>
#include <fcntl.h>
#include <string_view>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>
#include <utility>

#include "programs/enginetrace/LineLength.h"
#include "programs/enginetrace/LineStart.h"
#include "programs/enginetrace/WriterPlace.h"

namespace {

// So much of what stands behind the last line is known to be old. When more than half of it is new,
// the writer may have overtaken the reader.
constexpr std::size_t windowSize = 1024UL * 1024;
constexpr std::size_t mostFresh = windowSize / 2;
constexpr std::size_t imageSize = windowSize + mostFresh;

// The header of a trace has less, and begins with the time of its start.
constexpr std::size_t mostOfHeader = 8192;

std::string readAt(int file, std::uint64_t offset, std::size_t size) {
  std::string bytes(size, '\0');
  std::size_t length = 0;
  while (length < size) {
    const ssize_t n = uninterrupted([&] {
      return pread(file, bytes.data() + length, size - length, static_cast<off_t>(offset + length));
    });
    if (n <= 0) {
      break;
    }
    length += static_cast<std::size_t>(n);
  }
  bytes.resize(length);
  return bytes;
}

// Reads from the back to the front. A writer that goes from the front to the back is met once: in
// front of some place the bytes are new, and behind it they are old.
std::string imageAt(int file, std::uint64_t offset) {
  constexpr std::size_t step = 4096;
  struct stat info = {};
  const std::uint64_t size = fstat(file, &info) == 0 ? static_cast<std::uint64_t>(info.st_size) : 0;
  std::string image(std::min<std::uint64_t>(size - std::min(size, offset), imageSize), '\0');
  for (std::size_t end = image.size(); end > 0;) {
    const std::size_t begin = (end - 1) / step * step;
    const std::string piece = readAt(file, offset + begin, end - begin);
    image.replace(begin, piece.size(), piece);
    if (piece.size() < end - begin) {
      // The file was cut here.
      image.resize(begin + piece.size());
    }
    end = begin;
  }
  return image;
}

// Behind the last byte that differs, as far as both reach.
std::size_t endOfChange(std::string_view one, std::string_view other) noexcept {
  std::size_t end = std::min(one.size(), other.size());
  while (end > 0 && one[end - 1] == other[end - 1]) {
    --end;
  }
  return end;
}

// Bytes of the lines up to a place that are there to their end.
std::size_t wholeLines(std::string_view text, std::size_t end) noexcept {
  return end == 0 ? 0 : text.rfind('\n', end - 1) + 1;
}

// Where a separator is a line.
std::size_t findSeparator(std::string_view text) noexcept {
  for (std::size_t at = 0;; ++at) {
    at = text.find(separatorLine, at);
    if (at == std::string_view::npos || at == 0 || text[at - 1] == '\n') {
      return at;
    }
  }
}

// Behind the first separator, or else the text's end.
std::size_t endBehindSeparator(std::string_view text) noexcept {
  const std::size_t separator = findSeparator(text);
  return separator == std::string_view::npos ? text.size() : separator + separatorLine.size();
}

std::string_view firstLineOf(std::string_view text) { return text.substr(0, text.find('\n')); }

// The time of a line that was written after one at another time, at most half a day later or
// earlier.
WallTime timeAfter(WallTime before, WallTime ofDay) noexcept {
  constexpr WallTime half = microsecondsPerDay / 2;
  WallTime difference = (ofDay - before) % microsecondsPerDay;
  difference += difference < -half ? microsecondsPerDay : 0;
  difference -= difference >= half ? microsecondsPerDay : 0;
  return before + difference;
}

}  // namespace

FollowedFile::FollowedFile(std::unique_ptr<TraceFile> trace, Process process)
    : process_(std::move(process)) {
  begin(std::move(trace));
}

void FollowedFile::begin(std::unique_ptr<TraceFile> trace) {
  trace_ = std::move(trace);
  isPassingOver_ = false;
  shown_ = 0;
  unread_ = trace_->facts().unreadBytes;
  last_.clear();
  header_.clear();
  end_ = 0;
  isPlaceKnown_ = false;
  file_ = trace_->duplicate();
  struct stat info = {};
  const bool isOpen = fstat(file_.get(), &info) == 0;
  device_ = isOpen ? info.st_dev : 0;
  inode_ = isOpen ? info.st_ino : 0;
}

bool FollowedFile::takeHasMissed() noexcept { return std::exchange(hasMissed_, false); }

bool FollowedFile::next(Line& line) {
  line.process = &process_;
  if (trace_ != nullptr && nextOfTrace(line)) {
    return true;
  }
  while (!nextOfFresh(line)) {
    if (!std::exchange(goesOn_, false) || !readFresh()) {
      return false;
    }
  }
  return true;
}

bool FollowedFile::nextOfTrace(Line& line) {
  while (trace_->next(line)) {
    line.process = &process_;
    if (!trace_->isLineWhole() && !hasEnded()) {
      // Its rest will come.
      break;
    }
    end_ = trace_->end();
    if (isPassingOver_) {
      isPassingOver_ = !isLast(line);
      unread_ = trace_->facts().unreadBytes;
      // Behind what is kept for good, the ring has gone round.
      hasMissed_ = hasMissed_ || (!isPassingOver_ && trace_->facts().hasLost &&
                                  trace_->place() < trace_->ring().offset);
    } else if (trace_->place() >= shown_) {
      remember(line, trace_->place());
      return true;
    }
  }
  if (isPassingOver_) {
    // The line given last is not there any more: all of the ring are new.
    isPassingOver_ = false;
    hasMissed_ = true;
    shown_ = ring_.offset;
    trace_->rewind();
    return nextOfTrace(line);
  }
  endTrace();
  return false;
}

void FollowedFile::remember(const Line& line, std::uint64_t place) {
  last_ = line.whole;
  place_ = place;
  time_ = line.time;
}

// Nothing tells the rest of a line that was cut from the end of the newest text.
bool FollowedFile::isLast(const Line& line) const {
  return trace_->place() == place_ && firstLineOf(line.whole) == firstLineOf(last_);
}

void FollowedFile::endTrace() {
  hasMissed_ = hasMissed_ || trace_->facts().unreadBytes > unread_;
  ring_ = trace_->ring();
  isPlaceKnown_ = !hasEnded() && readBehindTrace();
  trace_.reset();
}

bool FollowedFile::nextOfFresh(Line& line) {
  const std::string_view rest = std::string_view(fresh_).substr(freshPlace_);
  if (rest.empty() || beginsSeparator(rest)) {
    return false;
  }
  const std::uint64_t place = freshOffset_ + freshPlace_;
  const std::size_t end = lengthOfLine(rest);
  freshPlace_ += end;
  line.whole = rest.substr(0, end - 1);
  line.time = beginsLine(line.whole) ? timeAfter(time_, timeOfDay(line.whole.data())) : time_;
  remember(line, place);
  return true;
}

void FollowedFile::look() {
  if (hasEnded() || trace_ != nullptr) {
    return;
  }
  const bool isGone = isReplaced();
  // The first lines get their dates from the whole file.
  const bool isAnew = last_.empty() || isBegunAnew();
  if (!isAnew && isPlaceKnown_ && readFresh()) {
    // What the old file has got up to its end comes before the lines of the new one.
    if (isGone && fresh_.empty()) {
      openAnew();
    }
  } else if (isAnew || isGone) {
    openAnew();
  } else {
    findOrder();
  }
}

// Whether another file has its name now.
bool FollowedFile::isReplaced() const {
  struct stat info = {};
  return stat(process_.path.c_str(), &info) == 0 &&
         (info.st_dev != device_ || info.st_ino != inode_);
}

// Whether the file was emptied and written anew.
bool FollowedFile::isBegunAnew() const {
  struct stat info = {};
  return fstat(file_.get(), &info) == 0 && (static_cast<std::uint64_t>(info.st_size) < end_ ||
                                            readAt(file_.get(), 0, header_.size()) != header_);
}

void FollowedFile::openAnew() {
  if (auto trace = openTrace()) {
    begin(std::move(trace));
  }
}

std::unique_ptr<TraceFile> FollowedFile::openTrace() const {
  try {
    return std::make_unique<TraceFile>(process_.path);
  } catch (const NotATrace&) {
    // It may become one.
  } catch (const std::system_error&) {
    // It may come back.
  }
  return nullptr;
}

void FollowedFile::findOrder() {
  auto trace = openTrace();
  if (trace == nullptr || isReplaced()) {
    return;
  }
  trace_ = std::move(trace);
  isPassingOver_ = true;
  shown_ = 0;
}

// Takes what was written since the trace was opened, by its times.
// \return whether what is old behind it is known.
bool FollowedFile::readBehindTrace() try {
  const std::string image = imageAt(file_.get(), end_);
  const WriterPlace writer = trace_->writtenBehind(end_);
  const std::size_t length = writer.end - end_;
  std::string bytes = readAt(file_.get(), end_, length);
  if (!isRingAsItWas() || (length > mostFresh && image.size() == imageSize)) {
    return false;
  }
  bytes.resize(wholeLines(bytes, bytes.size()));
  bytes.resize(endBehindSeparator(bytes));
  if (writer.old && bytes.size() < length) {
    return false;
  }
  old_ = writer.old ? image.substr(std::min(length, image.size())) : "";
  isOldToEnd_ = !writer.old || image.size() < imageSize;
  take(std::move(bytes));
  return true;
} catch (const std::system_error&) {
  // It may be read at the next look.
  return false;
}

// Takes what is new behind what was taken last.
// \return false when the writer has gone elsewhere.
bool FollowedFile::readFresh() {
  const std::string now = imageAt(file_.get(), end_);
  awaitWrite(file_.get());
  // Cut by the writer, or gone on behind the old end: no old lines are left.
  const bool isAllNew = now.size() < old_.size() || (isOldToEnd_ && now.size() > old_.size());
  const std::size_t changed = isAllNew ? now.size() : endOfChange(now, old_);
  const std::size_t length = changed == 0 ? 0
                             : isAllNew   ? wholeLines(now, changed)
                                        // Up to the end of the line with the last change.
                                        : now.find('\n', changed - 1) + 1;
  std::string bytes = readAt(file_.get(), end_, length);
  if (!isRingAsItWas()) {
    return readRestOfPass();
  }
  if (changed > mostFresh && (!isAllNew || ring_.mark.empty())) {
    isPlaceKnown_ = false;
    return false;
  }
  const auto same = static_cast<std::size_t>(
      std::mismatch(bytes.begin(), bytes.end(), now.begin(), now.end()).first - bytes.begin());
  bytes.resize(same == length ? length : wholeLines(bytes, same));
  bytes.resize(endBehindSeparator(bytes));
  old_ = isAllNew ? "" : old_.substr(bytes.size()) + now.substr(std::min(old_.size(), now.size()));
  isOldToEnd_ = isAllNew || now.size() < imageSize;
  take(std::move(bytes));
  return true;
}

// The writer has gone back to the ring's beginning. What stands behind the last line is the rest of
// its pass, as long as it has not come there again.
bool FollowedFile::readRestOfPass() {
  std::string rest = readAt(file_.get(), end_, windowSize);
  const std::string front = imageAt(file_.get(), ring_.offset);
  if (front_.empty() || rest.size() == windowSize || endOfChange(front, front_) > mostFresh ||
      rest.size() != endBehindSeparator(rest)) {
    isPlaceKnown_ = false;
    return false;
  }
  rest.resize(wholeLines(rest, rest.size()));
  take(std::move(rest));
  end_ = ring_.offset;
  ring_.mark.clear();
  old_ = std::exchange(front_, "");
  isOldToEnd_ = false;
  goesOn_ = true;
  return true;
}

// Hands lines on that stand behind what was taken last.
void FollowedFile::take(std::string bytes) {
  goesOn_ = findSeparator(bytes) != std::string::npos;
  freshOffset_ = end_;
  freshPlace_ = 0;
  end_ += bytes.size();
  if (goesOn_) {
    // A rewind point: from here on the ring begins.
    ring_ = {end_, end_, ""};
    front_.clear();
  } else if (ring_.mark.empty() && freshOffset_ == ring_.offset) {
    ring_.first = freshOffset_ + (bytes.starts_with('\n') ? 1 : 0);
    ring_.mark = bytes.substr(ring_.first - freshOffset_, lineStartLength);
  }
  fresh_ = std::move(bytes);
  keepFixed();
}

// Keeps what only another trace changes, and what only another pass does.
void FollowedFile::keepFixed() {
  const std::uint64_t fixed =
      std::min<std::uint64_t>(ring_.offset == 0 ? end_ : ring_.offset, mostOfHeader);
  if (header_.size() < fixed) {
    header_ = readAt(file_.get(), 0, fixed);
  }
  if (front_.empty() && !ring_.mark.empty() && end_ >= ring_.offset + windowSize) {
    front_ = readAt(file_.get(), ring_.offset, windowSize);
    if (!isRingAsItWas()) {
      front_.clear();
    }
  }
}

bool FollowedFile::isRingAsItWas() const {
  return readAt(file_.get(), ring_.first, ring_.mark.size()) == ring_.mark;
}
