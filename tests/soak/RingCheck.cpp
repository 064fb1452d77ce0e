#include "tests/soak/RingCheck.h"

#include <algorithm>
#include <charconv>

namespace {

constexpr std::int64_t day = 86'400'000'000;  // microseconds

// "12:23:41.000098 (Writer07)"
constexpr std::size_t stampLength = 15;
constexpr std::size_t namePlace = 17;
constexpr std::size_t nameLength = 8;
constexpr std::size_t startLength = 26;

constexpr std::string_view numberedTag = "**AGENT: void Writer::run(";
constexpr std::string_view markTag = "**AGENT: mark ";

bool beginsLine(std::string_view line) {
  constexpr std::string_view pattern = "00:00:00.000000 (";
  if (line.size() < startLength || line[startLength - 1] != ')') {
    return false;
  }
  for (std::size_t i = 0; i < pattern.size(); ++i) {
    const bool isDigit = line[i] >= '0' && line[i] <= '9';
    if (pattern[i] == '0' ? !isDigit : line[i] != pattern[i]) {
      return false;
    }
  }
  return true;
}

// The time of day of what beginsLine(), in microseconds.
std::int64_t timeOf(std::string_view line) {
  const auto number = [line](std::size_t place, std::size_t digits) {
    std::int64_t n = 0;
    std::from_chars(line.data() + place, line.data() + place + digits, n);
    return n;
  };
  return ((number(0, 2) * 60 + number(3, 2)) * 60 + number(6, 2)) * 1'000'000 +
         number(stampLength - 6, 6);
}

// How much later a time of day is than another; the one before midnight is the earlier.
std::int64_t elapsed(std::int64_t from, std::int64_t to) {
  const std::int64_t difference = (to - from + day) % day;
  return difference < day / 2 ? difference : difference - day;
}

bool isLifeOfThread(std::string_view body) {
  return body.find("(132): Starting thread ") != std::string_view::npos ||
         body.find("(136): Terminating thread ") != std::string_view::npos;
}

std::string_view lineAt(std::string_view text, std::size_t place) {
  return text.substr(place, text.find('\n', place) - place);
}

}  // namespace

std::string textOfLine(unsigned writer, unsigned long number) {
  static constexpr std::string_view filler =
      "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789"
      "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
  std::string text = "writer " + std::to_string(writer) + ", line " + std::to_string(number) + ": ";
  text += filler.substr(number % 53, number % 61);
  text += '|';
  text += std::to_string(number);
  return text;
}

std::string nameOfWriter(unsigned writer) {
  return std::string("Writer") + (writer < 10 ? "0" : "") + std::to_string(writer);
}

void RingCheck::note(unsigned long& kind, const char* what, std::string_view line,
                     unsigned long n) {
  if (findings_.first.empty()) {
    findings_.first = std::string(what) + ": \"" + std::string(line.substr(0, 200)) + "\"";
  }
  kind += n;
}

void RingCheck::checkOrder(std::string_view line) {
  const std::int64_t time = timeOf(line);
  if (time_ >= 0 && elapsed(time_, time) < 0) {
    note(findings_.outOfOrder, "earlier than the line before", line);
  }
  time_ = time;
}

void RingCheck::checkNumbered(std::string_view line, std::string_view body) {
  unsigned writer = 0;
  unsigned long number = 0;
  const char* const end = body.data() + body.size();
  const std::from_chars_result place =
      std::from_chars(body.data() + numberedTag.size(), end, writer);
  const auto rest = std::string_view(place.ptr, static_cast<std::size_t>(end - place.ptr));
  constexpr std::string_view behind = "): ";
  constexpr std::string_view numberMark = ", line ";
  const std::size_t mark = rest.find(numberMark);
  if (mark != std::string_view::npos) {
    std::from_chars(rest.data() + mark + numberMark.size(), end, number);
  }
  if (writer == 0 || writer > last_.size() || number == 0 || !rest.starts_with(behind) ||
      rest.substr(behind.size()) != textOfLine(writer, number) ||
      line.substr(namePlace, nameLength) != nameOfWriter(writer)) {
    note(findings_.torn, "torn", line);
    return;
  }
  ++findings_.lines;
  Writer& known = last_[writer - 1];
  if (known.newest != 0 && number <= known.newest) {
    note(findings_.outOfOrder, "behind a later one of its writer", line);
    return;
  }
  // The first of the ring may be one that an earlier check has seen.
  const unsigned long before =
      known.newest != 0 ? known.newest : std::min(known.checked, number - 1);
  if (number > before + 1) {
    note(findings_.missing, "lines are missing before", line, number - before - 1);
  }
  known.newest = number;
}

void RingCheck::checkLine(std::string_view line) {
  if (!beginsLine(line)) {
    note(findings_.torn, "torn", line);
    return;
  }
  checkOrder(line);
  const std::string_view body = line.substr(startLength);
  if (body.starts_with(numberedTag)) {
    checkNumbered(line, body);
  } else if (body.starts_with("**ERROR: ") || body.starts_with("**WARNING: ")) {
    note(findings_.errors, "an error", line);
  } else if (isLifeOfThread(body) || body.starts_with(markTag)) {
    ++findings_.others;
  } else {
    note(findings_.torn, "torn", line);
  }
}

void RingCheck::check(std::string_view ring, unsigned long mark,
                      std::span<const unsigned long> written) {
  time_ = -1;
  for (Writer& writer : last_) {
    writer.newest = 0;
  }
  const std::size_t place = ring.find(std::string(markTag) + std::to_string(mark) + "\n");
  if (place == std::string_view::npos) {
    note(findings_.missing, "the newest line is missing", "mark " + std::to_string(mark));
    return;
  }
  // What follows the mark may be changing, up to the end of the ring and from its beginning.
  const std::size_t newest = std::min(ring.find('\n', place) + 1, ring.size());
  const std::size_t settled = newest + margin_;
  const auto behindNewline = [ring](std::size_t from) {
    return from < ring.size() ? std::min(ring.find('\n', from), ring.size() - 1) + 1 : ring.size();
  };
  const std::size_t oldest = behindNewline(settled);
  const std::size_t begin = settled > capacity_ ? std::min(behindNewline(margin_), newest) : 0;
  for (const std::string_view part : {ring.substr(oldest), ring.substr(begin, newest - begin)}) {
    for (std::size_t start = 0; start < part.size();) {
      const std::string_view line = lineAt(part, start);
      if (start + line.size() == part.size()) {
        note(findings_.torn, "without its end", line);
      } else {
        checkLine(line);
      }
      start += line.size() + 1;
    }
  }
  for (std::size_t i = 0; i < last_.size(); ++i) {
    Writer& writer = last_[i];
    const unsigned long seen = std::max(writer.newest, writer.checked);
    if (seen < written[i]) {
      note(findings_.missing, "the last lines are missing of",
           nameOfWriter(static_cast<unsigned>(i + 1)), written[i] - seen);
    } else if (seen > written[i]) {
      note(findings_.torn, "a line that was not written yet, of",
           nameOfWriter(static_cast<unsigned>(i + 1)));
    }
    writer.checked = written[i];
  }
}
