#include "Engine/utilities/DebuggerBooleanSetting.h"

#include <string>
#include <string_view>

#include "Engine/internal/SettingTexts.h"
#include "Engine/internal/Texts.h"

namespace {

struct WordPair {
  std::string_view on;
  std::string_view off;
};

constexpr WordPair wordPairs[] = {{"YES", "NO"}, {"Y", "N"},    {"TRUE", "FALSE"},
                                  {"T", "F"},    {"ON", "OFF"}, {"1", "0"}};

}  // namespace

DebuggerBooleanSetting::DebuggerBooleanSetting(const EncodedString& name, SettingControl control,
                                               int group, int identifier)
    : DebuggerNumericSetting(name, control, group, identifier, Boolean) {
  takeFirstValue();
}

EncodedString DebuggerBooleanSetting::getPermittedValues() const {
  std::string result;
  for (const WordPair& pair : wordPairs) {
    result.append(result.empty() ? "" : ", ").append(pair.on).append("/").append(pair.off);
  }
  return encodedText(result);
}

DebuggerBooleanSetting* DebuggerBooleanSetting::asBooleanSetting() { return this; }

bool DebuggerBooleanSetting::setValue(const EncodedString& text) {
  const std::string word = keywordOf(text.view());
  for (const WordPair& pair : wordPairs) {
    if (word == pair.on || word == pair.off) {
      const unsigned number = word == pair.on ? 1 : 0;
      store(EncodedString::number(number), number);
      return true;
    }
  }
  return false;
}
