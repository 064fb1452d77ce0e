// Reads and changes settings, and takes a command line apart.

#include <cstdlib>
#include <iomanip>
#include <iostream>

#include "Engine/utilities/DebuggerParameters.h"
#include "Engine/utilities/DebuggerSetting.h"
#include "Engine/utilities/DebuggerSettings.h"
#include "Engine/utilities/EncodedString.h"

namespace {

void print(const char* what, const EncodedString& text) {
  std::cout << std::left << std::setw(10) << what << text.view() << '\n';
}

class Listener final : public DebuggerSettings::Notification {
 public:
  void settingChanged(DebuggerSetting* setting) override { print("changed", setting->getName()); }
};

}  // namespace

int main() {
  // As the user would: a setting takes its first value from the environment.
  setenv("QVX_DBG_AUTOMONITOR_AFTER", "5", 1);

  DebuggerSettings* const settings = DebuggerSettings::instance();
  DebuggerSetting* const setting = settings->getSetting(L"AUTOMONITOR_AFTER");
  print("value", setting->getValue());
  print("permitted", setting->getPermittedValues());
  print("default", setting->getDefault());

  Listener listener;
  settings->registerHandler(listener, true);
  for (const char* text : {"7", "70000"}) {
    const bool taken = settings->setSetting(setting, EncodedString(text, EncodedString::utf8));
    print(taken ? "taken" : "refused", EncodedString(text, EncodedString::utf8));
  }
  settings->registerHandler(listener, false);
  print("value", settings->getNamedSetting(L"AUTOMONITOR_AFTER"));

  // The debugger's own options, then what to debug.
  const char* command[] = {"debugger", "-qhost=box", "-qquiet", "ls", "-l", "a b", nullptr};
  const DebuggerParameters* const parameters = DebuggerParameters::instance(6, command);
  print("host", parameters->parm(DebuggerParameters::parmHost));
  print("quiet", EncodedString(parameters->quiet() ? "yes" : "no", EncodedString::utf8));
  print("debuggee", parameters->debuggeeName());
  print("arguments", parameters->debuggeeArguments());
}
