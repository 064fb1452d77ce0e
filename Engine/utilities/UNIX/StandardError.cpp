#include "Engine/utilities/UNIX/StandardError.h"

#include <cstdarg>
#include <cstdio>

#include "Engine/utilities/KeepErrno.h"
#include "Engine/utilities/UNIX/WriteSignals.h"

void printError(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  {
    const KeepErrno keepErrno;
    WriteSignals signals;
    signals.block();
    if (std::vfprintf(stderr, format, arguments) < 0) {
      signals.failed();
    }
  }
  va_end(arguments);
}
