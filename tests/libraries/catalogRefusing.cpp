// A message catalog that has none of the languages that are asked for.

extern "C" {

__attribute__((visibility("default"))) int setMessageLang(const char* locale);
__attribute__((visibility("default"))) const char* getMessage(int set, int number);

int setMessageLang(const char* /*locale*/) { return 0; }
const char* getMessage(int /*set*/, int /*number*/) { return "in its own language"; }
}
