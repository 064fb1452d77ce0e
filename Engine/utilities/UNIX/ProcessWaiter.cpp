#include "Engine/utilities/ProcessWaiter.h"

#include <cerrno>
#include <sys/wait.h>

#include "Engine/utilities/StdThread.h"
#include "Engine/utilities/TraceFlags.h"

int ProcessWaiter::work() {
  const StdThread::BlockTermination block;
  int status = 0;
  while (waitpid(process_, &status, 0) < 0) {
    if (errno != EINTR) {
      CUL_TRACE(TraceType::error, "virtual int ProcessWaiter::work()", __LINE__,
                "::waitpid(%d) failed with errno %d.", process_, errno);
      return -1;
    }
  }
  return status;
}
