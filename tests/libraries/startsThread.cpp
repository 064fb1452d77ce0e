#include <unistd.h>

#include "Engine/utilities/StdThread.h"

/// A module that starts a thread of the library's, which waits and is not to be ended.

namespace {

class Waiting : public StdThread {
 public:
  Waiting() : StdThread("waiting", 0, nullptr) {}
  void run() override {
    const BlockTermination block;
    for (;;) {
      pause();
    }
  }
};

__attribute__((constructor)) void startThread() { (new Waiting)->start_thread(0); }

}  // namespace
