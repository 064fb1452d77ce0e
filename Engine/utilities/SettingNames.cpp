#include "Engine/utilities/SettingNames.h"

#include "Engine/internal/ProcessWide.h"
#include "Engine/internal/Tables.h"
#include "Engine/utilities/EnvironmentVariables.h"

static_assert(areDifferentBy(environmentVariables,
                             [](const EnvironmentVariable& variable) { return variable.name; }),
              "two environment variables have one name");

const EncodedString& getEnvnamePrefix() {
  static constinit ProcessWide<const EncodedString> prefix;
  return prefix.get([] { return new EncodedString(L"QVX_DBG_"); });
}

const EncodedString& getFilenamePrefix() {
  static constinit ProcessWide<const EncodedString> prefix;
  return prefix.get([] { return new EncodedString(L"qvx"); });
}

void fabricateName(EncodedString& result, const EncodedString& stem) {
  result = getFilenamePrefix() + stem + EncodedString::number(1);
}

void fabricateName(EncodedString& result, const wchar_t* stem) {
  fabricateName(result, EncodedString(stem));
}
