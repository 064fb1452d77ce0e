#pragma once

#include "Engine/utilities/DebuggerNumericSetting.h"
#include "Engine/utilities/Export.h"

/// A setting whose value is a decimal number within a range.
///
/// The number is read as `sscanf` reads "%d%c", where only the number may be found: a sign
/// may stand in front ("+5"), nothing behind ("5x", "0x10", "1 2"). White space around it
/// does not count; what remains is kept as the value, leading zeros and sign included. The
/// range is asked of the number that was read, and one of more than 32 bits loses the others,
/// as everywhere in the C library: "4294967297" is 1.
class CUL_EXPORT DebuggerIntegerSetting : public DebuggerNumericSetting {
 public:
  /// \param name,control,group,identifier as for DebuggerSetting.
  /// \param minimum least number permitted.
  /// \param maximum greatest number permitted.
  DebuggerIntegerSetting(const EncodedString& name, SettingControl control, int group,
                         int identifier, int minimum, int maximum);

  /// As in "1 - 8".
  [[nodiscard]] EncodedString getPermittedValues() const override;
  [[nodiscard]] DebuggerIntegerSetting* asIntegerSetting() override;
  bool setValue(const EncodedString& text) override;

 private:
  int minimum_;
  int maximum_;
};
