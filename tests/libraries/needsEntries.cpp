// A library that does not say where the function it calls comes from.

extern "C" {

int entriesFunction(int number);
__attribute__((visibility("default"))) int needsEntriesFunction(int number);

int needsEntriesFunction(int number) { return 10 * entriesFunction(number); }
}
