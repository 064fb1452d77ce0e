#include "programs/enginetrace/TextWriter.h"

#include <algorithm>
#include <cstdint>

#include "programs/enginetrace/LineStart.h"
#include "programs/enginetrace/PrintableText.h"
#include "programs/enginetrace/Severity.h"
#include "programs/enginetrace/TimeText.h"

namespace {

constexpr std::string_view ordinary = "\33[0m";
constexpr std::string_view faint = "\33[2m";
constexpr std::string_view green = "\33[32m";
constexpr std::string_view cyan = "\33[36m";
constexpr std::string_view yellow = "\33[33m";
constexpr std::string_view red = "\33[1;31m";

std::string_view colourOf(Severity severity) {
  switch (severity) {
    case Severity::error:
      return red;
    case Severity::warning:
      return yellow;
    case Severity::none:
      break;
  }
  return {};
}

}  // namespace

TextWriter::TextWriter(Output& output, const TextStyle& style) : output_(output), style_(style) {}

void TextWriter::write(const Line& line) {
  const std::string_view mark = markOf(*line.process);
  buffer_.clear();
  if (!style_.hasColour && isPlainLine(line.whole)) {
    output_.put(mark);
    putDate(line.time);
    output_.put(buffer_);
    output_.put(line.whole);
    output_.put("\n");
    return;
  }
  const std::string_view colour =
      style_.hasColour ? colourOf(severityOf(typeOf(line.whole))) : std::string_view();
  for (std::size_t start = 0; start <= line.whole.size();) {
    // The lines that a text goes on in are marked as well: each can be found by its process.
    buffer_ += mark;
    const std::size_t end = std::min(line.whole.find('\n', start), line.whole.size());
    const std::string_view text = line.whole.substr(start, end - start);
    if (start == 0) {
      putDate(line.time);
      putBeginning(text, colour);
    } else {
      putIn(colour, text);
    }
    buffer_ += '\n';
    start = end + 1;
  }
  output_.put(buffer_);
}

void TextWriter::gap() { output_.put("--\n"); }

std::string_view TextWriter::markOf(const Process& process) {
  if (style_.markWidth == 0) {
    return {};
  }
  Mark& mark = marks_[reinterpret_cast<std::uintptr_t>(&process) / sizeof process % marks_.size()];
  if (mark.process != &process) {
    mark.process = &process;
    mark.text = style_.hasColour ? green : "";
    const std::size_t begin = mark.text.size();
    appendPrintable(mark.text, process.mark);
    mark.text.resize(std::max(mark.text.size(), begin + style_.markWidth), ' ');
    mark.text += style_.hasColour ? ordinary : "";
    mark.text += "  ";
  }
  return mark.text;
}

void TextWriter::putDate(WallTime time) {
  if (!style_.hasDates) {
    return;
  }
  if (time < day_ || time >= day_ + microsecondsPerDay || date_.empty()) {
    constexpr std::size_t length = std::string_view("2026-11-22 ").size();
    const WallTime rest = time % microsecondsPerDay;
    day_ = time - (rest < 0 ? rest + microsecondsPerDay : rest);
    date_.clear();
    appendTime(date_, day_, ' ');
    date_.resize(length);
  }
  putIn(faint, date_);
}

// The first line of a text: the time and the thread, the type, and the rest.
void TextWriter::putBeginning(std::string_view text, std::string_view colour) {
  if (style_.hasColour && beginsLine(text)) {
    putIn(faint, text.substr(0, lineStartLength));
    text.remove_prefix(lineStartLength);
    if (colour.empty() && text.starts_with("**")) {
      const std::size_t end = std::min(text.find(": "), text.size());
      putIn(cyan, text.substr(0, end));
      text.remove_prefix(end);
    }
  }
  putIn(colour, text);
}

void TextWriter::putIn(std::string_view colour, std::string_view text) {
  const bool isColoured = style_.hasColour && !colour.empty();
  if (isColoured) {
    buffer_ += colour;
  }
  appendPrintable(buffer_, text);
  if (isColoured) {
    buffer_ += ordinary;
  }
}
