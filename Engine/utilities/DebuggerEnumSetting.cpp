#include "Engine/utilities/DebuggerEnumSetting.h"

#include <memory>
#include <string>

#include "Engine/internal/SettingTexts.h"
#include "Engine/internal/Texts.h"

DebuggerEnumSetting::DebuggerEnumSetting(const EncodedString& name, SettingControl control,
                                         const EnumSettingItem* items, int group, int identifier)
    : DebuggerNumericSetting(name, control, group, identifier, Enum) {
  for (; items != nullptr && items->name != nullptr; ++items) {
    names_.add(std::make_unique<EncodedString>(items->name));
    numbers_.add(items->number);
  }
  takeFirstValue();
}

EncodedString DebuggerEnumSetting::getPermittedValues() const { return joined(names_); }

DebuggerEnumSetting* DebuggerEnumSetting::asEnumSetting() { return this; }

bool DebuggerEnumSetting::setValue(const EncodedString& text) {
  const std::string word = keywordOf(viewOf(text));
  for (unsigned i = names_.count(); i-- > 0;) {
    if (word == viewOf(names_[i]) || word == std::to_string(numbers_[i])) {
      store(names_[i], numbers_[i]);
      return true;
    }
  }
  return false;
}
