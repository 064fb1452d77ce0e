#include "Engine/utilities/MemoryAllocator.h"

// Out of line, so that the table of virtual operations has one home.
MemoryAllocator::~MemoryAllocator() = default;
