#pragma once

#include <bit>
#include <bitset>
#include <type_traits>

/// \file
/// Membership in a small zero-terminated set of elements, as the scanners and tokenisers of
/// the strings test it for every element of a text.

template <class T>
class ElementSet {
 public:
  /// \param elements zero-terminated, must outlive the set; null counts as empty.
  explicit ElementSet(const T* elements) noexcept : elements_(elements) {
    for (const T* e = elements; e != nullptr && *e != 0; ++e) {
      const Value value = std::bit_cast<Value>(*e);
      if (value < low_.size()) {
        low_.set(value);
      } else {
        hasHigh_ = true;
      }
    }
  }

  /// Whether there is no element.
  [[nodiscard]] bool isEmpty() const noexcept { return elements_ == nullptr || *elements_ == 0; }

  /// Whether `c` is in the set; 0 never is.
  [[nodiscard]] bool contains(T c) const noexcept {
    const Value value = std::bit_cast<Value>(c);
    if (value < low_.size()) {
      return low_[value];
    }
    return hasHigh_ && isHighElement(c);
  }

  /// The first element in [from, to) that is not in the set; `to` when all are.
  [[nodiscard]] const T* skip(const T* from, const T* to) const noexcept {
    while (from != to && contains(*from)) {
      ++from;
    }
    return from;
  }

  /// The first element in [from, to) that is in the set; `to` when none is.
  [[nodiscard]] const T* seek(const T* from, const T* to) const noexcept {
    while (from != to && !contains(*from)) {
      ++from;
    }
    return from;
  }

 private:
  using Value = std::make_unsigned_t<T>;

  [[nodiscard]] bool isHighElement(T c) const noexcept {
    for (const T* e = elements_; *e != 0; ++e) {
      if (*e == c) {
        return true;
      }
    }
    return false;
  }

  const T* elements_;
  std::bitset<256> low_;
  bool hasHigh_ = false;
};
