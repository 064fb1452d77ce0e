#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "Engine/utilities/EncodedString.h"
#include "Engine/utilities/OwningList.h"

/// \file
/// How the kinds of settings read the texts that they are given. Works on bytes and does not
/// depend on the locale.

/// The text without the blanks at both ends.
[[nodiscard]] std::string_view withoutBlanks(std::string_view text) noexcept;

/// The text with the letters of ASCII in upper case and without the blanks at both ends.
[[nodiscard]] std::string keywordOf(std::string_view text);

/// The number that `sscanf` reads from a text with "%d%c" for `int` and "%u%c" for `unsigned`,
/// see readNumber(), when it lies from `minimum` to `maximum`. Nothing when there is no
/// number, something behind it, or the number lies elsewhere.
/// @{
[[nodiscard]] std::optional<int> numberWithin(const EncodedString& text, int minimum, int maximum);
[[nodiscard]] std::optional<unsigned> numberWithin(const EncodedString& text, unsigned minimum,
                                                   unsigned maximum);
/// @}

/// The text without the white space at both ends.
[[nodiscard]] EncodedString withoutWhiteSpace(EncodedString text);

/// As in "1 - 8".
[[nodiscard]] EncodedString rangeText(const EncodedString& minimum, const EncodedString& maximum);

/// Puts a text behind others, with a separator in between.
void appendTo(EncodedString& texts, const EncodedString& separator, const EncodedString& text);

/// The texts joined by ", ".
[[nodiscard]] EncodedString joined(const OwningList<EncodedString>& texts);
