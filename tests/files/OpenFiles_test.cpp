#include "Engine/utilities/OpenFiles.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "tests/support/Child.h"

CUL_CHILD(OpenFilesAll) {
  for (int descriptor = 3; descriptor < 40; ++descriptor) {
    close(descriptor);
  }
  const int null = open("/dev/null", O_RDONLY | O_CLOEXEC);
  EXPECT_EQ(null, 3);
  EXPECT_EQ(dup2(null, 15), 15);
  EXPECT_EQ(dup2(null, 16), 16);
  EXPECT_EQ(dup2(null, 17), 17);
  close(0);
  errno = EDOM;
  const OpenFiles files;
  EXPECT_EQ(errno, EDOM);
  ASSERT_EQ(files.count(), 17U);
  EXPECT_EQ(files.capacity(), 24U);
  EXPECT_EQ(sizeof(files[0]), 1U);
  for (unsigned descriptor = 0; descriptor < 17; ++descriptor) {
    const bool isOpen = (descriptor >= 1 && descriptor <= 3) || descriptor >= 15;
    EXPECT_EQ(files[descriptor], isOpen) << descriptor;
  }
}

TEST(OpenFiles, HasAFlagForEachOfTheFirst17Descriptors) {
  const ChildResult r = runChild("OpenFilesAll");
  EXPECT_EQ(r.status, 0) << r.out << r.err;
}

CUL_CHILD(OpenFilesInitial) {
  close(9);
  EXPECT_EQ(dup2(1, 10), 10);
  const OpenFiles& first = OpenFiles::initialOpenFiles();
  EXPECT_FALSE(first[9]);
  EXPECT_TRUE(first[10]);
  EXPECT_EQ(dup2(1, 9), 9);
  close(10);
  const OpenFiles& second = OpenFiles::initialOpenFiles();
  EXPECT_EQ(&first, &second);
  EXPECT_FALSE(second[9]);
  EXPECT_TRUE(second[10]);
  const OpenFiles now;
  EXPECT_TRUE(now[9]);
  EXPECT_FALSE(now[10]);
}

TEST(OpenFiles, KeepsTheInitialSnapshot) {
  const ChildResult r = runChild("OpenFilesInitial");
  EXPECT_EQ(r.status, 0) << r.out << r.err;
}
