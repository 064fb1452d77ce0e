#include "Engine/utilities/UNIX/LINUX_Installpath.h"

#include <string>
#include <unistd.h>

#include "Engine/internal/Texts.h"

LINUX_Installpath::LINUX_Installpath()
    : UNIX_Installpath(encodedText("/proc/" + std::to_string(getpid()) + "/exe")) {}
