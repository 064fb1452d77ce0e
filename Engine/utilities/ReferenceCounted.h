#pragma once

#include "Engine/utilities/Export.h"

/// \file
/// The base of objects that are shared by counted references, see Reference.
///
/// An object is made with `new` and has no reference at first. It deletes itself when its
/// last reference is taken away; nobody else deletes it. References may be added and taken
/// away on any thread, as long as whoever adds one holds one.

class CUL_EXPORT ReferenceCounted {
 public:
  ReferenceCounted() = default;
  ReferenceCounted(const ReferenceCounted&) = delete;
  ReferenceCounted& operator=(const ReferenceCounted&) = delete;
  virtual ~ReferenceCounted();

  /// Counts one more reference.
  virtual void addReference() const;

  /// Counts one reference less; the object is gone when it was the last.
  virtual void removeReference() const;

  /// For diagnosis: how many references there are now.
  [[nodiscard]] unsigned int referenceCount() const noexcept {
    return __atomic_load_n(&referenceCount_, __ATOMIC_ACQUIRE);
  }

 protected:
  /// Counts one reference less if there are `count` of them now, and never deletes.
  /// \return whether it did.
  [[nodiscard]] bool removeReferenceOf(unsigned int count) const noexcept {
    return __atomic_compare_exchange_n(&referenceCount_, &count, count - 1, false, __ATOMIC_ACQ_REL,
                                       __ATOMIC_RELAXED);
  }

 private:
  mutable unsigned int referenceCount_ = 0;  // atomically
};
