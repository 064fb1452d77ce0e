#include "programs/enginetrace/LineWalk.h"

#include <algorithm>
#include <cstring>

LineWalk::LineWalk(const FileBytes& file, std::uint64_t place, std::uint64_t usual)
    : file_(file),
      buffer_(std::min(std::clamp(usual, smallBlockSize, blockSize), file.size()) + enough),
      place_(place) {}

bool LineWalk::next() {
  if (!isFirst_) {
    skip();
  }
  isFirst_ = false;
  if (last_ - at_ < enough && !isAtEnd_) {
    fill();
  }
  return at_ < last_;
}

void LineWalk::fill() {
  std::memmove(buffer_.data(), data() + at_, last_ - at_);
  last_ -= at_;
  at_ = 0;
  const std::size_t size = file_.read(place_, buffer_.data() + last_, buffer_.size() - last_);
  isAtEnd_ = size < buffer_.size() - last_;
  last_ += size;
  place_ += size;
}

void LineWalk::skip() {
  for (;;) {
    const char* const begin = data() + at_;
    if (const void* newline = std::memchr(begin, '\n', last_ - at_)) {
      at_ += static_cast<std::size_t>(static_cast<const char*>(newline) - begin) + 1;
      return;
    }
    endsInNewline_ = at_ == last_ && endsInNewline_;
    at_ = last_;
    if (isAtEnd_) {
      return;
    }
    fill();
  }
}
