#include "Engine/utilities/DebuggerUnsignedSetting.h"

#include "Engine/internal/SettingTexts.h"

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
