#pragma once

#include <dlfcn.h>

/// \file
/// How the library opens shared libraries, by a path or a name.

/// Opens a shared library as dlopen() does: a name without a "/" is looked for along
/// "LD_LIBRARY_PATH", in the folders of this library's run path, and where the machine has its
/// libraries.
///
/// A sanitizer puts a dlopen() of its own in front of the loader's, which then does not see whose
/// run path counts. Nobody stands in front of this call. It opens for the program itself, where
/// this library is, too, unless somebody loads it into a namespace of its own.
/// \param path  null stands for the program.
/// \return null when it cannot be opened; dlerror() tells why.
[[nodiscard]] inline void* openLibrary(const char* path, int mode) {
  return dlmopen(LM_ID_BASE, path, mode);
}
