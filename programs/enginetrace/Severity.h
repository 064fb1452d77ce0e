#pragma once

#include <string_view>

/// \file
/// Which types of lines stand out.

enum class Severity : unsigned char { none, warning, error };

[[nodiscard]] constexpr Severity severityOf(std::string_view type) noexcept {
  return type == "ERROR" ? Severity::error : type == "WARNING" ? Severity::warning : Severity::none;
}
