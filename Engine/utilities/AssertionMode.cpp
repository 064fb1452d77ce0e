#include "Engine/utilities/AssertionMode.h"

#include "Engine/internal/HoldRequests.h"
#include "Engine/internal/ProcessWide.h"
#include "Engine/internal/SettingTables.h"
#include "Engine/utilities/DebuggerNumericSetting.h"
#include "Engine/utilities/DebuggerSettings.h"

namespace {

constinit thread_local bool isMaking = false;

// While it lives, the calling thread is making the early setting.
class Making {
 public:
  Making() noexcept { isMaking = true; }
  Making(const Making&) = delete;
  Making& operator=(const Making&) = delete;
  ~Making() { isMaking = false; }

 private:
  HoldRequests hold_;
};

// A setting of the same row that stands in until the registry has its own. An assertion must
// not build the registry itself: that loads the configuration module, and ends the process
// where there is none. Null for an assertion that fails while this thread makes it.
DebuggerSetting* earlySetting() {
  static constinit ProcessWide<DebuggerSetting> setting;
  if (setting.present() != nullptr || isMaking) {
    return setting.present();
  }
  const Making making;
  return &setting.get(
      [] { return SettingTables::assertion.make(SettingTables::assertion).release(); });
}

}  // namespace

int assertionMode() {
  DebuggerSetting* setting = DebuggerSettings::present()->getSetting(SettingTables::assertion.name);
  if (setting == nullptr) {
    setting = earlySetting();
  }
  const DebuggerNumericSetting* const mode =
      setting == nullptr ? nullptr : setting->asNumericSetting();
  return mode == nullptr ? 0 : mode->getValueAsInt();
}
