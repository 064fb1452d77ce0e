#include "programs/enginetrace/Line.h"

#include <algorithm>
#include <bit>
#include <cstddef>
#include <emmintrin.h>

#include "programs/enginetrace/LineStart.h"

namespace {

constexpr std::string_view tagMark = "**";
constexpr std::string_view colon = ": ";

// Where the first ": " of the first line is; npos when there is none. Names are full of colons, and
// each line is looked through: sixteen bytes at once.
std::size_t findColon(std::string_view text) noexcept {
  constexpr std::size_t step = 16;
  std::size_t at = 0;
  for (; at + step < text.size(); at += step) {
    const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(text.data() + at));
    const __m128i next = _mm_loadu_si128(reinterpret_cast<const __m128i*>(text.data() + at + 1));
    const auto colons = static_cast<unsigned>(_mm_movemask_epi8(_mm_and_si128(
        _mm_cmpeq_epi8(bytes, _mm_set1_epi8(':')), _mm_cmpeq_epi8(next, _mm_set1_epi8(' ')))));
    const auto newlines =
        static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(bytes, _mm_set1_epi8('\n'))));
    if ((colons | newlines) != 0) {
      const int first = std::countr_zero(colons | newlines);
      return (colons >> first & 1) != 0 ? at + static_cast<unsigned>(first)
                                        : std::string_view::npos;
    }
  }
  const std::size_t end = text.find(colon, at);
  return end < text.find('\n', at) ? end : std::string_view::npos;
}

// What stands before a tag's or function's colon in the first line of a text; all else stays.
std::string_view takeUpToColon(std::string_view& rest) noexcept {
  const std::size_t end = findColon(rest);
  if (end == std::string_view::npos) {
    return {};
  }
  const std::string_view before = rest.substr(0, end);
  rest.remove_prefix(end + colon.size());
  return before;
}

// "12" of "f(12)"; 0 when the text does not end in a number in parentheses.
unsigned lineNumber(std::string_view& function) noexcept {
  constexpr std::size_t mostDigits = 9;
  if (!function.ends_with(')')) {
    return 0;
  }
  unsigned number = 0;
  unsigned unit = 1;
  std::size_t at = function.size() - 1;
  const std::size_t stop = at - std::min(at, mostDigits);
  for (; at > stop && function[at - 1] >= '0' && function[at - 1] <= '9'; --at, unit *= 10) {
    number += unit * static_cast<unsigned>(function[at - 1] - '0');
  }
  if (at == 0 || function[at - 1] != '(') {
    return 0;
  }
  function = function.substr(0, at - 1);
  return number;
}

// A function is traced without line number or not at all, and then the text may have a colon, too.
// A signature has a class or a namespace, and what is no part of a name stands in words only.
bool isSignature(std::string_view text) noexcept {
  constexpr std::string_view others = "_:<>,*&~ {}=+-/!|^%[]";
  return text.find("::") != std::string_view::npos &&
         std::all_of(text.begin(), text.end(), [&](char c) {
           return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                  others.find(c) != std::string_view::npos;
         });
}

void takeTag(std::string_view& rest, Parts& parts) noexcept {
  std::string_view behind = rest.substr(tagMark.size());
  const std::string_view tag = takeUpToColon(behind);
  if (tag.empty()) {
    return;
  }
  rest = behind;
  const std::size_t end = std::min(tag.find_first_of("/ "), tag.size());
  parts.type = tag.substr(0, end);
  parts.detail = tag.substr(std::min(end + 1, tag.size()));
}

void takeFunction(std::string_view& rest, Parts& parts) noexcept {
  std::string_view behind = rest;
  std::string_view function = takeUpToColon(behind);
  parts.line = lineNumber(function);
  if (parts.line != 0 || isSignature(function)) {
    parts.function = function;
    rest = behind;
  }
}

}  // namespace

Parts partsOf(std::string_view whole) noexcept {
  Parts parts;
  std::string_view rest = whole;
  if (beginsLine(whole)) {
    parts.thread = whole.substr(threadNamePlace, threadNameLength);
    parts.thread = parts.thread.substr(0, parts.thread.find_last_not_of(' ') + 1);
    rest.remove_prefix(lineStartLength);
    if (rest.starts_with(tagMark)) {
      takeTag(rest, parts);
    }
    takeFunction(rest, parts);
  }
  parts.text = rest;
  return parts;
}

std::string_view typeOf(std::string_view whole) noexcept {
  constexpr std::size_t place = lineStartLength + tagMark.size();
  if (!beginsLine(whole) || whole.substr(lineStartLength, tagMark.size()) != tagMark) {
    return {};
  }
  const std::string_view rest = whole.substr(place);
  std::size_t end = 0;
  while (end < rest.size() && rest[end] != '/' && rest[end] != ' ' && rest[end] != '\n' &&
         !(rest[end] == ':' && rest.substr(end, colon.size()) == colon)) {
    ++end;
  }
  const std::string_view first = rest.substr(0, end);
  if (rest.substr(end).starts_with(colon)) {
    return first;
  }
  std::string_view behind = rest;
  return takeUpToColon(behind).empty() ? std::string_view() : first;
}
