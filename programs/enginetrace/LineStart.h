#pragma once

#include <cstddef>
#include <cstdint>
#include <emmintrin.h>
#include <string_view>

/// \file
/// How a line begins: "12:23:41.000098 (main    )", 26 bytes whose places are fixed. It is looked
/// for behind each newline of a file, so that it must cost next to nothing.

constexpr std::size_t lineStartLength = 26;

/// Bytes of the thread's name, which may be any.
constexpr std::size_t threadNamePlace = 17;
constexpr std::size_t threadNameLength = 8;

/// What the trace writes behind its header and at each rewind point, with its newline.
constexpr std::string_view separatorLine =
    "========================================================================\n";

/// Whether a line begins with these bytes, of which there must be lineStartLength.
inline bool beginsLine(const char* bytes) noexcept {
  // Each byte of the stamp between a lower and an upper bound.
  const __m128i stamp = _mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes));
  const __m128i lower =
      _mm_setr_epi8('0', '0', ':', '0', '0', ':', '0', '0', '.', '0', '0', '0', '0', '0', '0', ' ');
  const __m128i upper =
      _mm_setr_epi8('2', '9', ':', '5', '9', ':', '6', '9', '.', '9', '9', '9', '9', '9', '9', ' ');
  const __m128i bounded = _mm_min_epu8(_mm_max_epu8(stamp, lower), upper);
  return _mm_movemask_epi8(_mm_cmpeq_epi8(bounded, stamp)) == 0xFFFF && bytes[16] == '(' &&
         bytes[25] == ')';
}

inline bool beginsLine(std::string_view bytes) noexcept {
  return bytes.size() >= lineStartLength && beginsLine(bytes.data());
}

/// The time of day of what beginsLine(), in microseconds.
inline std::int64_t timeOfDay(const char* line) noexcept {
  const auto digit = [line](std::size_t place) { return std::int64_t{line[place] - '0'}; };
  const std::int64_t seconds =
      ((digit(0) * 10 + digit(1)) * 60 + digit(3) * 10 + digit(4)) * 60 + digit(6) * 10 + digit(7);
  std::int64_t fraction = 0;
  for (std::size_t place = 9; place < 15; ++place) {
    fraction = fraction * 10 + digit(place);
  }
  return seconds * 1'000'000 + fraction;
}

/// Whether a separator begins with these bytes.
inline bool beginsSeparator(std::string_view bytes) noexcept {
  return !bytes.empty() && bytes[0] == separatorLine[0] && bytes.starts_with(separatorLine);
}
