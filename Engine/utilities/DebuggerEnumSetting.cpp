#include "Engine/utilities/DebuggerEnumSetting.h"

#include <memory>
#include <string>

#include "Engine/internal/FixedLayout.h"
#include "Engine/internal/SettingTexts.h"
#include "Engine/internal/Texts.h"

// The engine knows this layout: docs/contract.md.
CUL_FIXED_FIELD(DebuggerEnumSetting, names_, 88);
CUL_FIXED_FIELD(DebuggerEnumSetting, numbers_, 120);
CUL_FIXED_SIZE(DebuggerEnumSetting::EnumSettingItem, 16);
CUL_FIXED_FIELD(DebuggerEnumSetting::EnumSettingItem, name, 0);
CUL_FIXED_FIELD(DebuggerEnumSetting::EnumSettingItem, number, 8);

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
  const std::string word = keywordOf(text.view());
  for (unsigned i = names_.count(); i-- > 0;) {
    if (word == names_[i].view() || word == std::to_string(numbers_[i])) {
      store(names_[i], numbers_[i]);
      return true;
    }
  }
  return false;
}
