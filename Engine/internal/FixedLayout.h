#pragma once

#include <cstddef>

/// \file
/// How a source pins the layout of its class where the contract fixes it (docs/contract.md): a
/// field that moves does not compile. To stand at namespace scope behind the class, also for
/// private fields and types, since an explicit instantiation may name those.
///
/// Virtual slots cannot be pinned like this, as no compiler compares pointers to virtual
/// operations in a constant expression: tests do, with tests/support/VirtualSlot.h.
/// \code
///   CUL_FIXED_SIZE(FileName, 32);
///   CUL_FIXED_FIELD(FileName, hash, 20);
/// \endcode

/// See CUL_FIXED_FIELD.
template <class Class, std::size_t offset, std::size_t actual>
struct FixedField {
  static_assert(actual == offset, "the contract fixes where this field is");
};

/// See CUL_FIXED_SIZE.
template <class Class, std::size_t size>
struct FixedSize {
  static_assert(sizeof(Class) == size, "the contract fixes the size of this class");
};

// Both compilers lay classes with virtual operations out like any others.
#pragma GCC diagnostic ignored "-Winvalid-offsetof"

/// `field` is `offset` bytes into an object of `Class`.
#define CUL_FIXED_FIELD(Class, field, offset) \
  template struct FixedField<Class, offset, offsetof(Class, field)>

/// An object of `Class` has `size` bytes.
#define CUL_FIXED_SIZE(Class, size) template struct FixedSize<Class, size>
