#include <cstdlib>
#include <string_view>
#include <unistd.h>

#include "Engine/utilities/StdThread.h"

// A module that asks the thread that uses it to end, in the middle of the dynamic loader's work:
// while it is loaded or while its entry is looked up, as the environment says.

namespace {

void endUserWhen(std::string_view moment) {
  const char* const wanted = std::getenv("MODULE_ENDS_ITS_USER");
  if (wanted != nullptr && wanted == moment) {
    static_cast<void>(StdThread::currentThread()->requestTerminate());
    // A thread can end here at once; if it may not yet, the request comes again and again.
    pause();
  }
}

__attribute__((constructor)) void loaded() { endUserWhen("loaded"); }

int answer() { return 42; }

}  // namespace

extern "C" {

// Run by the loader, which takes the entry's address from it.
__attribute__((no_sanitize("address", "thread", "undefined"), used)) int (*resolveEntry())() {
  endUserWhen("looked up");
  return answer;
}

__attribute__((visibility("default"), ifunc("resolveEntry"))) int endsItsUserEntry();
}
