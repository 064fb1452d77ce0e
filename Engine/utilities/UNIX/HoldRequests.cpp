#include "Engine/utilities/UNIX/HoldRequests.h"

constinit thread_local unsigned int requestsHeld = 0;
