#pragma once

#include <memory>
#include <type_traits>
#include <utility>

#include "Engine/utilities/List.h"

/// \file
/// A list of objects that belong to it, for the lists that an object keeps as its own.
/// Indices are 0-based and unchecked. Internal to the library.

/// Appends an element by which a plain list owns what `owner` holds, for the lists whose type is
/// kept (docs/contract.md). `owner` is left empty.
/// \throws std::bad_alloc with the list and `owner` unchanged.
template <typename Element, typename Owner>
void addOwned(List<Element>& list, const std::type_identity_t<Element>& element, Owner& owner) {
  list.add(element);
  static_cast<void>(owner.release());
}

template <typename T>
class OwningList {
 public:
  /// An empty list with room for `initialCapacity` objects.
  explicit OwningList(unsigned int initialCapacity = 0) : objects_(initialCapacity) {}
  /// Takes the objects of a list over, which is left empty.
  explicit OwningList(List<T*>&& objects) noexcept : objects_(std::move(objects)) {}
  OwningList(const OwningList&) = delete;
  OwningList& operator=(const OwningList&) = delete;
  ~OwningList() { removeAll(); }

  /// Appends an object.
  void add(std::unique_ptr<T> object) { addOwned(objects_, object.get(), object); }

  /// Makes room for `n` more objects at once.
  void reserve(unsigned int n) { objects_.extend(n); }

  /// Takes an object off the list, then deletes it.
  void removeAt(unsigned int index) {
    const std::unique_ptr<T> object(objects_[index]);
    objects_.removeAt(index);
  }

  /// Hands all objects over to the caller.
  [[nodiscard]] List<T*> release() noexcept { return std::move(objects_); }

  /// Deletes all objects.
  void removeAll() noexcept {
    for (T* object : objects_) {
      delete object;
    }
    objects_.removeAll();
  }

  [[nodiscard]] const List<T*>& list() const noexcept { return objects_; }
  [[nodiscard]] const T& operator[](unsigned int index) const { return *objects_[index]; }
  [[nodiscard]] unsigned int count() const noexcept { return objects_.count(); }

 private:
  List<T*> objects_;
};
