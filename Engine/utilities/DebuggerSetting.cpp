#include "Engine/utilities/DebuggerSetting.h"

#include <cstdlib>

#include "Engine/internal/FixedLayout.h"
#include "Engine/internal/SettingTexts.h"
#include "Engine/internal/Texts.h"
#include "Engine/utilities/ByteString.h"
#include "Engine/utilities/DebuggerSettings.h"
#include "Engine/utilities/SettingNames.h"

// The engine knows this layout: docs/contract.md.
CUL_FIXED_FIELD(DebuggerSetting, name_, 8);
CUL_FIXED_FIELD(DebuggerSetting, value_, 32);
CUL_FIXED_FIELD(DebuggerSetting, group_, 56);
CUL_FIXED_FIELD(DebuggerSetting, identifier_, 60);
CUL_FIXED_FIELD(DebuggerSetting, type_, 64);
CUL_FIXED_FIELD(DebuggerSetting, control_, 68);

namespace {

// The value of a setting's environment variable; null when it is not set.
const char* environmentOf(const EncodedString& name) {
  const ByteString variable = (getEnvnamePrefix() + name).convertToNative();
  return std::getenv(variable.view().data());
}

}  // namespace

DebuggerSetting::DebuggerSetting(const EncodedString& name, SettingControl control, int group,
                                 int identifier, SettingType type)
    : name_(name), group_(group), identifier_(identifier), type_(type), control_(control) {}

EncodedString DebuggerSetting::getPermittedValues() const { return {}; }

EncodedString DebuggerSetting::getEnvValue() const {
  const EncodedString text(environmentOf(name_), EncodedString::native);
  return encodedText(withoutBlanks(text.view()));
}

DebuggerStringSetting* DebuggerSetting::asStringSetting() { return nullptr; }
DebuggerPathSetting* DebuggerSetting::asPathSetting() { return nullptr; }
DebuggerNumericSetting* DebuggerSetting::asNumericSetting() { return nullptr; }
DebuggerIntegerSetting* DebuggerSetting::asIntegerSetting() { return nullptr; }
DebuggerUnsignedSetting* DebuggerSetting::asUnsignedSetting() { return nullptr; }
DebuggerBooleanSetting* DebuggerSetting::asBooleanSetting() { return nullptr; }
DebuggerEnumSetting* DebuggerSetting::asEnumSetting() { return nullptr; }
DebuggerListSetting* DebuggerSetting::asListSetting() { return nullptr; }

EncodedString DebuggerSetting::getDefault() const {
  return {DebuggerSettings::present()->defaultSetting(static_cast<unsigned>(identifier_))};
}

void DebuggerSetting::takeFirstValue() {
  if (environmentOf(name_) != nullptr) {
    const EncodedString given = getEnvValue();
    if (setValue(given)) {
      // A list setting may have found nothing in it and taken the default instead.
      if (origin_ == Changed) {
        origin_ = Environment;
      }
      return;
    }
    envValueRefused_ = given.length() != 0;
  }
  takeDefault();
}

bool DebuggerSetting::takeDefault() {
  if (!setValue(getDefault())) {
    return false;
  }
  origin_ = Default;
  return true;
}

void DebuggerSetting::store(const EncodedString& canonical) {
  value_ = canonical;
  origin_ = Changed;
}
