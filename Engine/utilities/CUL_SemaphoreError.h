#pragma once

#include "Engine/utilities/Export.h"
#include "Engine/utilities/StdException.h"

/// \file
/// The failure of a lock or of an event semaphore.
///
/// Derives from StdException, which has no virtual destructor: catch it by reference.

class CUL_EXPORT CUL_SemaphoreError : public StdException {
 public:
  /// Builds the exception without a text and traces "Error on object %p" as an error at
  /// the location.
  /// \param file   signature text of the function that failed.
  /// \param atLine its source line.
  /// \param object the lock or semaphore; only its address is used.
  /// \param error  becomes the status.
  CUL_SemaphoreError(const char* file, unsigned int atLine, const void* object, int error);
};
