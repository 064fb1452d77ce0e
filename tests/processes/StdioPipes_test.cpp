#include "Engine/utilities/StdioPipes.h"

#include <algorithm>
#include <set>
#include <string>
#include <type_traits>

#include <gtest/gtest.h>

#include "Engine/utilities/ByteString.h"

#include "tests/processes/ConsoleSupport.h"

namespace {

// A console that keeps what is typed and offers the same text again and again.
class Recorder : public StdioPipes {
 public:
  HANDLE childReadHandle() override { return 11; }
  HANDLE childWriteHandle(StdFileHandle stream) override { return 20 + stream; }
  HANDLE readHandle(StdFileHandle stream) const override { return 30 + stream; }
  HANDLE writeHandle() const override { return 12; }
  int write(const void* data, unsigned int length) const override {
    typed.assign(static_cast<const char*>(data), length);
    return static_cast<int>(length) + 1;
  }
  int read(StdFileHandle stream, ByteString& out, unsigned int maximum) const override {
    asked = stream;
    out = ByteString(static_cast<const void*>(offered.data()),
                     std::min(static_cast<unsigned>(offered.size()), maximum));
    return static_cast<int>(out.length());
  }
  using StdioPipes::read;
  using StdioPipes::write;

  mutable std::string typed;
  mutable StdFileHandle asked = StdInput;
  std::string offered;
};

}  // namespace

TEST(StdioPipes, IsAnInterface) {
  EXPECT_TRUE(std::is_abstract_v<StdioPipes>);
  EXPECT_TRUE(std::has_virtual_destructor_v<StdioPipes>);
  EXPECT_FALSE(std::is_copy_constructible_v<StdioPipes>);
  EXPECT_FALSE(std::is_copy_assignable_v<StdioPipes>);
  EXPECT_TRUE((std::is_same_v<HANDLE, int>));
}

TEST(StdioPipes, ForwardsTheBytesOfAString) {
  const Recorder console;
  EXPECT_EQ(console.write(ByteString(static_cast<const void*>("a\0b"), 3)), 4);
  EXPECT_EQ(console.typed, std::string("a\0b", 3));
  EXPECT_EQ(console.write(ByteString()), 1);
  EXPECT_EQ(console.typed, "");
}

TEST(StdioPipes, ReadsIntoABuffer) {
  Recorder console;
  console.offered = std::string("x\0yz", 4);
  char buffer[6] = {'.', '.', '.', '.', '.', '.'};
  EXPECT_EQ(console.read(StdioPipes::StdError, buffer, 3), 3);
  EXPECT_EQ(console.asked, StdioPipes::StdError);
  EXPECT_EQ(std::string(buffer, 6), std::string("x\0y...", 6));
  EXPECT_EQ(console.read(StdioPipes::StdOutput, buffer, 6), 4);
  EXPECT_EQ(console.asked, StdioPipes::StdOutput);
  EXPECT_EQ(std::string(buffer, 6), std::string("x\0yz..", 6));
  console.offered.clear();
  EXPECT_EQ(console.read(StdioPipes::StdOutput, buffer, 6), 0);
  EXPECT_EQ(std::string(buffer, 6), std::string("x\0yz..", 6));
  EXPECT_EQ(console.read(StdioPipes::StdOutput, nullptr, 0), 0);
}

TEST(StdioPipes, PutsNoMoreIntoABufferThanItHolds) {
  // A console that gives more than it was asked for.
  class Generous : public Recorder {
    int read(StdFileHandle, ByteString& out, unsigned int) const override {
      out = ByteString("abcdef");
      return 6;
    }
  };
  const Generous console;
  char buffer[4] = {'.', '.', '.', '.'};
  EXPECT_EQ(static_cast<const StdioPipes&>(console).read(StdioPipes::StdOutput, buffer, 3), 3);
  EXPECT_EQ(std::string(buffer, 4), "abc.");
}

TEST(StdioPipes, HasNothingToCloseByItself) {
  Recorder console;
  const std::set<int> before = openDescriptors();
  console.closePipes();
  EXPECT_EQ(openDescriptors(), before);
}
