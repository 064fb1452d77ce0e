// A message catalog that knows every locale and tells which one it has been given on a thread.

#include <climits>
#include <cstdio>

extern "C" {

__attribute__((visibility("default"))) int setMessageLang(const char* locale);
__attribute__((visibility("default"))) const char* getMessage(int set, int number);
}

namespace {

thread_local char chosen[64] = "none";

}  // namespace

int setMessageLang(const char* locale) {
  std::snprintf(chosen, sizeof chosen, "%s", locale);
  return -1;
}

const char* getMessage(int set, int number) {
  if (set == INT_MIN && number == INT_MAX) {
    return "the least and the greatest";
  }
  if (set != 1) {
    return nullptr;
  }
  switch (number) {
    case 1:
      return chosen;
    case 2:
      return "Gr\u00fc\u00dfe, \u4e16\u754c";
    case 3:
      return "\xff\x80 is no UTF-8";
    case 4:
      return "";
    default:
      return nullptr;
  }
}
