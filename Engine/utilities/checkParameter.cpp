#include "Engine/utilities/checkParameter.h"

#include <cwchar>
#include <string_view>

#include "Engine/utilities/CharString.h"

bool checkParameter(CharString& arg, const CharString& name, unsigned minimum, int caseMode,
                    const wchar_t* separators) {
  const unsigned matched = arg.matchLength(name, caseMode);
  if (matched < minimum) {
    return false;
  }
  if (matched == arg.length()) {
    return true;
  }
  const unsigned behind = matched + 1;
  if (separators == nullptr ||
      std::wstring_view(separators).find(arg[behind]) == std::wstring_view::npos) {
    return false;
  }
  arg = CharString(arg, behind + 1);
  return true;
}

bool checkParameter(CharString& arg, const wchar_t* name, unsigned minimum, int caseMode,
                    const wchar_t* separators) {
  // Of a table of names most differ at once: no text is made for those.
  if (caseMode != 0 && name != nullptr && std::wcsncmp(arg, name, minimum) != 0) {
    return false;
  }
  return checkParameter(arg, CharString(name), minimum, caseMode, separators);
}
