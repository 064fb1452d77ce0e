#include "Engine/utilities/SettingNames.h"

#include "Engine/internal/ProcessWide.h"

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
