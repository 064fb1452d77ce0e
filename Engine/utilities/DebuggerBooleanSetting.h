#pragma once

#include "Engine/utilities/DebuggerNumericSetting.h"
#include "Engine/utilities/Export.h"

/// A setting that is on or off. The value is "1" or "0" and the number 1 or 0, whichever of
/// the words was given, in whatever case and with blanks around it.
class CUL_EXPORT DebuggerBooleanSetting : public DebuggerNumericSetting {
 public:
  /// As for DebuggerSetting.
  DebuggerBooleanSetting(const EncodedString& name, SettingControl control, int group,
                         int identifier);

  /// "YES/NO, Y/N, TRUE/FALSE, T/F, ON/OFF, 1/0": the word for on stands first in each pair.
  [[nodiscard]] EncodedString getPermittedValues() const override;
  [[nodiscard]] DebuggerBooleanSetting* asBooleanSetting() override;
  bool setValue(const EncodedString& text) override;
};
