#pragma once

#include "Engine/utilities/DebuggerSetting.h"
#include "Engine/utilities/Export.h"

/// A setting whose value stands for a number of 32 bits, which any thread may read while the
/// controlling thread changes it. The number is 0 as long as no value has been taken.
class CUL_EXPORT DebuggerNumericSetting : public DebuggerSetting {
 public:
  [[nodiscard]] DebuggerNumericSetting* asNumericSetting() override;

  /// The number as it is.
  [[nodiscard]] virtual unsigned getValueAsUnsigned() const;
  /// The number; one of 2^31 or more is negative.
  [[nodiscard]] virtual int getValueAsInt() const;
  /// Whether the number is not 0.
  [[nodiscard]] virtual bool getValueAsBool() const;

 protected:
  /// As for DebuggerSetting, with the number 0.
  DebuggerNumericSetting(const EncodedString& name, SettingControl control, int group,
                         int identifier, SettingType type);

  /// Stores an accepted value and its number.
  void store(const EncodedString& canonical, unsigned number);

 private:
  unsigned number_ = 0;
};
