#pragma once

#include <memory>

#include "Engine/utilities/DebuggerEnumSetting.h"
#include "Engine/utilities/DebuggerListSetting.h"
#include "Engine/utilities/DebuggerSetting.h"
#include "Engine/utilities/DebuggerStringSetting.h"

/// \file
/// The rows of the registry's tables of settings, and how a row becomes a setting.

/// What makes a setting. What a type has no use for stays 0 or null.
struct SettingRow {
  /// Makes the setting that a row describes.
  std::unique_ptr<DebuggerSetting> (*make)(const SettingRow&);
  const wchar_t* name;
  const wchar_t* defaultText;  ///< Null: the configuration module knows it.
  int control;
  int group;
  int identifier;
  unsigned minimum = 0;  ///< Of the number, or of the length.
  unsigned maximum = 0;
  bool acceptsAllAndNone = false;
  const DebuggerEnumSetting::EnumSettingItem* enumItems = nullptr;
  const DebuggerListSetting::ListSettingItem* listItems = nullptr;
};

/// \name The makers of each type
/// @{
[[nodiscard]] std::unique_ptr<DebuggerSetting> makeString(const SettingRow& row);
[[nodiscard]] std::unique_ptr<DebuggerSetting> makePath(const SettingRow& row);
[[nodiscard]] std::unique_ptr<DebuggerSetting> makeUnsigned(const SettingRow& row);
[[nodiscard]] std::unique_ptr<DebuggerSetting> makeBoolean(const SettingRow& row);
[[nodiscard]] std::unique_ptr<DebuggerSetting> makeEnum(const SettingRow& row);
[[nodiscard]] std::unique_ptr<DebuggerSetting> makeList(const SettingRow& row);
/// @}

/// The row of "ASSERTION", a setting that is needed before there is a registry, too.
extern const SettingRow assertionRow;

/// \name One row of each type
/// @{
constexpr SettingRow stringRow(const wchar_t* name, int control, int group, int identifier,
                               const wchar_t* defaultText, unsigned minLength = 0,
                               unsigned maxLength = DebuggerStringSetting::noLimit) {
  return {makeString, name, defaultText, control, group, identifier, minLength, maxLength};
}

constexpr SettingRow pathRow(const wchar_t* name, int control, int group, int identifier,
                             const wchar_t* defaultText, unsigned minLength, unsigned maxLength) {
  return {makePath, name, defaultText, control, group, identifier, minLength, maxLength};
}

constexpr SettingRow unsignedRow(const wchar_t* name, int control, int group, int identifier,
                                 const wchar_t* defaultText, unsigned minimum, unsigned maximum) {
  return {makeUnsigned, name, defaultText, control, group, identifier, minimum, maximum};
}

constexpr SettingRow booleanRow(const wchar_t* name, int control, int group, int identifier,
                                const wchar_t* defaultText) {
  return {makeBoolean, name, defaultText, control, group, identifier};
}

constexpr SettingRow enumRow(const wchar_t* name, int control, int group, int identifier,
                             const wchar_t* defaultText,
                             const DebuggerEnumSetting::EnumSettingItem* items) {
  return {.make = makeEnum,
          .name = name,
          .defaultText = defaultText,
          .control = control,
          .group = group,
          .identifier = identifier,
          .enumItems = items};
}

constexpr SettingRow listRow(const wchar_t* name, int control, int group, int identifier,
                             const wchar_t* defaultText,
                             const DebuggerListSetting::ListSettingItem* items,
                             bool acceptsAllAndNone) {
  return {.make = makeList,
          .name = name,
          .defaultText = defaultText,
          .control = control,
          .group = group,
          .identifier = identifier,
          .acceptsAllAndNone = acceptsAllAndNone,
          .listItems = items};
}
/// @}
