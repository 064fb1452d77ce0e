#pragma once

#include <concepts>
#include <utility>

/// \file
/// Holds an object of a class derived from ReferenceCounted, or nothing.
///
/// The object lives as long as a Reference to it does. Different References to one object
/// may be used on different threads; one Reference is for one thread at a time.

template <typename T>
class Reference {
 public:
  Reference() noexcept = default;

  /// Adds a reference to the object; null is allowed.
  explicit Reference(T* object) : object_(object) { add(); }

  Reference(const Reference& other) : Reference(other.object_) {}
  Reference(Reference&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}

  /// A reference to the same object as an object of a base class.
  template <typename U>
  requires std::convertible_to<U*, T*>
  // NOLINTNEXTLINE(google-explicit-constructor): converts like a pointer.
  Reference(const Reference<U>& other) : Reference(other.get()) {}

  ~Reference() { remove(); }

  /// The old object loses its reference last, so a reference may be assigned to itself or
  /// from inside what it holds.
  Reference& operator=(Reference other) noexcept {
    std::swap(object_, other.object_);
    return *this;
  }

  /// The object, or null; valid as long as there is a Reference to it.
  [[nodiscard]] T* get() const noexcept { return object_; }
  [[nodiscard]] T* operator->() const noexcept { return object_; }
  [[nodiscard]] T& operator*() const noexcept { return *object_; }

  /// Whether it holds an object.
  [[nodiscard]] explicit operator bool() const noexcept { return object_ != nullptr; }

  /// Whether both hold the same object, or both none.
  template <typename U>
  [[nodiscard]] bool operator==(const Reference<U>& other) const noexcept {
    return object_ == other.get();
  }

 private:
  void add() const {
    if (object_ != nullptr) {
      object_->addReference();
    }
  }
  void remove() const {
    if (object_ != nullptr) {
      object_->removeReference();
    }
  }

  T* object_ = nullptr;
};
