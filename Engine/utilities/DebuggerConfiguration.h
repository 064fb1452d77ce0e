#pragma once

#include "Engine/utilities/Export.h"

/// \file
/// What distinguishes one build of the debugger from another: the configuration module,
/// "libwobnConfig.so", tells the library.
///
/// The module is found like any library that this one needs: along "LD_LIBRARY_PATH" first, as
/// that was when the process started, then beside this library and in the folder "cul" there.
/// Module and library come from one build and agree on its stamp; a module of another build is
/// refused, as nothing else of its interface could be trusted.
///
/// A module derives its one object from DebuggerConfiguration and hands it out by its entry
/// "configInstance", a `DebuggerConfiguration*()` with C linkage. The order of the virtual
/// operations is the interface between the two.

class CUL_EXPORT DebuggerConfiguration {
 public:
  /// The configuration, loaded by the first call, which belongs on the main thread before a
  /// second thread exists. Works before main; never null and never destroyed. A module that
  /// is absent, has no entry, gives no object or is of another build ends the process, after
  /// one line on standard error that says which of these it was: with abort(), of which the
  /// library's own handler makes an exit with status 99, exit handlers included (see signals.h).
  [[nodiscard]] static DebuggerConfiguration* instance();

  DebuggerConfiguration(const DebuggerConfiguration&) = delete;
  DebuggerConfiguration& operator=(const DebuggerConfiguration&) = delete;

  /// The moment of the module's build, 14 digits. See ProductData.
  [[nodiscard]] virtual const char* buildStamp() const = 0;

  /// The default of the setting "SOURCE_FILTER", in UTF-8.
  [[nodiscard]] virtual const char* sourceFilterDefault() const = 0;

 protected:
  DebuggerConfiguration() = default;
  // Not virtual: nobody deletes a configuration.
  ~DebuggerConfiguration() = default;
};
