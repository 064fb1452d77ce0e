// Starts a program that writes into a pipe, waits for it, and finds itself among the processes.

#include <iostream>
#include <sys/wait.h>
#include <unistd.h>

#include "Engine/utilities/ByteString.h"
#include "Engine/utilities/EncodedString.h"
#include "Engine/utilities/List.h"
#include "Engine/utilities/ProcessTable.h"
#include "Engine/utilities/SpawnedProcess.h"
#include "Engine/utilities/StdException.h"
#include "Engine/utilities/StdPipe.h"

namespace {

EncodedString utf8(const char* text) { return {text, EncodedString::utf8}; }

bool isInTheTable(pid_t process) {
  procentry64 entry = {};
  pid_t index = 0;
  while (getprocs64(&entry, sizeof entry, nullptr, 0, &index, 1) == 1) {
    if (entry.processId == process) {
      return true;
    }
  }
  return false;
}

}  // namespace

int main() {
  // The program finds the end of the pipe that is handed over, by its number.
  StdPipe pipe;
  EncodedString option = utf8("-c");
  EncodedString script = utf8("echo hello >&") + EncodedString::number(pipe.childWriteHandle());
  script += utf8("; exit 7");
  List<EncodedString*> arguments;
  arguments.add(&option);
  arguments.add(&script);
  // With the standard streams of this process, and all of its descriptors.
  const SpawnedProcess shell(utf8("sh"), utf8("/usr/bin:/bin"), arguments, 1, 1);
  pipe.closeWriteHandle();
  ByteString bytes;
  pipe.read(bytes, 100);
  std::cout << "read " << EncodedString(bytes, EncodedString::utf8).view();
  if (!shell.wait(60)) {
    std::cout << "ended with " << WEXITSTATUS(shell.returnCode()) << '\n';
  }

  // What cannot be found is told at once.
  try {
    const SpawnedProcess nothing(utf8("nothing"), utf8("/nowhere"), arguments, 1, 0);
  } catch (const StdException& e) {
    std::cout << "status " << e.status << ": " << e.text.view() << '\n';
  }
  std::cout << "this process is " << (isInTheTable(getpid()) ? "listed\n" : "not listed\n");
}
