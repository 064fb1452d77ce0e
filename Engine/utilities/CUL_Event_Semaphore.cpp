#include "Engine/utilities/CUL_Event_Semaphore.h"

CUL_Event_Semaphore::~CUL_Event_Semaphore() = default;
