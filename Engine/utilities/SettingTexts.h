#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "Engine/utilities/EncodedString.h"
#include "Engine/utilities/OwningList.h"

/// \file
/// How the kinds of settings read the texts that they are given. Works on bytes and does not
/// depend on the locale. Internal to the library.

/// The text without the blanks at both ends.
[[nodiscard]] std::string_view withoutBlanks(std::string_view text) noexcept;

/// The text with the letters of ASCII in upper case and without the blanks at both ends.
[[nodiscard]] std::string keywordOf(std::string_view text);

/// The number that `sscanf` finds with "%d%c" when it finds nothing behind it: white space
/// and a sign may stand in front of the digits. Nothing when the text is anything else, or
/// its number has more than 64 bits.
[[nodiscard]] std::optional<long long> wholeNumber(std::string_view text) noexcept;

/// As in "1 - 8".
[[nodiscard]] EncodedString rangeText(const EncodedString& minimum, const EncodedString& maximum);

/// Puts a text behind others, with a separator in between.
void appendTo(EncodedString& texts, const EncodedString& separator, const EncodedString& text);

/// The texts joined by ", ".
[[nodiscard]] EncodedString joined(const OwningList<EncodedString>& texts);
