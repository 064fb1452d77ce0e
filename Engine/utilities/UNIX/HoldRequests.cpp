#include "Engine/utilities/UNIX/HoldRequests.h"

constinit thread_local unsigned int requestsHeld = 0;
constinit thread_local unsigned int locksHeld = 0;
