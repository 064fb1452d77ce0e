#include "Engine/utilities/SettingNames.h"

const EncodedString& getEnvnamePrefix() {
  static const EncodedString& prefix = *new EncodedString(L"QVX_DBG_");
  return prefix;
}

const EncodedString& getFilenamePrefix() {
  static const EncodedString& prefix = *new EncodedString(L"qvx");
  return prefix;
}

void fabricateName(EncodedString& result, const EncodedString& stem) {
  result = getFilenamePrefix() + stem + EncodedString::number(1);
}

void fabricateName(EncodedString& result, const wchar_t* stem) {
  fabricateName(result, EncodedString(stem));
}
