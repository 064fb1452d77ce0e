#include <fcntl.h>
#include <spawn.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

#include <gmock/gmock.h>

#include "Engine/utilities/ByteString.h"
#include "Engine/utilities/StdException.h"
#include "Engine/utilities/StdPipe.h"
#include "Engine/utilities/TraceFlags.h"

#include "tests/support/Child.h"
#include "tests/support/TemporaryFolder.h"

namespace {

// Runs "echo hello" on the pipe and waits for its end.
void runEcho(StdPipe& pipe) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, pipe.childWriteHandle(), STDOUT_FILENO);
  char name[] = "echo";
  char word[] = "hello";
  char* const arguments[] = {name, word, nullptr};
  pid_t echo = 0;
  EXPECT_EQ(posix_spawnp(&echo, name, &actions, nullptr, arguments, environ), 0);
  posix_spawn_file_actions_destroy(&actions);
  EXPECT_EQ(waitpid(echo, nullptr, 0), echo);
}

// Fills the two megabytes of the ring once and a half.
void wrapTheTrace() {
  const std::string filler(1000, 'x');
  for (int i = 0; i < 3 * 1024; ++i) {
    CUL_TRACE(TraceType::cul, "filler", 0, "%s", filler.c_str());
  }
}

CUL_CHILD(FailingReadInAWrappedTrace) {
  StdPipe pipe;
  runEcho(pipe);
  ByteString text;
  EXPECT_EQ(pipe.read(text, 5), 6);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(&text[1U]), text.length()), "hello\n");

  wrapTheTrace();
  // A read end that can only be written to fails with EBADF, number 9.
  const int writeOnly = open("/dev/null", O_WRONLY);
  EXPECT_EQ(dup2(writeOnly, pipe.readHandle()), pipe.readHandle());
  close(writeOnly);
  try {
    pipe.read(text, 5);
    ADD_FAILURE() << "the read did not fail";
  } catch (const StdException& e) {
    const char* const reason = e.text;
    EXPECT_STREQ(reason, "read() failed");
    EXPECT_EQ(e.status, -1);
    e.trace("catcher", 7);
  }
}

TEST(TypicalEvent, AFailingPipeReadLeavesItsLineInATraceThatWraps) {
  const TemporaryFolder folder;
  const ChildResult r = runChild("FailingReadInAWrappedTrace",
                                 {.environment = {{"QVX_DBG_TRACE", folder.file("trace") + ",2"}}});
  ASSERT_EQ(r.status, 0) << r.out << r.err;
  const std::string trace = contentsOf(folder.file("trace"));
  EXPECT_LT(trace.size(), 2U * 1024 * 1024 + 4096) << "the trace has not wrapped";
  EXPECT_THAT(trace, testing::HasSubstr("Trace start at "));
  EXPECT_THAT(trace, testing::HasSubstr(" (main    )**ERROR: int StdPipe::read(113): "
                                        "::read() failed with errno 9.\n"));
  EXPECT_THAT(trace, testing::HasSubstr("StdException caught; thrown from "));
}

}  // namespace
