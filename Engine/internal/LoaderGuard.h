#pragma once

#include "Engine/internal/HeldLock.h"

/// \file
/// Holds the lock of all that loads code, until the end of a scope.
///
/// The C library's loader, the modules of its code pages (iconv_open() and iconv_close()) and
/// the process's locale (setlocale() and nl_langinfo()) have locks that its fork does not look
/// after. The library calls them under this lock, which is taken around a fork; see AcrossFork.
/// The thread does not end meanwhile: it would leave the loader locked for all others.
///
/// The constructors of a module run under the lock. They may use the library, but must not wait
/// for another thread that loads or forks.
class LoaderGuard {
 public:
  /// \param function signature text of the caller; must outlive the guard.
  /// \param line     of the caller.
  LoaderGuard(const char* function, unsigned int line);

 private:
  HoldAndLock guard_;
};
