#include "Engine/utilities/CUL_SemaphoreError.h"

#include "Engine/utilities/TraceFlags.h"

CUL_SemaphoreError::CUL_SemaphoreError(const char* file, unsigned int atLine, const void* object,
                                       int error)
    : StdException(file, atLine, error) {
  CUL_TRACE(TraceType::error, file, atLine, "Error on object %p", object);
}
