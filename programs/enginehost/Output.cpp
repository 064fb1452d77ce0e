#include "Output.h"

#include <cstdio>

#include "Statuses.h"

int finishOutput() {
  if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0) {
    return 0;
  }
  std::fprintf(stderr, "enginehost: standard output cannot be written\n");
  return statusHostFailed;
}
