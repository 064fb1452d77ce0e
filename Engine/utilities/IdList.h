#pragma once

#include "Engine/utilities/Export.h"
#include "Engine/utilities/List.h"

/// \file
/// A sorted set of small integer identifiers, each taken or free.
///
/// Identifiers have 31 bits. Those below the direct count are never handed out by
/// getNextId(): they are there for callers to reserve by number. Identifier 0 is taken from
/// the start and stays so. Released identifiers are handed out again, lowest first.
///
/// Not thread-safe: one thread at a time, or under the owner's lock.

class CUL_EXPORT IdList {
 public:
  /// The identifiers 0 to `directIdentifiers` + 9, of which only 0 is taken.
  /// \throws std::bad_alloc when there is no memory, or for a direct count above 2^30 - 11,
  ///         whose identifiers would need 2^32 bytes or more.
  explicit IdList(unsigned int directIdentifiers);
  IdList(const IdList& other);
  /// \throws std::bad_alloc when there is no memory, with this list unchanged.
  IdList& operator=(const IdList& other);

  /// Returns to the state after construction.
  void releaseAll();

  /// Takes the lowest free identifier at or above the direct count.
  /// \throws std::bad_alloc when there is no memory for one more.
  unsigned int getNextId();

  /// Takes `id`, adding it if it is absent; it may be taken already. An `id` of 2^31 or
  /// more is no identifier and is never held.
  /// \return `id`.
  unsigned int reserveId(unsigned int id);

  /// Frees `id` if it is present; 0 is never freed.
  void releaseId(unsigned int id);

  /// Whether `id` may be reserved by number: above 0, below the direct count, and free.
  [[nodiscard]] bool isAssignable(unsigned int id) const;

  /// Whether `id` is present and taken.
  [[nodiscard]] bool isReservedId(unsigned int id) const;

 private:
  [[nodiscard]] unsigned int firstNotBelow(unsigned int id, unsigned int start) const;

  unsigned int directCount;
  List<unsigned int> elements_;
};
