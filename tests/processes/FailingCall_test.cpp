#include "tests/processes/FailingCall.h"

#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "Engine/utilities/StdPipe.h"

#include "tests/support/Child.h"
#include "tests/support/TemporaryFolder.h"

TEST(FailingCall, AnswersOneCallAndLetsTheNextOneThrough) {
  const FailingCall failing({.call = LibcCall::setsid, .error = EPERM});
  errno = 0;
  EXPECT_EQ(setsid(), -1);
  EXPECT_EQ(errno, EPERM);
  EXPECT_EQ(failing.answered(), 1U);
  const FailingCall position({.call = LibcCall::lseek, .result = 7, .times = 2});
  EXPECT_EQ(lseek(-1, 0, SEEK_SET), 7);
  EXPECT_EQ(lseek(-1, 0, SEEK_SET), 7);
  EXPECT_EQ(lseek(-1, 0, SEEK_SET), -1);
}

TEST(FailingCall, AnswersCallsThatMatchOnly) {
  const FailingCall failing(
      {.call = LibcCall::open, .error = ENXIO, .path = "/dev/nu", .argument = O_WRONLY});
  const int zero = open("/dev/zero", O_WRONLY);
  EXPECT_GE(zero, 0);
  const int null = open("/dev/null", O_RDONLY);
  EXPECT_GE(null, 0);
  EXPECT_EQ(open("/dev/null", O_WRONLY), -1);
  EXPECT_EQ(errno, ENXIO);
  close(zero);
  close(null);
}

TEST(FailingCall, LetsCallsThroughBeforeItAnswers) {
  const FailingCall failing({.call = LibcCall::sysconf,
                             .result = 3,
                             .first = _SC_PAGESIZE,
                             .times = CallFailure::always,
                             .after = 1});
  EXPECT_EQ(sysconf(_SC_PAGESIZE), 4096);
  EXPECT_EQ(sysconf(_SC_PAGESIZE), 3);
  EXPECT_GT(sysconf(_SC_OPEN_MAX), 3);
  EXPECT_EQ(sysconf(_SC_PAGESIZE), 3);
}

TEST(FailingCall, AnswersWithAText) {
  {
    const FailingCall failing({.call = LibcCall::ptsname, .text = "/dev/somewhere"});
    EXPECT_STREQ(ptsname(5), "/dev/somewhere");
  }
  const FailingCall failing({.call = LibcCall::ptsname, .error = ENOTTY});
  EXPECT_EQ(ptsname(5), nullptr);
  EXPECT_EQ(errno, ENOTTY);
}

TEST(FailingCall, ReachesTheCallsOfTheLibrary) {
  CallRecord record({LibcCall::fcntl, LibcCall::close});
  const StdPipe pipe;
  EXPECT_GE(record.count(LibcCall::fcntl), 2U);
  const FailingCall failing(
      {.call = LibcCall::write, .result = 5, .first = pipe.writeHandle(), .argument = 5});
  EXPECT_EQ(pipe.write("hello", 5), 5);
  pollfd wait = {pipe.readHandle(), POLLIN, 0};
  EXPECT_EQ(poll(&wait, 1, 0), 0) << "nothing was written";
}

TEST(FailingCall, RecordsCallsAsTheyWereMade) {
  const CallRecord record({LibcCall::open, LibcCall::lseek, LibcCall::fcntl, LibcCall::ioctl,
                           LibcCall::close, LibcCall::poll});
  const int fd = open("/dev/null", O_RDWR | O_CLOEXEC);
  lseek(fd, 3, SEEK_SET);
  const int copy = fcntl(fd, F_DUPFD, 20);
  EXPECT_GE(copy, 20);
  winsize size;
  ioctl(copy, TIOCGWINSZ, &size);
  pollfd wait = {fd, POLLIN, 0};
  poll(&wait, 1, 0);
  close(fd);
  close(copy);
  const std::vector<CallMade> calls = record.calls();
  ASSERT_EQ(calls.size(), 7U);
  EXPECT_EQ(calls[0].call, LibcCall::open);
  EXPECT_STREQ(calls[0].path, "/dev/null");
  EXPECT_EQ(calls[0].argument, O_RDWR | O_CLOEXEC);
  EXPECT_EQ(calls[1].first, fd);
  EXPECT_EQ(calls[1].argument, 3);
  EXPECT_EQ(calls[1].more, SEEK_SET);
  EXPECT_EQ(calls[2].argument, F_DUPFD);
  EXPECT_EQ(calls[2].more, 20);
  EXPECT_EQ(calls[3].first, copy);
  EXPECT_EQ(calls[3].argument, static_cast<long>(TIOCGWINSZ));
  EXPECT_EQ(calls[4].call, LibcCall::poll);
  EXPECT_EQ(calls[4].first, fd);
  EXPECT_EQ(calls[5].first, fd);
  EXPECT_EQ(calls[6].first, copy);
  EXPECT_EQ(record.count(LibcCall::close), 2U);
}

TEST(FailingCall, PassesTheModeOfANewFile) {
  const TemporaryFolder folder;
  const mode_t old = umask(0);
  const int fd = open(folder.file("file").c_str(), O_CREAT | O_WRONLY, 0640);
  umask(old);
  struct stat status = {};
  EXPECT_EQ(fstat(fd, &status), 0);
  EXPECT_EQ(status.st_mode & 07777U, 0640U);
  close(fd);
}

CUL_CHILD(FailingCallInAForkedChild) {
  FailingCall failing({.call = LibcCall::setsid, .error = EBUSY});
  const pid_t child = fork();
  if (child == 0) {
    _exit(setsid() == -1 && errno == EBUSY && failing.answered() == 1 ? 0 : 1);
  }
  int status = -1;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(failing.answered(), 0U);
  failing.dismiss();
}

TEST(FailingCall, ActsInForkedChildren) {
  const ChildResult r = runChild("FailingCallInAForkedChild");
  EXPECT_EQ(r.status, 0) << r.out << r.err;
}

CUL_CHILD(FailingCallNeverMade) {
  const FailingCall failing({.call = LibcCall::setsid, .times = 2});
  setsid();
}

TEST(FailingCall, FailsATestInWhichTheCallsNeverCame) {
  const ChildResult r = runChild("FailingCallNeverMade");
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.out.find("the call that was to fail never came"), std::string::npos) << r.out;
}
