#include "programs/enginetrace/FollowedFile.h"

#include <algorithm>
#include <cstddef>
#include <fcntl.h>
#include <optional>
#include <string_view>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>
#include <utility>

#include "programs/enginetrace/LineLength.h"
#include "programs/enginetrace/LineStart.h"

namespace {

// How much is read at once. When more than half of it is new in a ring, the writer may have
// overtaken the reader.
constexpr std::size_t windowSize = 1024UL * 1024;

// Enough to tell two lines apart.
constexpr std::size_t markSize = 64;

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

std::string_view firstLineOf(std::string_view text) { return text.substr(0, text.find('\n')); }

// Calls a function for each place of a text in a file.
template <class Function>
void forEachPlace(int file, std::string_view text, Function function) {
  for (std::uint64_t offset = 0;;) {
    const std::string bytes = readAt(file, offset, windowSize + text.size() - 1);
    for (std::size_t at = bytes.find(text); at != std::string::npos;
         at = bytes.find(text, at + 1)) {
      function(offset + at);
    }
    if (bytes.size() < windowSize) {
      return;
    }
    offset += windowSize;
  }
}

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
  hasNewLines_ = true;
  last_.clear();
  isPlaceKnown_ = false;
  file_.reset(open(process_.path.c_str(), O_RDONLY | O_CLOEXEC));
  struct stat info = {};
  const bool isOpen = fstat(file_.get(), &info) == 0;
  device_ = isOpen ? info.st_dev : 0;
  inode_ = isOpen ? info.st_ino : 0;
}

bool FollowedFile::takeHasMissed() noexcept { return std::exchange(hasMissed_, false); }

bool FollowedFile::next(Line& line) {
  const bool isThere = trace_ != nullptr ? nextOfTrace(line) : nextOfFresh(line);
  line.process = &process_;
  return isThere;
}

bool FollowedFile::nextOfTrace(Line& line) {
  while (trace_->next(line)) {
    if (!isPassingOver_) {
      hasNewLines_ = true;
      remember(line);
      return true;
    }
    isPassingOver_ = firstLineOf(line.whole) != firstLineOf(last_);
  }
  if (isPassingOver_) {
    // The line given last is not there any more: all are new.
    isPassingOver_ = false;
    hasMissed_ = true;
    trace_ = openTrace();
    return trace_ != nullptr && nextOfTrace(line);
  }
  endTrace();
  return false;
}

void FollowedFile::remember(const Line& line) {
  last_ = line.whole;
  time_ = line.time;
}

// Where the trace ended when it was opened, new lines begin. In a ring its old lines stand there:
// they are known to be old when they were read before a look at all lines that found no new one.
void FollowedFile::endTrace() {
  const bool isSettled = !hasNewLines_ && isPlaceKnown_;
  const std::uint64_t size = trace_->facts().size;
  trace_.reset();
  if (isSettled) {
    return;
  }
  isPlaceKnown_ = findPlace() && end_ == size;
  old_.clear();
}

bool FollowedFile::nextOfFresh(Line& line) {
  const std::string_view rest = std::string_view(fresh_).substr(freshPlace_);
  if (rest.empty()) {
    return false;
  }
  if (rest.starts_with(separatorLine)) {
    // A rewind point: from here on the ring begins.
    freshPlace_ += separatorLine.size();
    ring_ = end_ - (fresh_.size() - freshPlace_);
    mark();
    return nextOfFresh(line);
  }
  const std::size_t end = lengthOfLine(rest);
  freshPlace_ += end;
  line.whole = rest.substr(0, end - 1);
  line.time = beginsLine(line.whole) ? timeAfter(time_, timeOfDay(line.whole.data())) : time_;
  remember(line);
  return true;
}

void FollowedFile::look() {
  if (hasEnded() || trace_ != nullptr || freshPlace_ < fresh_.size()) {
    return;
  }
  const bool isGone = isReplaced();
  const bool isAnew = isBegunAnew();
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
  return fstat(file_.get(), &info) == 0 &&
         (static_cast<std::uint64_t>(info.st_size) < end_ ||
          readAt(file_.get(), 0, beginning_.size()) != beginning_);
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
  isPlaceKnown_ = findPlace();
  auto trace = openTrace();
  if (trace == nullptr || isReplaced()) {
    return;
  }
  trace_ = std::move(trace);
  isPassingOver_ = isPlaceKnown_ && !last_.empty();
  hasMissed_ = hasMissed_ || !isPlaceKnown_;
  hasNewLines_ = false;
}

// Finds the line given last, what stands behind it, and where the ring begins.
// \return whether it is there.
bool FollowedFile::findPlace() {
  const std::string_view first = firstLineOf(last_);
  std::optional<std::uint64_t> place;
  if (!last_.empty()) {
    if (first.empty()) {
      return false;
    }
    forEachPlace(file_.get(), first, [&](std::uint64_t at) { place = at; });
    if (!place) {
      return false;
    }
  }
  end_ = 0;
  if (place) {
    const bool isWhole = readAt(file_.get(), *place, last_.size()) == last_;
    end_ = *place + (isWhole ? last_.size() : first.size()) + 1;
  }
  old_ = readAt(file_.get(), end_, windowSize);
  ring_ = 0;
  forEachPlace(file_.get(), separatorLine, [&](std::uint64_t at) {
    const std::uint64_t behind = at + separatorLine.size();
    ring_ = behind <= end_ ? behind : ring_;
  });
  mark();
  return true;
}

void FollowedFile::mark() {
  beginning_ = readAt(file_.get(), 0, std::min<std::uint64_t>(markSize, end_));
  ringMark_ = readAt(file_.get(), ring_, std::min<std::uint64_t>(markSize, end_ - ring_));
}

// Takes what is new behind the line given last.
// \return false when the writer has gone elsewhere.
bool FollowedFile::readFresh() {
  const auto hasMark = [this] { return readAt(file_.get(), ring_, ringMark_.size()) == ringMark_; };
  const std::string now = readAt(file_.get(), end_, windowSize);
  const std::size_t length = freshLength(now);
  const bool isOvertaken = !old_.empty() && length > windowSize / 2;
  if (isOvertaken || !hasMark()) {
    isPlaceKnown_ = false;
    return false;
  }
  // A line that is just being written may not be all there.
  const bool isWritten =
      readAt(file_.get(), end_, length) == std::string_view(now).substr(0, length);
  fresh_ = isWritten ? now.substr(0, length) : "";
  freshPlace_ = 0;
  if (!isWritten) {
    return true;
  }
  const bool isEndPassed = isAllNew(now);
  end_ += length;
  old_ = isEndPassed ? ""
                     : now.substr(length) + readAt(file_.get(), end_ + now.size() - length, length);
  if (ringMark_.size() < markSize || beginning_.size() < markSize) {
    mark();
  }
  return true;
}

// Whether the file ended where the old bytes end, and goes on now.
bool FollowedFile::isAllNew(const std::string& now) const {
  return old_.size() < windowSize && now.size() > old_.size();
}

std::size_t FollowedFile::freshLength(const std::string& now) const {
  if (isAllNew(now)) {
    return now.rfind('\n') + 1;
  }
  std::size_t changed = std::min(now.size(), old_.size());
  while (changed > 0 && now[changed - 1] == old_[changed - 1]) {
    --changed;
  }
  // Up to the end of the line in which the last byte has changed.
  return changed == 0 ? 0 : now.find('\n', changed - 1) + 1;
}
