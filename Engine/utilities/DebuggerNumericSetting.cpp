#include "Engine/utilities/DebuggerNumericSetting.h"

#include "Engine/internal/FixedLayout.h"

// The engine knows this layout: docs/contract.md.
CUL_FIXED_FIELD(DebuggerNumericSetting, number_, 80);

DebuggerNumericSetting::DebuggerNumericSetting(const EncodedString& name, SettingControl control,
                                               int group, int identifier, SettingType type)
    : DebuggerSetting(name, control, group, identifier, type) {}

DebuggerNumericSetting* DebuggerNumericSetting::asNumericSetting() { return this; }

unsigned DebuggerNumericSetting::getValueAsUnsigned() const {
  return __atomic_load_n(&number_, __ATOMIC_ACQUIRE);
}

int DebuggerNumericSetting::getValueAsInt() const { return static_cast<int>(getValueAsUnsigned()); }

bool DebuggerNumericSetting::getValueAsBool() const { return getValueAsUnsigned() != 0; }

void DebuggerNumericSetting::store(const EncodedString& canonical, unsigned number) {
  DebuggerSetting::store(canonical);
  __atomic_store_n(&number_, number, __ATOMIC_RELEASE);
}
