#include "Engine/utilities/UNIX/StandardError.h"

#include <cstdarg>
#include <cstdio>

#include "Engine/utilities/KeepErrno.h"
#include "Engine/utilities/UNIX/WriteSignalsHeld.h"

void printError(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  {
    const KeepErrno keepErrno;
    const WriteSignalsHeld held;
    std::vfprintf(stderr, format, arguments);
  }
  va_end(arguments);
}
