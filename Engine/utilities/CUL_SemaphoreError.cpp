#include "Engine/utilities/CUL_SemaphoreError.h"

#include "Engine/internal/FixedLayout.h"
#include "Engine/utilities/TraceFlags.h"

// The engine knows this layout: docs/contract.md.
CUL_FIXED_SIZE(CUL_SemaphoreError, 56);

CUL_SemaphoreError::CUL_SemaphoreError(const char* file, unsigned int atLine, const void* object,
                                       int error)
    : StdException(file, atLine, error) {
  CUL_TRACE(TraceType::error, file, atLine, "Error on object %p", object);
}
