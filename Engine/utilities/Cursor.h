#pragma once

#include <memory>

#include "Engine/utilities/Export.h"

/// \file
/// A position in a search list, for walking over its elements.
///
/// A cursor stands on an element or nowhere. It is made standing nowhere and begins with
/// first() or last(). Stepping beyond either end leaves it nowhere, from where no step leads
/// back. It must not outlive its list. Not thread-safe: list and cursors together belong to
/// one thread at a time.
///
/// Which changes of the list a cursor survives is told by the list.

template <class Element, class Key>
class CUL_EXPORT Cursor {
 public:
  virtual ~Cursor() = default;

  /// Goes to the first element.
  /// \return whether there is one.
  virtual bool first() = 0;
  /// Goes to the last element.
  /// \return whether there is one.
  virtual bool last() = 0;
  /// Goes to the next element.
  /// \return false when there is none, or when the cursor stood nowhere.
  virtual bool next() = 0;
  /// Goes to the element before.
  /// \return false when there is none, or when the cursor stood nowhere.
  virtual bool previous() = 0;

  /// The element that the cursor stands on, null when it stands nowhere. The list owns it;
  /// what makes up its key must not be changed.
  [[nodiscard]] virtual Element* element() const = 0;

  /// A cursor of its own at the same position.
  [[nodiscard]] virtual std::unique_ptr<Cursor> clone() const = 0;

  /// Leaves the element: the cursor stands nowhere.
  virtual void leave() noexcept = 0;

 protected:
  Cursor() = default;
  Cursor(const Cursor&) = default;
  Cursor& operator=(const Cursor&) = default;
};
