#pragma once

#include <string>
#include <string_view>

/// \file
/// Texts in JSON that is written as it goes, without a document in memory.

/// Appends a text as JSON writes one, in quotes. It is what appendPrintable() makes of the bytes:
/// what is no text, or not for a terminal, is there in hexadecimal, as in "\\x1B".
void appendJsonText(std::string& to, std::string_view text);
