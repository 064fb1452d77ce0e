#include "Engine/utilities/ProcessWaiter.h"

#include <cerrno>
#include <sys/wait.h>

#include "Engine/internal/FixedLayout.h"
#include "Engine/utilities/Descriptor.h"
#include "Engine/utilities/StdThread.h"
#include "Engine/utilities/TraceFlags.h"

// The engine knows this layout: docs/contract.md.
CUL_FIXED_SIZE(ProcessWaiter, 16);
CUL_FIXED_FIELD(ProcessWaiter, process_, 8);

int ProcessWaiter::work() {
  const StdThread::BlockTermination block;
  int status = 0;
  if (uninterrupted([&] { return waitpid(process_, &status, 0); }) < 0) {
    CUL_TRACE(TraceType::error, "virtual int ProcessWaiter::work()", __LINE__,
              "::waitpid(%d) failed with errno %d.", process_, errno);
    return -1;
  }
  return status;
}
