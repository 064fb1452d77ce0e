#include "Engine/utilities/DebuggerIntegerSetting.h"

#include <optional>

#include "Engine/utilities/SettingTexts.h"
#include "Engine/utilities/Texts.h"

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
  EncodedString stripped(text);
  stripped.stripWhiteSpace();
  const std::optional<long long> number = wholeNumber(viewOf(stripped));
  if (!number || *number < minimum_ || *number > maximum_) {
    return false;
  }
  store(stripped, static_cast<unsigned>(*number));
  return true;
}
