#include "Engine/utilities/DebuggerStringSetting.h"

#include "Engine/internal/FixedLayout.h"

// The engine knows this layout: docs/contract.md.
CUL_FIXED_FIELD(DebuggerStringSetting, minLength_, 78);
CUL_FIXED_FIELD(DebuggerStringSetting, maxLength_, 80);

DebuggerStringSetting::DebuggerStringSetting(const EncodedString& name, SettingControl control,
                                             int group, int identifier, unsigned short minLength,
                                             unsigned short maxLength)
    : DebuggerStringSetting(name, control, group, identifier, minLength, maxLength, String) {}

DebuggerStringSetting::DebuggerStringSetting(const EncodedString& name, SettingControl control,
                                             int group, int identifier, unsigned short minLength,
                                             unsigned short maxLength, SettingType type)
    : DebuggerSetting(name, control, group, identifier, type),
      minLength_(minLength),
      maxLength_(maxLength) {
  takeFirstValue();
}

DebuggerStringSetting* DebuggerStringSetting::asStringSetting() { return this; }

bool DebuggerStringSetting::setValue(const EncodedString& text) {
  const unsigned length = text.charCount();
  if ((minLength_ != noLimit && length < minLength_) ||
      (maxLength_ != noLimit && length > maxLength_)) {
    return false;
  }
  store(text);
  return true;
}
