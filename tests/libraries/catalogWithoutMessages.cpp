// A message catalog without messages.

extern "C" __attribute__((visibility("default"))) int setMessageLang(const char* locale);

int setMessageLang(const char* /*locale*/) { return 1; }
