#include "Engine/utilities/DebuggerSettingsHKORV.h"

#include "Engine/internal/SettingRow.h"

namespace {

// The defaults of "HRDM_PORT" and "SOCKET_DESCRIPTOR" are out of their ranges, so that both stay 0,
// which tells the engine that no port was given, until somebody gives one.
constexpr SettingRow hostSettings[] = {
    unsignedRow(L"HXT_PORT", 17, 20, 47, L"8002", 256, 65535),
    unsignedRow(L"HRDM_PORT", 17, 20, 51, L"0", 256, 65535),
    stringRow(L"HRDM_KEY", 17, 20, 49, L"", 0, 8),
    stringRow(L"HRDM_HOST", 17, 20, 50, L""),
    booleanRow(L"LISTING_DEBUG", 17, 20, 48, L"0"),
    booleanRow(L"MACRA_LISTING", 17, 20, 54, L"0"),
    unsignedRow(L"SOCKET_DESCRIPTOR", 17, 20, 52, L"", 256, 65535),
    unsignedRow(L"PROBE_TIMEOUT", 65, 20, 53, L"2000", 0, 30000)};

struct OtherDefault {
  unsigned identifier;
  const wchar_t* text;
};

// What a remote host wants different: "MEMORY_CACHE_TIMEOUT", "RUNTIME_MODULES" and
// "SOURCESTEP".
constexpr OtherDefault otherDefaults[] = {{26, L"10000"}, {34, L""}, {40, L"ALL"}};

}  // namespace

DebuggerSettingsHKORV::DebuggerSettingsHKORV() : DebuggerSettings(slots) {}

const wchar_t* DebuggerSettingsHKORV::defaultSetting(unsigned identifier) const {
  for (const OtherDefault& other : otherDefaults) {
    if (other.identifier == identifier) {
      return other.text;
    }
  }
  for (const SettingRow& row : hostSettings) {
    if (static_cast<unsigned>(row.identifier) == identifier) {
      return row.defaultText;
    }
  }
  return DebuggerSettings::defaultSetting(identifier);
}

void DebuggerSettingsHKORV::initialize() {
  DebuggerSettings::initialize();
  add(hostSettings);
}
