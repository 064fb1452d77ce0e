#pragma once

#include "Engine/utilities/DebuggerNumericSetting.h"
#include "Engine/utilities/Export.h"

/// A setting whose value is a decimal number of 0 or more within a range.
///
/// It is read as that of a DebuggerIntegerSetting, but with "%u%c", which takes a sign and
/// makes a great number of a negative one: "-1" is 4294967295, permitted where the maximum is
/// that, and "-4294967295" is 1. The value remains the text as it was given.
class CUL_EXPORT DebuggerUnsignedSetting : public DebuggerNumericSetting {
 public:
  /// \param name,control,group,identifier as for DebuggerSetting.
  /// \param minimum least number permitted.
  /// \param maximum greatest number permitted.
  DebuggerUnsignedSetting(const EncodedString& name, SettingControl control, int group,
                          int identifier, unsigned minimum, unsigned maximum);

  /// As in "1 - 8".
  [[nodiscard]] EncodedString getPermittedValues() const override;
  [[nodiscard]] DebuggerUnsignedSetting* asUnsignedSetting() override;
  bool setValue(const EncodedString& text) override;

 private:
  unsigned minimum_;
  unsigned maximum_;
};
