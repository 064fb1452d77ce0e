#pragma once

#include "Engine/utilities/Export.h"

/// \file
/// Finds an entry of a shared library that is loaded for it.
///
/// The library is opened with all its symbols bound at once and visible to libraries loaded
/// later, and is never closed, not even when it lacks the entry. Failures are reported on
/// standard error, as the dynamic loader words them, because this serves programs that
/// have nothing else as yet. An entry without an address is a failure too, one that the
/// loader has no words for and this has. Any thread may call.

/// Opens a library and looks an entry up.
/// \param path  as for dlopen(): without a "/" it is searched for.
/// \param entry the name of the symbol.
/// \param error may be null. Set to an empty text, or on failure to the text reported, which is
///   valid until the calling thread's next use of the dynamic loader.
/// \return the entry's address; null on failure.
CUL_EXPORT void* loadSharedEntry(const char* path, const char* entry, const char** error);

/// The same for the library "lib%s.so" made from a name.
/// \param name   stands between "lib" and ".so".
/// \param member not used.
/// \param entry  the name of the symbol.
/// \param error  as above.
CUL_EXPORT void* loadSharedEntry(const char* name, const char* member, const char* entry,
                                 const char** error);
