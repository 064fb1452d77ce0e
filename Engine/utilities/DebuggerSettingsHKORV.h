#pragma once

#include "Engine/utilities/DebuggerSettings.h"
#include "Engine/utilities/Export.h"

/// The settings of a debugger whose host is a remote system: the common ones, with some
/// defaults of their own, and those of the connection to the host.
// NOLINTNEXTLINE(cppcoreguidelines-virtual-class-destructor): the virtual slots are fixed.
class CUL_EXPORT DebuggerSettingsHKORV : public DebuggerSettings {
 public:
  /// Number of slots, one for each identifier from 0 on.
  static constexpr unsigned slots = 55;

  DebuggerSettingsHKORV();

  [[nodiscard]] const wchar_t* defaultSetting(unsigned identifier) const override;

  /// Makes the settings of the base, then those of the host system.
  virtual void initialize();
};
