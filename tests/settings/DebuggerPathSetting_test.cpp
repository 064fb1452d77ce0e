#include "Engine/utilities/DebuggerPathSetting.h"

#include <gmock/gmock.h>

#include "Engine/utilities/FileName.h"

#include "tests/settings/SettingSupport.h"
#include "tests/support/EnvironmentGuard.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

DebuggerPathSetting path(unsigned short minLength, unsigned short maxLength) {
  return {EncodedString(L"TEST_PATH"), controlOf(67), 1, noDefault, minLength, maxLength};
}

std::vector<std::string> pathsOf(const DebuggerPathSetting& setting) {
  std::vector<std::string> paths;
  for (const FileName* name : setting.getPaths()) {
    paths.push_back(plain(*name));
  }
  return paths;
}

}  // namespace

TEST(DebuggerPathSetting, ListsThePathsOfItsValue) {
  DebuggerPathSetting setting = path(0, 65535);
  EXPECT_THAT(pathsOf(setting), IsEmpty());
  EXPECT_TRUE(set(setting, "/usr/lib::lib:./x y:"));
  EXPECT_EQ(valueOf(setting), "/usr/lib::lib:./x y:");
  EXPECT_THAT(pathsOf(setting), ElementsAre("/usr/lib", "lib", "./x y"));
  EXPECT_TRUE(setting.getPaths()[0]->isAbsolute());
}

TEST(DebuggerPathSetting, ListsThePathsOfItsVariable) {
  const EnvironmentGuard guard("QVX_DBG_TEST_PATH", " /a:/b ");
  const DebuggerPathSetting setting = path(0, 65535);
  EXPECT_EQ(valueOf(setting), "/a:/b");
  EXPECT_THAT(pathsOf(setting), ElementsAre("/a", "/b"));
}

TEST(DebuggerPathSetting, ListsAnewAfterEachChange) {
  DebuggerPathSetting setting = path(0, 65535);
  ASSERT_TRUE(set(setting, "/a:/b:/c"));
  ASSERT_TRUE(set(setting, "/d"));
  EXPECT_THAT(pathsOf(setting), ElementsAre("/d"));
  ASSERT_TRUE(setting.setValue(setting.getValue()));
  EXPECT_THAT(pathsOf(setting), ElementsAre("/d"));
  ASSERT_TRUE(set(setting, ""));
  EXPECT_THAT(pathsOf(setting), IsEmpty());
}

TEST(DebuggerPathSetting, KeepsItsPathsWhenAValueIsRefused) {
  DebuggerPathSetting setting = path(2, 5);
  ASSERT_TRUE(set(setting, "/a:/b"));
  EXPECT_FALSE(set(setting, "/a:/bc"));
  EXPECT_FALSE(set(setting, "/"));
  EXPECT_EQ(valueOf(setting), "/a:/b");
  EXPECT_THAT(pathsOf(setting), ElementsAre("/a", "/b"));
}

TEST(DebuggerPathSetting, TakesManyAndLongPaths) {
  DebuggerPathSetting setting = path(0, 65535);
  ASSERT_TRUE(set(setting, repeated("/x:", 50000)));
  EXPECT_EQ(setting.getPaths().count(), 50000U);
  const std::string longPath = repeated("y", 100000);
  ASSERT_TRUE(set(setting, longPath));
  EXPECT_THAT(pathsOf(setting), ElementsAre(longPath));
}

TEST(DebuggerPathSetting, ListsNoPermittedValues) {
  EXPECT_EQ(plain(path(0, 8).getPermittedValues()), "");
}
