#include "Output.h"

#include <cstdio>

#include "Messages.h"
#include "Statuses.h"

int finishOutput() {
  if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0) {
    return 0;
  }
  complain(Message::outputNotWritten);
  return statusHostFailed;
}
