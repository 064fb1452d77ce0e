#include "Engine/utilities/StdException.h"

#include "Engine/internal/FixedLayout.h"
#include "Engine/internal/Texts.h"
#include "Engine/utilities/TraceFlags.h"

// The engine knows this layout: docs/contract.md.
CUL_FIXED_SIZE(StdException, 56);
CUL_FIXED_FIELD(StdException, text, 0);
CUL_FIXED_FIELD(StdException, fileName, 24);
CUL_FIXED_FIELD(StdException, line, 48);
CUL_FIXED_FIELD(StdException, status, 52);

StdException::StdException(const char* file, unsigned throwLine, int throwStatus)
    : fileName(file, EncodedString::utf8), line(throwLine), status(throwStatus) {
  CUL_TRACE(TraceType::excptn, fileName.view().data(), line, "StdException created;  Status = %d",
            status);
}

StdException::StdException(const char* file, unsigned throwLine, const char* message,
                           int throwStatus)
    : text(message, EncodedString::utf8),
      fileName(file, EncodedString::utf8),
      line(throwLine),
      status(throwStatus) {
  CUL_TRACE(TraceType::excptn, fileName.view().data(), line,
            "StdException created;  Status = %d, Text = %s", status, text.view().data());
}

void StdException::throwException(const char* file, unsigned line, int status) {
  throw StdException(file, line, status);
}

void StdException::throwException(const char* file, unsigned line, const char* text, int status) {
  throw StdException(file, line, text, status);
}

void StdException::trace(const char* file, unsigned catchLine) const {
  CUL_TRACE(TraceType::excptn, file, catchLine,
            "StdException caught; thrown from %s(%d); Status = %d, Text = %s",
            fileName.view().data(), static_cast<int>(line), status, text.view().data());
}
