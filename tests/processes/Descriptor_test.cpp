#include "Engine/utilities/Descriptor.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>
#include <utility>

#include <gtest/gtest.h>

/// Descriptors that are closed at the end of a scope, and calls that signals interrupt.

namespace {

int openOne() { return open("/dev/null", O_RDONLY | O_CLOEXEC); }

bool isOpen(int handle) { return fcntl(handle, F_GETFD) != -1; }

TEST(Descriptor, IsClosedAtTheEndOfItsScopeAndKeepsErrno) {
  int handle = -1;
  {
    const Descriptor file(openOne());
    handle = file.get();
    EXPECT_TRUE(file.isOpen());
    EXPECT_TRUE(isOpen(handle));
    errno = ENOTTY;
  }
  EXPECT_EQ(errno, ENOTTY);
  EXPECT_FALSE(isOpen(handle));
}

TEST(Descriptor, OfNothingIsNotOpenAndClosesNothing) {
  errno = 0;
  {
    Descriptor none;
    EXPECT_FALSE(none.isOpen());
    EXPECT_EQ(none.get(), -1);
    none.reset();
    EXPECT_FALSE(Descriptor(-1).isOpen());
  }
  EXPECT_EQ(errno, 0);
}

TEST(Descriptor, ThatGivesItsNumberAwayLeavesItOpen) {
  int handle = -1;
  {
    Descriptor file(openOne());
    handle = file.release();
    EXPECT_FALSE(file.isOpen());
  }
  EXPECT_TRUE(isOpen(handle));
  close(handle);
}

TEST(Descriptor, IsMovedAndClosesWhatItHad) {
  Descriptor first(openOne());
  Descriptor second(openOne());
  const int former = first.get();
  const int other = second.get();
  first = std::move(second);
  EXPECT_FALSE(isOpen(former));
  EXPECT_EQ(first.get(), other);
  const Descriptor third = std::move(first);
  EXPECT_EQ(third.get(), other);
  EXPECT_FALSE(first.isOpen());  // NOLINT(bugprone-use-after-move): what a move leaves is promised.
}

TEST(Descriptor, TakesAnotherNumberForItsOwn) {
  Descriptor file(openOne());
  const int former = file.get();
  const int other = openOne();
  file.reset(other);
  EXPECT_EQ(file.get(), other);
  EXPECT_FALSE(isOpen(former));
}

TEST(CloseHandle, ClosesOnceAndSaysWhenThereIsNothing) {
  int handle = openOne();
  const int former = handle;
  EXPECT_EQ(closeHandle(handle), 0);
  EXPECT_EQ(handle, -1);
  EXPECT_FALSE(isOpen(former));
  EXPECT_EQ(closeHandle(handle), -1);
  EXPECT_EQ(errno, EBADF);
}

TEST(Uninterrupted, RepeatsACallAsLongAsSignalsInterruptIt) {
  int calls = 0;
  EXPECT_EQ(uninterrupted([&] {
              errno = EINTR;
              return ++calls < 3 ? -1 : 7;
            }),
            7);
  EXPECT_EQ(calls, 3);
}

TEST(Uninterrupted, GivesEveryOtherFailureAtOnce) {
  int calls = 0;
  EXPECT_EQ(uninterrupted([&] {
              ++calls;
              errno = EIO;
              return -1;
            }),
            -1);
  EXPECT_EQ(calls, 1);
}

}  // namespace
