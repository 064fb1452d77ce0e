#include "Engine/utilities/DebuggerIntegerSetting.h"

#include "Engine/internal/FixedLayout.h"
#include "Engine/internal/SettingTexts.h"

// The engine knows this layout: docs/contract.md.
CUL_FIXED_FIELD(DebuggerIntegerSetting, minimum_, 84);
CUL_FIXED_FIELD(DebuggerIntegerSetting, maximum_, 88);

DebuggerIntegerSetting::DebuggerIntegerSetting(const EncodedString& name, SettingControl control,
                                               int group, int identifier, int minimum, int maximum)
    : DebuggerNumericSetting(name, control, group, identifier, Integer),
      minimum_(minimum),
      maximum_(maximum) {
  takeFirstValue();
}

EncodedString DebuggerIntegerSetting::getPermittedValues() const {
  return rangeText(EncodedString::number(minimum_), EncodedString::number(maximum_));
}

DebuggerIntegerSetting* DebuggerIntegerSetting::asIntegerSetting() { return this; }

bool DebuggerIntegerSetting::setValue(const EncodedString& text) {
  const EncodedString stripped = withoutWhiteSpace(text);
  const auto number = numberWithin(stripped, minimum_, maximum_);
  if (!number) {
    return false;
  }
  store(stripped, static_cast<unsigned>(*number));
  return true;
}
