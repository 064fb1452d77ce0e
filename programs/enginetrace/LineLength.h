#pragma once

#include <cstddef>
#include <string_view>

/// How many bytes the first line of a text takes with the lines that it goes on in, up to where
/// another line or a rewind point begins. Each line ends in a newline.
[[nodiscard]] std::size_t lengthOfLine(std::string_view text) noexcept;
