#pragma once

#include <string>
#include <string_view>

/// \file
/// How the reader shows bytes that others wrote.

/// Appends the text: tabs, newlines and characters that a terminal shows as they are, each other
/// byte in hexadecimal, as in "\x1B". Bytes that are no UTF-8, control characters of Unicode and
/// its marks for the direction of writing are shown like that, too.
void appendPrintable(std::string& to, std::string_view text);

/// What a name is shown as in one line: as appendPrintable() shows it, and each newline in
/// hexadecimal, too.
[[nodiscard]] std::string shownName(std::string_view name);

/// Whether appendPrintable() would change nothing.
[[nodiscard]] bool isPrintable(std::string_view text) noexcept;

/// Whether that goes without a look at characters: one line of ASCII and tabs.
[[nodiscard]] bool isPlainLine(std::string_view text) noexcept;
