#pragma once

#include "Engine/utilities/EncodedString.h"
#include "Engine/utilities/Export.h"

/// \file
/// Where the engine is installed: the folder above the "bin" that holds the running
/// executable. Its modules, message catalogs and configuration lie there.

class CUL_EXPORT InstallPath {
 public:
  /// The place of this process, found out by the first call, which belongs on the main thread
  /// before a second thread exists. Works before main and is never destroyed.
  [[nodiscard]] static InstallPath* instance();

  InstallPath(const InstallPath&) = delete;
  InstallPath& operator=(const InstallPath&) = delete;
  virtual ~InstallPath() = default;

  /// The install location without a "/" at its end. Empty when the executable does not lie
  /// in a folder named "bin", and also for "/bin" itself.
  [[nodiscard]] virtual const EncodedString& path() const = 0;

 protected:
  InstallPath() = default;
};
