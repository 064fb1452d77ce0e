#pragma once

#include "Engine/utilities/Export.h"

/// \file
/// The engine's modules: shared libraries that are loaded at run time by name.
///
/// This is the portable interface; the loader of this platform, and with it what a name may
/// look like, is UNIX_Engine_Loader.

class EncodedString;
class FileName;

class CUL_EXPORT Engine_Loader {
 public:
  /// The loader of this process, made by the first call, which belongs on the main thread
  /// before a second thread exists. Works before main and is never destroyed.
  [[nodiscard]] static Engine_Loader* instance();

  Engine_Loader(const Engine_Loader&) = delete;
  Engine_Loader& operator=(const Engine_Loader&) = delete;
  virtual ~Engine_Loader() = default;

  /// Finds an entry point, loading its module on first use.
  /// \return its address; null when there is no such module or no such entry, which is traced.
  [[nodiscard]] virtual void* get_procedure_entry(const FileName& module,
                                                  const EncodedString& entry) const = 0;

 protected:
  Engine_Loader() = default;
};
