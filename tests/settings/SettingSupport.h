#pragma once

#include <string>
#include <vector>

#include "Engine/utilities/DebuggerNumericSetting.h"
#include "Engine/utilities/DebuggerSetting.h"

#include "tests/support/PlainText.h"

/// \file
/// What the tests of settings share.

/// An identifier for which the registry has no default.
inline constexpr int noDefault = 1000;

inline DebuggerSetting::SettingControl controlOf(int bits) {
  return static_cast<DebuggerSetting::SettingControl>(bits);
}

inline std::string valueOf(const DebuggerSetting& setting) { return plain(setting.getValue()); }

inline bool set(DebuggerSetting& setting, const std::string& text) {
  return setting.setValue(encoded(text));
}

/// What a numeric setting is after a text has been offered, as in "taken 07 7".
inline std::string afterOffer(DebuggerNumericSetting& setting, const std::string& text) {
  const bool taken = set(setting, text);
  return (taken ? "taken " : "refused ") + valueOf(setting) + " " +
         std::to_string(setting.getValueAsUnsigned());
}

/// `count` times `unit`.
inline std::string repeated(const std::string& unit, unsigned count) {
  std::string result;
  result.reserve(unit.size() * count);
  for (unsigned i = 0; i < count; ++i) {
    result += unit;
  }
  return result;
}
