#pragma once

/// \file
/// The numbers of places in traces and exceptions.
///
/// A signature text and the number beside it name a place; support tools look for both. Such a
/// number is written `24_place`: it is not the line where it stands, does not follow when the
/// source moves, and is not `__LINE__`. docs/contract.md lists them all. A place that no tool
/// knows yet says `__LINE__`.

/// The number of a place that others know.
consteval unsigned int operator""_place(unsigned long long number) {
  return static_cast<unsigned int>(number);
}
