#pragma once

#include "Engine/utilities/Engine_Loader.h"
#include "Engine/utilities/Export.h"
#include "Engine/utilities/FileName.h"
#include "Engine/utilities/List.h"

/// \file
/// Loads engine modules with the dynamic loader and keeps them by their names.
///
/// A module is asked for by the name between "lib" and ".so", or else by a name or path as
/// the dynamic loader takes it. All its symbols are bound at once and seen by nobody else.
/// Modules are never unloaded, not even by the destructor. Failures throw nothing: they are
/// traced, give null and are not remembered, so that the next request tries again. A module
/// that is found by its name as given, and so only on the second try, is loaded all the same,
/// but leaves an "ERROR" line "First try - Cannot load ..." in the trace.
///
/// Any thread may ask, also in a forked child. The constructors of a module may use the library,
/// but must not wait for another thread that loads something, forks or begins; the first timed
/// wait of a process begins one. A module that the program loads with dlopen() itself must in its
/// constructors neither ask for modules nor convert a named code page: a thread that does so
/// elsewhere would have the one lock and wait for the other.

class CUL_EXPORT UNIX_Engine_Loader : public Engine_Loader {
 public:
  UNIX_Engine_Loader() = default;
  ~UNIX_Engine_Loader() override;

  /// Finds a module, loading it on first use. Names are compared as file names are: a module
  /// known as "x.so" is also found as "x.so.1", without a look at the file. Of several modules
  /// whose names equal the one asked for ("x.so.1" and "x.so.2" when that is "x.so") it is the
  /// one that was loaded last.
  /// \param name in UTF-8, given to the system in its native code page. An empty name is the
  ///   program itself, as the dynamic loader has it.
  /// \return the dynamic loader's handle, null on failure.
  [[nodiscard]] void* get_korv_module(const FileName& name) const;

  [[nodiscard]] void* get_procedure_entry(const FileName& module,
                                          const EncodedString& entry) const override;

 private:
  struct Module {
    void* handle;
    // As it was asked for. Owned; raw because the list moves bytes and is kept (docs/contract.md).
    FileName* name;
  };

  mutable List<Module> modules_{20, nullptr, 8};
};
