#pragma once

/// \file
/// What a text takes when it is the format of printf().

#include <map>
#include <string>
#include <string_view>

/// Two texts can stand for each other when these are equal. Flags, widths and precisions are
/// layout and not compared; "%2$s" may take the place of "%s".
struct Directives {
  /// By argument, from 1 on: length modifier and conversion, as "lu"; "*" for a width or
  /// precision that is an argument.
  std::map<unsigned, std::string> arguments;
  /// Those that printf() does not know or that contradict others.
  unsigned malformed = 0;

  bool operator==(const Directives&) const = default;
};

[[nodiscard]] Directives directivesOf(std::string_view text);
