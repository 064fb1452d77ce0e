#pragma once

#include <memory>
#include <span>

#include "Engine/utilities/DebuggerEnumSetting.h"
#include "Engine/utilities/DebuggerListSetting.h"
#include "Engine/utilities/DebuggerSetting.h"
#include "Engine/utilities/DebuggerStringSetting.h"

/// \file
/// The rows of the registry's tables of settings (SettingTables.h), and how a row becomes a
/// setting.

/// What makes a setting. What a type has no use for stays 0 or null.
struct SettingRow {
  /// The number by which user interfaces order settings.
  enum class Group : int {
    none = 20  ///< Shared by those that none orders.
  };
  /// The identifier: the setting's slot in the registry, and the key of its default.
  enum class Slot : int {};
  /// Of a number, or of a length in characters.
  struct Limits {
    unsigned minimum;
    unsigned maximum;
  };

  /// Makes the setting that a row describes.
  std::unique_ptr<DebuggerSetting> (*make)(const SettingRow&);
  const wchar_t* name;
  const wchar_t* defaultText;  ///< Null: the configuration module knows it.
  int control;                 ///< A set of DebuggerSetting::SettingControl bits.
  Group group;
  Slot slot;
  Limits limits = {};
  bool acceptsAllAndNone = false;
  bool isSecret = false;  ///< See DebuggerSetting::isSecret().
  const DebuggerEnumSetting::EnumSettingItem* enumItems = nullptr;
  const DebuggerListSetting::ListSettingItem* listItems = nullptr;
  const wchar_t* hostDefault = nullptr;  ///< The default where the host is a remote system; null:
                                         ///< as elsewhere.
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

/// \name One row of each type
/// @{
consteval SettingRow stringRow(const wchar_t* name, int control, SettingRow::Group group,
                               SettingRow::Slot slot, const wchar_t* defaultText,
                               SettingRow::Limits length = {0, DebuggerStringSetting::noLimit}) {
  return {makeString, name, defaultText, control, group, slot, length};
}

consteval SettingRow pathRow(const wchar_t* name, int control, SettingRow::Group group,
                             SettingRow::Slot slot, const wchar_t* defaultText) {
  return {makePath, name, defaultText, control, group, slot, {0, DebuggerStringSetting::noLimit}};
}

consteval SettingRow unsignedRow(const wchar_t* name, int control, SettingRow::Group group,
                                 SettingRow::Slot slot, const wchar_t* defaultText,
                                 SettingRow::Limits limits) {
  return {makeUnsigned, name, defaultText, control, group, slot, limits};
}

consteval SettingRow booleanRow(const wchar_t* name, int control, SettingRow::Group group,
                                SettingRow::Slot slot, const wchar_t* defaultText) {
  return {makeBoolean, name, defaultText, control, group, slot};
}

consteval SettingRow enumRow(const wchar_t* name, int control, SettingRow::Group group,
                             SettingRow::Slot slot, const wchar_t* defaultText,
                             const DebuggerEnumSetting::EnumSettingItem* items) {
  SettingRow row = {makeEnum, name, defaultText, control, group, slot};
  row.enumItems = items;
  return row;
}

consteval SettingRow listRow(const wchar_t* name, int control, SettingRow::Group group,
                             SettingRow::Slot slot, const wchar_t* defaultText,
                             const DebuggerListSetting::ListSettingItem* items,
                             bool acceptsAllAndNone = false) {
  SettingRow row = {makeList, name, defaultText, control, group, slot};
  row.listItems = items;
  row.acceptsAllAndNone = acceptsAllAndNone;
  return row;
}
/// @}

/// \name Columns that few rows have
/// @{
consteval SettingRow secret(SettingRow row) {
  row.isSecret = true;
  return row;
}

consteval SettingRow withHostDefault(SettingRow row, const wchar_t* hostDefault) {
  row.hostDefault = hostDefault;
  return row;
}
/// @}

/// \name Items of a list
/// @{
consteval DebuggerListSetting::ListSettingItem sets(const wchar_t* name, unsigned mask) {
  return {name, mask, true};
}

consteval DebuggerListSetting::ListSettingItem clears(const wchar_t* name, unsigned mask) {
  return {name, mask, false};
}
/// @}

/// The row of an identifier; null when the table has none.
[[nodiscard]] constexpr const SettingRow* rowOf(std::span<const SettingRow> table,
                                                unsigned identifier) noexcept {
  for (const SettingRow& row : table) {
    if (static_cast<unsigned>(row.slot) == identifier) {
      return &row;
    }
  }
  return nullptr;
}
