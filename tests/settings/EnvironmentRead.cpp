#include "tests/settings/EnvironmentRead.h"

CUL_STAND_IN(char*, getenv, (const char* name), noexcept, name)
