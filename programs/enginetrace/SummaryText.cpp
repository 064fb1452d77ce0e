#include "programs/enginetrace/SummaryText.h"

#include <algorithm>

#include "programs/enginetrace/PrintableText.h"
#include "programs/enginetrace/TimeText.h"

namespace {

// No character takes more bytes, and no byte more places as appendPrintable() shows it.
constexpr std::size_t mostBytes = 4;

std::string rightAligned(const std::string& text, std::size_t columns) {
  return std::string(columns - std::min(columns, text.size()), ' ') + text;
}

/// The columns of the character that begins with this byte; 0 for its other bytes. Two for the
/// East Asian scripts, which begin at U+3000.
std::size_t columnsOf(char byte) {
  const unsigned code = static_cast<unsigned char>(byte);
  return (code & 0xC0) == 0x80 ? 0 : code >= 0xE3 ? 2 : 1;
}

std::size_t columnsOf(std::string_view text) {
  std::size_t columns = 0;
  for (const char byte : text) {
    columns += columnsOf(byte);
  }
  return columns;
}

/// As many characters of a text as fit.
std::string_view cut(std::string_view text, std::size_t columns) {
  std::size_t taken = 0;
  for (std::size_t i = 0; i < text.size(); ++i) {
    taken += columnsOf(text[i]);
    if (taken > columns) {
      return text.substr(0, i);
    }
  }
  return text;
}

}  // namespace

std::string grouped(std::uint64_t number, std::size_t columns) {
  std::string text = std::to_string(number);
  for (std::size_t place = text.size(); place > 3; place -= 3) {
    text.insert(place - 3, 1, ',');
  }
  return rightAligned(text, columns);
}

std::string counted(std::uint64_t number, std::string_view one) {
  return grouped(number) + ' ' + std::string(one) + (number == 1 ? "" : "s");
}

std::string fitted(std::string_view bytes, std::size_t columns) {
  constexpr std::string_view dots = "...";
  std::string text;
  appendPrintable(text, bytes.substr(0, columns * mostBytes + mostBytes));
  std::replace(text.begin(), text.end(), '\n', ' ');
  std::replace(text.begin(), text.end(), '\t', ' ');
  if (columnsOf(text) <= columns) {
    return text;
  }
  return std::string(cut(text, columns - dots.size())) + std::string(dots);
}

std::string padded(std::string_view bytes, std::size_t columns) {
  std::string text = fitted(bytes, columns);
  return text.append(columns - columnsOf(text), ' ');
}

std::string timeText(WallTime time) {
  std::string text;
  appendTime(text, time, ' ');
  return text;
}

std::string durationText(WallTime duration, std::size_t columns) {
  std::string text;
  appendDuration(text, duration);
  return rightAligned(text, columns);
}
