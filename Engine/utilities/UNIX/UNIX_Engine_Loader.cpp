#include "Engine/utilities/UNIX/UNIX_Engine_Loader.h"

#include <cstdlib>
#include <dlfcn.h>
#include <memory>
#include <string>

#include "Engine/internal/FixedLayout.h"
#include "Engine/internal/LoaderGuard.h"
#include "Engine/internal/OpenLibrary.h"
#include "Engine/internal/PlaceNumber.h"
#include "Engine/internal/SystemPath.h"
#include "Engine/utilities/EnvironmentVariables.h"
#include "Engine/utilities/OwningList.h"
#include "Engine/utilities/TraceFlags.h"

// The engine knows this layout: docs/contract.md.
CUL_FIXED_FIELD(UNIX_Engine_Loader, modules_, 8);
CUL_FIXED_SIZE(UNIX_Engine_Loader::Module, 16);
CUL_FIXED_FIELD(UNIX_Engine_Loader::Module, handle, 0);
CUL_FIXED_FIELD(UNIX_Engine_Loader::Module, name, 8);

namespace {

constexpr const char* getModuleText =
    "void* UNIX_Engine_Loader::get_korv_module(const FileName&) const";
constexpr const char* getEntryText =
    "virtual void* UNIX_Engine_Loader::get_procedure_entry(const FileName&, const "
    "EncodedString&) const";

const char* orEmpty(const char* text) { return text == nullptr ? "" : text; }

// The library, or null after a trace line that begins with `failure`. A loaded library is
// traced as well.
void* open(const std::string& library, unsigned int loadedLine, unsigned int failedLine,
           const char* failure) {
  void* const handle = openLibrary(library.c_str(), RTLD_NOW);
  if (handle != nullptr) {
    CUL_TRACE(TraceType::active, getModuleText, loadedLine, "Debugger engine module %s loaded",
              library.c_str());
  } else {
    // Taken before the trace can use the loader itself.
    const std::string error = orEmpty(dlerror());
    CUL_TRACE(TraceType::error, getModuleText, failedLine, "%s %s. - %s", failure, library.c_str(),
              error.c_str());
  }
  return handle;
}

}  // namespace

UNIX_Engine_Loader::~UNIX_Engine_Loader() {
  for (const Module& module : modules_) {
    delete module.name;
  }
}

void* UNIX_Engine_Loader::get_korv_module(const FileName& name) const {
  const LoaderGuard guard(getModuleText, __LINE__);
  for (unsigned int i = modules_.count(); i > 0; --i) {
    const Module& module = modules_[i - 1];
    if (*module.name == name) {
      return module.handle;
    }
  }
  const std::string given = systemPath(name);
  void* handle = open("lib" + given + ".so", 69_place, 75_place,
                      "First try - Cannot load debugger engine module");
  if (handle == nullptr) {
    handle = open(given, 80_place, 87_place, "Cannot load debugger engine module");
  }
  if (handle == nullptr) {
    CUL_TRACE(TraceType::error, getModuleText, 91_place, "LD_LIBRARY_PATH=%s",
              orEmpty(std::getenv(environmentVariable("LD_LIBRARY_PATH"))));
    return nullptr;
  }
  auto kept = std::make_unique<FileName>(name);
  addOwned(modules_, {handle, kept.get()}, kept);
  return handle;
}

void* UNIX_Engine_Loader::get_procedure_entry(const FileName& module,
                                              const EncodedString& entry) const {
  const LoaderGuard guard(getEntryText, __LINE__);
  void* const handle = get_korv_module(module);
  if (handle == nullptr) {
    return nullptr;
  }
  const std::string symbol = systemPath(entry);
  void* const address = dlsym(handle, symbol.c_str());
  if (address == nullptr) {
    CUL_TRACE(TraceType::error, getEntryText, 115_place,
              "Module %s loaded, but entry point \"%s\" not found", systemPath(module).c_str(),
              symbol.c_str());
  }
  return address;
}
