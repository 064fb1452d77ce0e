#include "Engine/utilities/SharedEntry.h"

#include <cstdio>
#include <dlfcn.h>
#include <string>

namespace {

void* fail(const char** error) {
  const char* text = dlerror();
  if (text == nullptr) {
    // The entry is there, but its address is null.
    text = "";
  }
  std::fprintf(stderr, "%s\n", text);
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
  void* library = dlopen(path, RTLD_NOW | RTLD_GLOBAL);
  if (library == nullptr) {
    return fail(error);
  }
  void* address = dlsym(library, entry);
  return address != nullptr ? address : fail(error);
}

void* loadSharedEntry(const char* name, const char* /*member*/, const char* entry,
                      const char** error) {
  const std::string path = "lib" + std::string(name) + ".so";
  return loadSharedEntry(path.c_str(), entry, error);
}
