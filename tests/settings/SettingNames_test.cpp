#include "Engine/utilities/SettingNames.h"

#include <gtest/gtest.h>

#include "tests/settings/SettingSupport.h"

TEST(SettingNames, HaveTwoPrefixesThatAreMadeOnce) {
  EXPECT_EQ(plain(getEnvnamePrefix()), "QVX_DBG_");
  EXPECT_EQ(plain(getFilenamePrefix()), "qvx");
  EXPECT_EQ(&getEnvnamePrefix(), &getEnvnamePrefix());
  EXPECT_EQ(&getFilenamePrefix(), &getFilenamePrefix());
}

TEST(SettingNames, AreFabricatedOfPrefixStemAndOne) {
  EncodedString result(L"old");
  fabricateName(result, encoded("prof"));
  EXPECT_EQ(plain(result), "qvxprof1");
  fabricateName(result, L"\x263A");
  EXPECT_EQ(plain(result),
            "qvx\xE2\x98\xBA"
            "1");
  fabricateName(result, L"");
  EXPECT_EQ(plain(result), "qvx1");
  fabricateName(result, static_cast<const wchar_t*>(nullptr));
  EXPECT_EQ(plain(result), "qvx1");
}

TEST(SettingNames, AreFabricatedOfAStemThatIsTheResultItself) {
  EncodedString name(L"a");
  fabricateName(name, name);
  EXPECT_EQ(plain(name), "qvxa1");
}
