#include <array>
#include <string>
#include <sys/wait.h>
#include <thread>

#include "Engine/utilities/EncodedString.h"
#include "Engine/utilities/List.h"
#include "Engine/utilities/SpawnedProcess.h"
#include "Engine/utilities/StdException.h"

#include "tests/soak/Parts.h"

namespace {

// A start takes a pass of the timer thread: only many at once use the processors.
constexpr unsigned starters = 16;

constexpr int secondsToEnd = 120;

void startProcess(Work& work, const char* program, int status) {
  EncodedString argument("of no use", EncodedString::utf8);
  List<EncodedString*> arguments;
  arguments.add(&argument);
  const SpawnedProcess process(EncodedString(program, EncodedString::utf8),
                               EncodedString("/nowhere:/usr/bin:/bin", EncodedString::utf8),
                               arguments, 0, 0);
  if (process.wait(secondsToEnd)) {
    work.wrong("still running");
  } else if (!WIFEXITED(process.returnCode()) || WEXITSTATUS(process.returnCode()) != status) {
    work.wrong("with another status", std::to_string(process.returnCode()));
  }
}

}  // namespace

void startProcesses(Work& work) {
  std::array<std::thread, starters> threads;
  for (std::thread& thread : threads) {
    thread = std::thread([&work] {
      for (bool succeeds = true; work.goesOn(); succeeds = !succeeds) {
        try {
          startProcess(work, succeeds ? "true" : "false", succeeds ? 0 : 1);
        } catch (const StdException& exception) {
          work.wrong("not started", std::string(exception.text.view()));
        }
        work.done();
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
}
