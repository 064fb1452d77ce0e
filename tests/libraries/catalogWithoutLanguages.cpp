// A message catalog that has one language and no function to choose it.

extern "C" __attribute__((visibility("default"))) const char* getMessage(int set, int number);

const char* getMessage(int /*set*/, int /*number*/) { return "in its only language"; }
