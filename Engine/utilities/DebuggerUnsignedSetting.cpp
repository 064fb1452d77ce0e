#include "Engine/utilities/DebuggerUnsignedSetting.h"

#include <optional>

#include "Engine/utilities/SettingTexts.h"
#include "Engine/utilities/Texts.h"

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
  EncodedString stripped(text);
  stripped.stripWhiteSpace();
  const std::optional<long long> number = wholeNumber(viewOf(stripped));
  if (!number || *number < minimum_ || *number > maximum_) {
    return false;
  }
  store(stripped, static_cast<unsigned>(*number));
  return true;
}
