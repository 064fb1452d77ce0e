#include "Engine/utilities/AssertionFail.h"

#include <string>

#include "Engine/internal/StandardError.h"
#include "Engine/utilities/AssertionMode.h"
#include "Engine/utilities/StdException.h"
#include "Engine/utilities/TraceFlags.h"

namespace {

const char* orEmpty(const char* text) { return text == nullptr ? "" : text; }

}  // namespace

void AssertionFail(int condition, const char* file, const char* function, unsigned line,
                   const char* expression) {
  if (condition != 0) {
    return;
  }
  const int mode = assertionMode();
  const std::string place = std::string(orEmpty(file)) + " - " + orEmpty(function);
  expression = orEmpty(expression);
  CUL_TRACE(TraceType::error, place.c_str(), line, "%s", expression);
  if ((mode & assertionPrints) != 0) {
    printError("\nAssertion failure - %s(%d): %s\n", place.c_str(), static_cast<int>(line),
               expression);
  }
  if ((mode & assertionThrows) != 0) {
    StdException::throwException(place.c_str(), line, expression, -1);
  }
}
