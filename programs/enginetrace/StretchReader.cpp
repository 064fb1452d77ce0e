#include "programs/enginetrace/StretchReader.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "programs/enginetrace/LineStart.h"
#include "programs/enginetrace/TraceFile.h"

namespace {

// Fits into the caches of a processor, beside what is made of it.
constexpr std::size_t blockSize = 65'536;

// As many bytes as tell what is behind a newline.
constexpr std::size_t enough = separatorLine.size();
static_assert(enough >= lineStartLength);

constexpr std::string_view lineBeforeSeparator =
    "\n========================================================================\n";
static_assert(lineBeforeSeparator.substr(1) == separatorLine);

}  // namespace

StretchReader::StretchReader(const FileBytes& file, const std::vector<Stretch>& stretches,
                             Resume resume)
    : file_(file),
      stretches_(stretches),
      resume_(std::move(resume)),
      // Small files are many.
      buffer_(std::min<std::uint64_t>(2 * blockSize, file.size() + 1)) {}

void StretchReader::rewind() noexcept {
  next_ = 0;
  place_ = end_ = lost_ = 0;
  first_ = last_ = found_ = 0;
}

bool StretchReader::nextStretch() noexcept {
  if (next_ == stretches_.size()) {
    return false;
  }
  mark_ = stretches_[next_].first;
  place_ = bufferPlace_ = mark_.offset;
  end_ = stretches_[next_].end;
  first_ = last_ = found_ = 0;
  ++next_;
  return true;
}

// Reads a block more of the stretch, all of it old. A last line without newline gets one.
void StretchReader::fill() {
  std::memmove(buffer_.data(), buffer_.data() + first_, last_ - first_);
  bufferPlace_ += first_;
  found_ -= first_;
  last_ -= first_;
  first_ = 0;
  // Of a line that begins in front of the new bytes, too little may have been there.
  const std::size_t before = last_ - std::min(last_, enough + 1);
  read();
  if (!isMarkThere()) {
    goOnBehindWriter();
    return;
  }
  mark(before);
  if (isAllThere() && last_ > 0 && buffer_[last_ - 1] != '\n') {
    buffer_[last_++] = '\n';
  }
}

void StretchReader::read() {
  const std::size_t wanted = std::min<std::uint64_t>(blockSize, end_ - place_);
  if (buffer_.size() < last_ + wanted + 1) {
    buffer_.resize(last_ + wanted + 1);
  }
  const std::size_t size = file_.read(place_, buffer_.data() + last_, wanted);
  last_ += size;
  place_ += size;
  if (size < wanted) {
    lost_ += end_ - place_;
    end_ = place_;
  }
}

bool StretchReader::isMarkThere() const {
  char bytes[lineStartLength];
  return file_.read(mark_.offset, bytes, sizeof bytes) == sizeof bytes && beginsLine(bytes) &&
         timeOfDay(bytes) == mark_.time;
}

// What is in the buffer has not been given yet, and may be gone.
void StretchReader::goOnBehindWriter() {
  const std::uint64_t end = std::max(place_, end_);
  const std::optional<LinePlace> old = resume_(bufferPlace_);
  place_ = old ? std::min(old->offset, end) : end;
  end_ = end;
  lost_ += place_ - bufferPlace_;
  mark_ = old.value_or(mark_);
  bufferPlace_ = place_;
  last_ = found_ = 0;
}

// Marks the last line that begins in the buffer behind `from`.
void StretchReader::mark(std::size_t from) {
  const char* const begin = buffer_.data();
  for (std::size_t end = last_; end > from;) {
    const void* const newline = memrchr(begin + from, '\n', end - from);
    if (newline == nullptr) {
      return;
    }
    end = static_cast<std::size_t>(static_cast<const char*>(newline) - begin);
    if (last_ - end - 1 >= enough && beginsLine(begin + end + 1)) {
      mark_ = {bufferPlace_ + end + 1, timeOfDay(begin + end + 1)};
      return;
    }
  }
}

// Whether a line or a separator begins at a place in the buffer.
bool StretchReader::beginsAt(std::size_t place) const noexcept {
  const std::string_view bytes(buffer_.data() + place, last_ - place);
  return beginsLine(bytes) || beginsSeparator(bytes);
}

// Moves found_ behind the first line in the buffer; false when more bytes are needed for that.
bool StretchReader::findLineEnd() {
  while (const void* newline = std::memchr(buffer_.data() + found_, '\n', last_ - found_)) {
    const auto end =
        static_cast<std::size_t>(static_cast<const char*>(newline) - buffer_.data()) + 1;
    if (last_ - end < enough && !isAllThere()) {
      found_ = end - 1;
      return false;
    }
    found_ = end;
    if (end == last_ || beginsAt(end) || end - first_ > longestLine) {
      return true;
    }
  }
  found_ = last_;
  return false;
}

std::string_view StretchReader::take(std::size_t size) noexcept {
  const std::string_view bytes(buffer_.data() + first_, size);
  first_ += size;
  found_ = first_;
  return bytes;
}

// A separator, and an empty line that the trace was asked for in front of the next line.
void StretchReader::skipSeparators() noexcept {
  while (beginsSeparator(std::string_view(buffer_.data() + first_, last_ - first_))) {
    take(separatorLine.size());
    if (first_ != last_ && buffer_[first_] == '\n') {
      take(1);
    }
  }
}

bool StretchReader::nextLine(std::string_view& line, std::uint64_t& offset) {
  skipSeparators();
  while (first_ == last_ || !findLineEnd()) {
    if (last_ - first_ >= longestLine) {
      offset = bufferPlace_ + first_;
      line = take(longestLine);
      return true;
    }
    if (isAllThere() && !nextStretch()) {
      return false;
    }
    fill();
    skipSeparators();
  }
  offset = bufferPlace_ + first_;
  line = take(found_ - first_);
  line.remove_suffix(1);
  return true;
}

std::string_view StretchReader::nextLines() {
  for (;;) {
    skipSeparators();
    if (const std::size_t size = wholeLines(); size != 0) {
      return take(size);
    }
    if (isAllThere() && !nextStretch()) {
      return {};
    }
    fill();
  }
}

// Bytes of the lines in the buffer that are there to their end, up to a separator.
std::size_t StretchReader::wholeLines() const noexcept {
  const char* const begin = buffer_.data() + first_;
  std::size_t end = last_ - first_;
  if (!isAllThere() && end < longestLine) {
    const void* newline = nullptr;
    do {
      newline = memrchr(begin, '\n', end);
      end = newline == nullptr
                ? 0
                : static_cast<std::size_t>(static_cast<const char*>(newline) - begin);
    } while (end != 0 && (last_ - first_ - end - 1 < enough || !beginsAt(first_ + end + 1)));
    end += end == 0 ? 0 : 1;
  }
  if (const void* const separator =
          memmem(begin, end, lineBeforeSeparator.data(), lineBeforeSeparator.size())) {
    return static_cast<std::size_t>(static_cast<const char*>(separator) - begin) + 1;
  }
  return end;
}
