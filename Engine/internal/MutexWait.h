#pragma once

#include <pthread.h>

/// pthread_mutex_lock(), declared as one that may throw: a thread that is asked to end while it
/// waits here leaves by unwinding, and the compiler must count on that.
extern "C" int waitForMutex(pthread_mutex_t* mutex) __asm__("pthread_mutex_lock");
