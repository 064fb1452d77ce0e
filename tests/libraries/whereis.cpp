#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "Engine/utilities/TraceFlags.h"

// The entry that locates addresses, as the tests want it: its answer and its three texts come
// from the environment, and whether it takes its time.

namespace {

constexpr unsigned long textSize = 512;
constexpr int wrongArguments = 99;

// Fills a buffer to its end: a text of its full size is not terminated, and behind the
// terminator of a shorter one lies what must not be read.
void fill(char* buffer, const char* variable) {
  const char* text = std::getenv(variable);
  const std::size_t length = strnlen(text, textSize);
  std::memset(buffer, '!', textSize);
  std::memcpy(buffer, text, length);
  if (length < textSize) {
    buffer[length] = '\0';
  }
}

}  // namespace

extern "C" __attribute__((visibility("default"))) int whereis(unsigned long address, unsigned* line,
                                                              char* first, unsigned firstSize,
                                                              char* second, unsigned secondSize,
                                                              char* third, unsigned thirdSize) {
  CUL_TRACE(TraceType::error, "whereis", 1, "traced while looking up");
  if (firstSize != textSize || secondSize != textSize || thirdSize != textSize) {
    return wrongArguments;
  }
  if (std::getenv("WHEREIS_FIRST") != nullptr) {
    *line = static_cast<unsigned>(address >> 32) + static_cast<unsigned>(address);
    fill(first, "WHEREIS_FIRST");
    fill(second, "WHEREIS_SECOND");
    fill(third, "WHEREIS_THIRD");
  }
  if (std::getenv("WHEREIS_DELAY") != nullptr) {
    constexpr timespec delay = {0, 200000000};
    nanosleep(&delay, nullptr);
    std::puts("answered");
  }
  return std::atoi(std::getenv("WHEREIS_ANSWER"));
}
