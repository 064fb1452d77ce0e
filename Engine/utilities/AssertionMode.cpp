#include "Engine/utilities/AssertionMode.h"

#include "Engine/utilities/DebuggerNumericSetting.h"
#include "Engine/utilities/DebuggerSettings.h"

int assertionMode() {
  DebuggerSetting* const setting = DebuggerSettings::instance()->getSetting(L"ASSERTION");
  const DebuggerNumericSetting* const mode =
      setting == nullptr ? nullptr : setting->asNumericSetting();
  return mode == nullptr ? 0 : mode->getValueAsInt();
}
