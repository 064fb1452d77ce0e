#pragma once

#include <cstddef>
#include <cstring>
#include <type_traits>
#include <utility>

#include "Engine/utilities/ListImplementation.h"

/// \file
/// The library's growable array.
///
/// Elements are plain values or pointers, moved and compared as raw bytes: padding bytes
/// count in comparisons. A list owns its buffer and nothing behind its elements; whoever
/// fills a list of pointers deletes the objects.
///
/// Indices are 0-based and unchecked; indexOf() gives a 1-based position, 0 for "not
/// found". Adding and inserting invalidate pointers and references into the list. A list
/// on a pool leaves every outgrown buffer in the pool until the pool is cleared, and its
/// elements are only 4-byte aligned, like all pool memory.
///
/// Not copyable or assignable, but a function can return one. Not thread-safe: one thread at
/// a time, or under the owner's lock.

template <typename T>
class List {
  // NOLINTNEXTLINE(bugprone-sizeof-expression): for pointers the pointer's own size is meant.
  static constexpr std::size_t elementSize = sizeof(T);

  static_assert(std::is_trivially_copyable_v<T>, "elements are moved as raw bytes");
  static_assert(elementSize <= 0xFFFF, "an element's size has 16 bits");

 public:
  /// An empty list.
  /// \param initialCapacity elements to make room for at once; 0: no buffer until the
  ///                        first insertion.
  /// \param pool            where buffers come from, null for the free store; must outlive
  ///                        the list.
  /// \param growth          elements added at least when the list grows; 0 counts as 1.
  /// \throws std::bad_alloc when there is no memory or a buffer would need 2^32 bytes or
  ///         more; so does everything that adds, with the list unchanged.
  explicit List(unsigned int initialCapacity = 0, Pool* pool = nullptr, unsigned short growth = 8)
      : List(nullptr, initialCapacity, pool, growth) {}
  List(const List&) = delete;
  List& operator=(const List&) = delete;

  /// Takes the elements of another list over and leaves it empty, on the same pool.
  List(List&& other) noexcept
      : implementation_(std::move(other.implementation_)),
        elements_(std::exchange(other.elements_, nullptr)) {}

  ~List() { implementation_.deleteItems(elements_); }

  /// Appends one element, which may be one of the list's own.
  void add(const T& element) {
    const unsigned int index = implementation_.count;
    if (index < implementation_.capacity) [[likely]] {
      std::memcpy(static_cast<void*>(elements_ + index), &element, elementSize);
      implementation_.count = index + 1;
    } else {
      addToFull(element);
    }
  }

  /// Appends `n` elements, which may be the list's own; `elements` may be null for 0.
  void append(const T* elements, unsigned int n) {
    implementation_.appendItems(Buffer(elements_), elements, n);
  }

  /// Inserts before the element at `index`. An index behind the end grows the list up to
  /// it with a run of zeroed elements.
  void insertAt(unsigned int index, const T& element) {
    const T copy = element;
    implementation_.insert_at(index, Buffer(elements_), &copy);
  }

  /// Removes one element; ignores an index at or behind the end.
  void removeAt(unsigned int index) { implementation_.remove(index, elements_); }

  /// Removes the first element equal to `element`.
  /// \return whether there was one.
  bool remove(const T& element) {
    const unsigned int position = indexOf(element);
    if (position == 0) {
      return false;
    }
    removeAt(position - 1);
    return true;
  }

  /// Makes room for `n` more elements at once, for whoever adds many one by one: a list that
  /// grows by its growth step alone copies itself at every step. A list without a buffer gets
  /// one of its growth step even when `n` is 0.
  void extend(unsigned int n) { implementation_.extend(n, Buffer(elements_)); }

  /// Forgets all elements and keeps the capacity.
  void removeAll() noexcept { implementation_.count = 0; }

  /// The 1-based position of the first element equal to `element`, 0 if there is none.
  [[nodiscard]] unsigned int indexOf(const T& element) const {
    return implementation_.findItem(elements_, &element);
  }

  /// The element at `index`, which must be below count().
  [[nodiscard]] T& operator[](unsigned int index) { return elements_[index]; }
  [[nodiscard]] const T& operator[](unsigned int index) const { return elements_[index]; }

  /// Elements in the list.
  [[nodiscard]] unsigned int count() const noexcept { return implementation_.count; }
  /// Whether there is no element.
  [[nodiscard]] bool isEmpty() const noexcept { return implementation_.count == 0; }

  /// Elements there is room for before the list has to grow.
  [[nodiscard]] unsigned int capacity() const noexcept { return implementation_.capacity; }

  /// Sorts in place and keeps the order of equal elements. Takes n log n time, linear for what
  /// is nearly in order; see ListImplementation::bSort().
  /// \param compare as for qsort(), given pointers to elements.
  /// \return whether the list was in order already.
  bool sort(int (*compare)(const void*, const void*)) {
    alignas(T) unsigned char scratch[elementSize];
    return implementation_.bSort(compare, elements_, scratch);
  }

  /// \name For loops over the elements
  /// Where the elements begin and end; null for a list without a buffer.
  /// @{
  [[nodiscard]] T* begin() noexcept { return elements_; }
  [[nodiscard]] T* end() noexcept { return elements_ + implementation_.count; }
  [[nodiscard]] const T* begin() const noexcept { return elements_; }
  [[nodiscard]] const T* end() const noexcept { return elements_ + implementation_.count; }
  /// @}

 private:
  // By value: a caller's loop variable whose address is not taken stays in its register.
  [[gnu::noinline, gnu::cold]] void addToFull(T element) { append(&element, 1); }

  // Lends the buffer pointer as the untyped one that the core may replace.
  class Buffer {
   public:
    explicit Buffer(T*& elements) : elements_(elements), address_(elements) {}
    Buffer(const Buffer&) = delete;
    Buffer& operator=(const Buffer&) = delete;
    ~Buffer() { elements_ = static_cast<T*>(address_); }
    // NOLINTNEXTLINE(google-explicit-constructor): converting is all it is for.
    operator void**() { return &address_; }

   private:
    T*& elements_;
    void* address_;
  };

  List(void* buffer, unsigned int initialCapacity, Pool* pool, unsigned short growth)
      : implementation_(&buffer, initialCapacity, pool, elementSize, growth),
        elements_(static_cast<T*>(buffer)) {}

  ListImplementation implementation_;
  T* elements_;
};
