#pragma once

#include <climits>

#include "Engine/utilities/Cursor.h"
#include "Engine/utilities/Export.h"

/// \file
/// A collection that finds its elements by their keys.
///
/// A list owns copies of the elements that are added. It is made either with unique keys or
/// with duplicates allowed. Not copyable. Not thread-safe, not even for looking up alone:
/// find() moves the list's own cursor.

template <class Element, class Key>
class CUL_EXPORT SearchList {
 public:
  SearchList(const SearchList&) = delete;
  SearchList& operator=(const SearchList&) = delete;
  virtual ~SearchList() = default;

  /// Adds a copy and moves cursor() to it. With unique keys an element of the same key stays
  /// in its place, nothing is added and cursor() is moved to that one.
  /// \return whether the element was added.
  /// \throws std::bad_alloc, or what copying throws, with the elements unchanged.
  virtual bool add(const Element& element) = 0;

  /// Looks an element up and moves cursor() to it.
  /// \return the element, or null when there is none; then cursor() stays where it is. Valid
  ///         until the element is removed; what makes up its key must not be changed. Of
  ///         several with the same key the one that was added last.
  virtual Element* find(const Key& key) = 0;

  /// Removes the element that find() would give. cursor() moves only when it stood on that
  /// one, and then nowhere.
  /// \param key may be part of that element.
  /// \return whether there was one.
  virtual bool remove(const Key& key) = 0;

  /// Removes the element that `position` stands on, which then stands nowhere. It may be
  /// cursor().
  /// \return false, with nothing changed, when it stands nowhere or in another list.
  virtual bool remove(Cursor<Element, Key>& position) = 0;

  /// Removes all elements; every cursor then stands nowhere.
  virtual void removeAll() noexcept = 0;

  /// The list's own cursor, which marks the element most recently found or added. Whoever
  /// walks with it calls neither find() nor add() on the way.
  [[nodiscard]] virtual Cursor<Element, Key>& cursor() noexcept = 0;

  /// Elements in the list.
  [[nodiscard]] unsigned int count() const noexcept { return count_; }
  /// Whether there is no element.
  [[nodiscard]] bool isEmpty() const noexcept { return count_ == 0; }

 protected:
  /// \param duplicatesAllowed 0: keys are unique.
  explicit SearchList(int duplicatesAllowed) noexcept : duplicatesAllowed_(duplicatesAllowed) {}

  /// Makes every cursor stand nowhere.
  void invalidateCursors() noexcept { stamp_ = stamp_ == INT_MAX ? 1 : stamp_ + 1; }

  unsigned int count_ = 0;  ///< Elements in the list.
  int duplicatesAllowed_;   ///< 0: keys are unique.
  int stamp_ = 0;           ///< Of a cursor that stands on an element; never negative.
};
