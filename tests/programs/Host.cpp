#include "tests/programs/Host.h"

const char* const host = CUL_ENGINEHOST;

ChildResult runHost(std::vector<std::string> words, const ChildOptions& options) {
  words.insert(words.begin(), host);
  return runProgram(words, options);
}
