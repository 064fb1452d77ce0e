#include "tests/enginetrace/Reader.h"

const char* const reader = CUL_ENGINETRACE;
