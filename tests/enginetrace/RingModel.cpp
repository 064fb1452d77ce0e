#include "tests/enginetrace/RingModel.h"

#include <algorithm>
#include <cstdio>
#include <ctime>

namespace {

constexpr std::uint64_t megabyte = 1'048'576;
constexpr std::uint64_t noLimit = ~std::uint64_t{0};
const std::string own = "void TraceImplementation::traceInternal(718): ";

std::tm partsAt(WallTime time) {
  const std::time_t second = time / microsecondsPerSecond;
  std::tm parts = {};
  gmtime_r(&second, &parts);
  return parts;
}

}  // namespace

std::string dateText(WallTime time) {
  const std::tm parts = partsAt(time);
  char text[64];
  asctime_r(&parts, text);
  return text;
}

std::string stampAt(WallTime time) {
  const std::tm parts = partsAt(time);
  char text[64];
  std::snprintf(text, sizeof text, "%.2u:%.2u:%.2u.%.6u (main    )",
                static_cast<unsigned>(parts.tm_hour) % 24, static_cast<unsigned>(parts.tm_min) % 60,
                static_cast<unsigned>(parts.tm_sec) % 60,
                static_cast<unsigned>(time % microsecondsPerSecond));
  return text;
}

RingModel::RingModel(std::uint64_t limit, WallTime start) : limit_(limit), start_(start) {
  header("Trace start at " + dateText(start));
  header("Debugger: Debugger Engine;  Version: 1.2.3");
  header("Build Date: Nov 22 2026 10:11:12\n");
  header("Included Trace types:");
  header("  GMH");
  header("Excluded Trace types:");
  header("  CHILD");
  if (limit % megabyte == 0) {
    header("Trace size: " + std::to_string(limit / megabyte) + "Mb");
  }
  wrap();
}

void RingModel::header(const std::string& text) {
  write(start_ + 10 * static_cast<WallTime>(written_.size()), own + text);
}

void RingModel::write(WallTime time, const std::string& text, bool newline) {
  const ModelLine line = {stampAt(time) + text, time};
  put((newline ? "\n" : "") + line.text + "\n", limit_, &line, newline ? 1 : 0);
}

void RingModel::replay(const std::string& bytes, WallTime time) {
  if (bytes == std::string(72, '=') + "\n") {
    wrap();
    return;
  }
  const ModelLine line = {bytes.substr(0, bytes.size() - 1), time};
  put(bytes, limit_, &line, 0);
}

void RingModel::finish(WallTime time) { write(time, own + "Trace end at " + dateText(time)); }

void RingModel::tear(WallTime time, const std::string& text, std::size_t size) {
  const std::string whole = stampAt(time) + text + "\n";
  put(whole.substr(0, size), limit_, nullptr, 0);
}

void RingModel::wrap() {
  put(std::string(72, '=') + "\n", noLimit, nullptr, 0);
  rewindPoint_ = position_;
}

void RingModel::put(const std::string& bytes, std::uint64_t limit, const ModelLine* line,
                    std::size_t skip) {
  const bool isFull = limit < position_ + bytes.size() - rewindPoint_;
  const bool outgrows = position_ < file_.size() && file_.size() < position_ + bytes.size();
  if (isFull || outgrows) {
    forget(position_, file_.size());
    file_.resize(position_);
  }
  if (isFull) {
    position_ = rewindPoint_;
    ++passes_;
  }
  forget(position_, position_ + bytes.size());
  file_.replace(position_, std::min(bytes.size(), file_.size() - position_), bytes);
  if (line != nullptr) {
    written_[position_ + skip] = {bytes.size() - skip, number_++, *line};
  }
  position_ += bytes.size();
}

void RingModel::forget(std::uint64_t begin, std::uint64_t end) {
  auto at = written_.lower_bound(begin);
  if (at != written_.begin()) {
    const auto before = std::prev(at);
    if (before->first + before->second.size > begin && begin < end) {
      written_.erase(before);
    }
  }
  while (at != written_.end() && at->first < end) {
    at = written_.erase(at);
  }
}

std::vector<ModelLine> RingModel::lines() const {
  std::map<unsigned, const ModelLine*> byNumber;
  for (const auto& [place, written] : written_) {
    byNumber[written.number] = &written.line;
  }
  std::vector<ModelLine> lines;
  for (const auto& [number, line] : byNumber) {
    lines.push_back(*line);
  }
  return lines;
}
