#pragma once

#include <cstddef>
#include <new>

#include "Engine/utilities/Export.h"
#include "Engine/utilities/SearchListMemoryManager.h"

/// \file
/// The base of what lives in the storage of a search list. Objects of a derived class are
/// made in a manager and in no other way:
/// \code
///   Node* node = new (manager) Node(element);
///   node->~Node();
///   manager.releaseElement(node);
/// \endcode

class CUL_EXPORT SearchListManagedMemory {
 public:
  /// Places an object in the manager's storage.
  /// \throws std::bad_alloc when there is no memory, or when the object is larger than the
  ///         manager's elements.
  static void* operator new(std::size_t size, SearchListMemoryManager& manager) {
    if (size > manager.elementSize()) {
      throw std::bad_alloc();
    }
    return manager.getElement();
  }

  /// Called when a constructor throws.
  static void operator delete(void* p, SearchListMemoryManager& manager) noexcept {
    manager.releaseElement(p);
  }
};
