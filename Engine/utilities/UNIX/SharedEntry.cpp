#include "Engine/utilities/SharedEntry.h"

#include <dlfcn.h>
#include <string>

#include "Engine/internal/LoaderGuard.h"
#include "Engine/internal/OpenLibrary.h"
#include "Engine/internal/StandardError.h"

namespace {

void* fail(const char* path, const char* entry, const char** error) {
  const char* text = dlerror();
  if (text == nullptr) {
    // No failure for the loader. The words live as long as its own would.
    static thread_local std::string noAddress;
    noAddress = std::string(path == nullptr ? "this program" : path) + ": " + entry +
                " is there, but has no address";
    text = noAddress.c_str();
  }
  printError("%s\n", text);
  if (error != nullptr) {
    *error = text;
  }
  return nullptr;
}

}  // namespace

void* loadSharedEntry(const char* path, const char* entry, const char** error) {
  if (error != nullptr) {
    *error = "";
  }
  const LoaderGuard guard("void* loadSharedEntry(const char*, const char*, const char**)",
                          __LINE__);
  void* library = openLibrary(path, RTLD_NOW | RTLD_GLOBAL);
  if (library == nullptr) {
    return fail(path, entry, error);
  }
  void* address = dlsym(library, entry);
  return address != nullptr ? address : fail(path, entry, error);
}

void* loadSharedEntry(const char* name, const char* /*member*/, const char* entry,
                      const char** error) {
  const std::string path = "lib" + std::string(name) + ".so";
  return loadSharedEntry(path.c_str(), entry, error);
}
