#include "programs/enginetrace/Output.h"

#include <cerrno>
#include <fcntl.h>
#include <string>
#include <system_error>
#include <unistd.h>

#include <gmock/gmock.h>

#include "Engine/utilities/Descriptor.h"

#include "tests/support/TemporaryFolder.h"

namespace {

class OutputToFile : public testing::Test {
 protected:
  std::string written() const { return contentsOf(name_); }

  TemporaryFolder folder_;
  std::string name_ = folder_.file("output");
  Descriptor file_ = Descriptor(open(name_.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
};

TEST_F(OutputToFile, WritesWhatWasPutInItsOrder) {
  Output output(file_.get());
  std::string expected;
  for (const std::size_t length : {0UL, 1UL, 100UL, 300'000UL, 7UL, 262'144UL, 262'143UL, 1UL}) {
    const std::string bytes(length, static_cast<char>('a' + expected.size() % 26));
    output.put(bytes);
    expected += bytes;
  }
  output.flush();
  EXPECT_TRUE(written() == expected);
}

TEST_F(OutputToFile, KeepsALittleUntilItIsFlushed) {
  Output output(file_.get());
  output.put("little");
  EXPECT_EQ(written(), "");
  output.flush();
  EXPECT_EQ(written(), "little");
  output.flush();
  EXPECT_EQ(written(), "little");
}

TEST(Output, ThrowsTheReasonWhenTheDiskIsFull) {
  const int full = open("/dev/full", O_WRONLY | O_CLOEXEC);
  Output output(full);
  output.put("x");
  try {
    output.flush();
    ADD_FAILURE() << "written";
  } catch (const std::system_error& e) {
    EXPECT_EQ(e.code().value(), ENOSPC);
  }
  EXPECT_THROW(output.put(std::string(300'000, 'x')), std::system_error);
  close(full);
}

}  // namespace
