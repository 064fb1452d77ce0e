#include "Engine/internal/SystemCallFailure.h"

#include <cstdarg>
#include <cstdio>

#include "Engine/utilities/StdException.h"
#include "Engine/utilities/TraceFlags.h"

void failSystemCall(const char* function, unsigned int traceLine, unsigned int throwLine,
                    const char* text, const char* format, ...) {
  constexpr int status = -1;
  if (isTraced(TraceType::error)) {
    char message[1024];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(message, sizeof message, format, arguments);
    va_end(arguments);
    taggedTrace(function, traceLine, traceTag(TraceType::error), "%s", message);
  }
  StdException::throwException(function, throwLine, text, status);
}
