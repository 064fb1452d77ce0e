#pragma once

#include "Engine/utilities/DebuggerSetting.h"
#include "Engine/utilities/Export.h"

/// A setting whose value is any text of a permitted length, kept as given.
class CUL_EXPORT DebuggerStringSetting : public DebuggerSetting {
 public:
  /// As a minimum or maximum length: no limit.
  static constexpr unsigned short noLimit = 65535;

  /// \param name,control,group,identifier as for DebuggerSetting.
  /// \param minLength least length of a value, in characters.
  /// \param maxLength greatest length of a value, in characters.
  DebuggerStringSetting(const EncodedString& name, SettingControl control, int group,
                        int identifier, unsigned short minLength, unsigned short maxLength);

  [[nodiscard]] DebuggerStringSetting* asStringSetting() override;
  bool setValue(const EncodedString& text) override;

  /// The least length of a value, in characters.
  [[nodiscard]] unsigned short getMinLength() const noexcept { return minLength_; }
  /// The greatest length of a value, in characters, or noLimit.
  [[nodiscard]] unsigned short getMaxLength() const noexcept { return maxLength_; }

 protected:
  /// The same for a class derived from this one.
  DebuggerStringSetting(const EncodedString& name, SettingControl control, int group,
                        int identifier, unsigned short minLength, unsigned short maxLength,
                        SettingType type);

 private:
  unsigned short minLength_;
  unsigned short maxLength_;
};
