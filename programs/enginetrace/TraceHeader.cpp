#include "programs/enginetrace/TraceHeader.h"

#include <charconv>
#include <ctime>
#include <string>

#include "programs/enginetrace/LineStart.h"

namespace {

constexpr std::string_view startText = "Trace start at ";
constexpr std::string_view endText = "Trace end at ";
constexpr std::string_view programText = "Debugger: ";
constexpr std::string_view versionText = ";  Version: ";
constexpr std::string_view buildText = "Build Date: ";
constexpr std::string_view includedText = "Included Trace types:";
constexpr std::string_view excludedText = "Excluded Trace types:";
constexpr std::string_view typeText = "  ";
constexpr std::string_view sizeText = "Trace size: ";
constexpr std::uint64_t megabyte = 1'048'576;

// What the trace itself has written in a line.
std::string_view ownText(std::string_view line) {
  const Parts parts = partsOf(line);
  return parts.function == "void TraceImplementation::traceInternal" ? parts.text
                                                                     : std::string_view();
}

bool takePrefix(std::string_view& text, std::string_view prefix) {
  if (!text.starts_with(prefix)) {
    return false;
  }
  text.remove_prefix(prefix.size());
  return true;
}

// "Sun Nov 22 12:23:41 2026", whatever the locale.
std::optional<WallTime> timeIn(std::string_view text) {
  static constexpr std::string_view months = "JanFebMarAprMayJunJulAugSepOctNovDec";
  std::tm parts = {};
  char month[4] = {};
  const std::string copy(text.substr(0, text.find('\n')));
  if (std::sscanf(copy.c_str(), "%*3s %3s %2d %2d:%2d:%2d %4d", month, &parts.tm_mday,
                  &parts.tm_hour, &parts.tm_min, &parts.tm_sec, &parts.tm_year) != 6) {
    return std::nullopt;
  }
  const std::size_t place = months.find(month);
  if (place == std::string_view::npos || place % 3 != 0) {
    return std::nullopt;
  }
  parts.tm_mon = static_cast<int>(place / 3);
  parts.tm_year -= 1900;
  return timegm(&parts) * microsecondsPerSecond;
}

void takeText(std::string_view text, TraceFacts& facts, std::vector<std::string>*& types) {
  if (takePrefix(text, startText)) {
    facts.started = timeIn(text);
  } else if (takePrefix(text, programText)) {
    const std::size_t end = text.find(versionText);
    facts.program = text.substr(0, end);
    if (end != std::string_view::npos) {
      facts.version = text.substr(end + versionText.size());
    }
  } else if (takePrefix(text, buildText)) {
    facts.build = text.substr(0, text.find('\n'));
  } else if (text == includedText) {
    types = &facts.included;
  } else if (text == excludedText) {
    types = &facts.excluded;
  } else if (types != nullptr && takePrefix(text, typeText)) {
    types->emplace_back(text);
  } else if (takePrefix(text, sizeText)) {
    unsigned size = 0;
    std::from_chars(text.data(), text.data() + text.size(), size);
    facts.limit = size * megabyte;
  }
}

// Behind the line that begins at `at`.
std::size_t endOfLine(std::string_view bytes, std::size_t at) {
  do {
    at = bytes.find('\n', at);
    at = at == std::string_view::npos ? bytes.size() : at + 1;
  } while (at < bytes.size() && !beginsLine(bytes.substr(at)));
  return at;
}

}  // namespace

void readHeader(std::string_view header, TraceFacts& facts) {
  std::vector<std::string>* types = nullptr;
  while (!header.empty()) {
    const std::size_t end = endOfLine(header, 0);
    std::string_view line = header.substr(0, end);
    line.remove_suffix(line.ends_with('\n') ? 1 : 0);
    takeText(ownText(line), facts, types);
    header.remove_prefix(end);
  }
}

std::optional<WallTime> endOf(std::string_view line) {
  std::string_view text = ownText(line);
  return takePrefix(text, endText) ? timeIn(text) : std::nullopt;
}
