#include "Engine/utilities/DebuggerSettingsHKORV.h"

#include "Engine/internal/SettingTables.h"

DebuggerSettingsHKORV::DebuggerSettingsHKORV() : DebuggerSettings(slots) {}

const wchar_t* DebuggerSettingsHKORV::defaultSetting(unsigned identifier) const {
  if (const SettingRow* const row = rowOf(SettingTables::host, identifier); row != nullptr) {
    return row->defaultText;
  }
  if (const SettingRow* const row = rowOfAnyHost(identifier);
      row != nullptr && row->hostDefault != nullptr) {
    return row->hostDefault;
  }
  return DebuggerSettings::defaultSetting(identifier);
}

void DebuggerSettingsHKORV::initialize() {
  DebuggerSettings::initialize();
  add(SettingTables::host);
}
