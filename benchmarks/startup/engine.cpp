#include "Engine/utilities/DebuggerParameters.h"
#include "Engine/utilities/DebuggerSettings.h"

/// \file
/// A process that starts as a debugger process does, and ends. Without an argument it does
/// no more than load the library.

int main(int argc, char** argv) {
  if (argc == 1) {
    return 0;
  }
  const DebuggerParameters* const parameters = DebuggerParameters::instance(argc, argv);
  const DebuggerSettings* const settings = DebuggerSettings::instance();
  return parameters->debuggeeName().length() != 0 && settings->getSetting(L"TAB") != nullptr ? 0
                                                                                             : 1;
}
