#include "Engine/internal/StandardError.h"

#include <cstdarg>
#include <cstdio>

#include "Engine/internal/WriteSignals.h"
#include "Engine/utilities/KeepErrno.h"

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
