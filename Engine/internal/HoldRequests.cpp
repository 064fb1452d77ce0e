#include "Engine/internal/HoldRequests.h"

#include "Engine/internal/LeafLock.h"

constinit thread_local unsigned int requestsHeld = 0;
constinit thread_local unsigned int locksHeld = 0;
constinit thread_local std::mutex* leafMutex = nullptr;
