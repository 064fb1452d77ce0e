#include "Engine/utilities/ReferenceCounted.h"

#include "Engine/internal/FixedLayout.h"
#include "Engine/internal/HoldRequests.h"

// The engine knows this layout: docs/contract.md.
CUL_FIXED_SIZE(ReferenceCounted, 16);
CUL_FIXED_FIELD(ReferenceCounted, referenceCount_, 8);

ReferenceCounted::~ReferenceCounted() = default;

void ReferenceCounted::addReference() const {
  __atomic_add_fetch(&referenceCount_, 1, __ATOMIC_RELAXED);
}

void ReferenceCounted::removeReference() const {
  const HoldRequests hold;  // or the object might stay without a reference
  if (__atomic_sub_fetch(&referenceCount_, 1, __ATOMIC_ACQ_REL) == 0) {
    delete this;
  }
}
