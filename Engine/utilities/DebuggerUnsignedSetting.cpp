#include "Engine/utilities/DebuggerUnsignedSetting.h"

#include "Engine/internal/FixedLayout.h"
#include "Engine/internal/SettingTexts.h"

// The engine knows this layout: docs/contract.md.
CUL_FIXED_FIELD(DebuggerUnsignedSetting, minimum_, 84);
CUL_FIXED_FIELD(DebuggerUnsignedSetting, maximum_, 88);

DebuggerUnsignedSetting::DebuggerUnsignedSetting(const EncodedString& name, SettingControl control,
                                                 int group, int identifier, unsigned minimum,
                                                 unsigned maximum)
    : DebuggerNumericSetting(name, control, group, identifier, Unsigned),
      minimum_(minimum),
      maximum_(maximum) {
  takeFirstValue();
}

EncodedString DebuggerUnsignedSetting::getPermittedValues() const {
  return rangeText(EncodedString::number(minimum_), EncodedString::number(maximum_));
}

DebuggerUnsignedSetting* DebuggerUnsignedSetting::asUnsignedSetting() { return this; }

bool DebuggerUnsignedSetting::setValue(const EncodedString& text) {
  const EncodedString stripped = withoutWhiteSpace(text);
  const auto number = numberWithin(stripped, minimum_, maximum_);
  if (!number) {
    return false;
  }
  store(stripped, *number);
  return true;
}
