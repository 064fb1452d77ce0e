#pragma once

/// \file
/// How a program shows texts that others wrote.

#include <cstddef>
#include <string>
#include <string_view>

/// The text with each control character in hexadecimal, as in "\x1B", so that nothing in it can
/// upset a terminal or a table. Bytes above 0x7F stay as they are.
std::string printable(std::string_view text);

/// The number of columns that UTF-8 text takes on a terminal: two for each character of the
/// East Asian scripts, which begin at U+3000, and one for any other.
std::size_t columnsOf(std::string_view text);
