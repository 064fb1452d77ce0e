// A library with entries of several kinds.

extern "C" {

__attribute__((visibility("default"))) int entriesFunction(int number);
__attribute__((visibility("default"))) extern const int entriesNumber;

int entriesFunction(int number) { return number + 1; }
const int entriesNumber = 42;
}

// An entry whose address is null.
asm(".globl entriesNothing\n"
    ".type entriesNothing, @object\n"
    ".set entriesNothing, 0\n");
