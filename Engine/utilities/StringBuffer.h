#pragma once

#include "Engine/utilities/Export.h"

/// \file
/// The storage under all string types: ByteString is a StringBuffer<unsigned char>,
/// CharString a StringBuffer<wchar_t>, EncodedString a StringBuffer<char>. The library
/// holds these three instantiations and no other can be made.
///
/// A buffer owns exactly length() elements and, behind them, one element of value 0, so
/// that it can be handed to system calls as it is; elements of value 0 inside are ordinary
/// elements. There is no spare capacity: every change of length takes a new block from
/// the StringPoolManager; with up to 64 bytes, the final element included, it comes most of the
/// time from a stock of the calling thread's own, without a lock. An empty buffer owns nothing.
///
/// Positions are 1-based, and 0 means "not found" in every search. Positions out of range
/// are not reported: searches give 0, edits change nothing, missing elements are padded.
/// Nothing throws but the exhaustion of memory (std::bad_alloc), and that leaves an edited
/// buffer as it was. One object is used by one thread at a time. A forked child can use all
/// objects but those that another thread was just changing.

template <class T>
class CUL_EXPORT StringBuffer {
 public:
  /// Empty.
  StringBuffer() noexcept : buffer(nullptr), len(0) { makeBuffer(0); }

  /// A copy of the `n` elements at `text`, which may be null when `n` is 0.
  StringBuffer(const T* text, unsigned n);

  /// The tail of `s` from position `start` (0 counts as 1), empty when `start` is behind
  /// the end.
  StringBuffer(const StringBuffer& s, unsigned start);

  /// Exactly `count` elements: those that `s` has from position `start` on, the rest `pad`.
  /// \param s     where the elements come from.
  /// \param start at least 1 (0 counts as 1); behind the end of `s` everything is `pad`.
  /// \param count the length of the new buffer.
  /// \param pad   stands for what `s` does not have.
  StringBuffer(const StringBuffer& s, unsigned start, unsigned count, T pad);

  StringBuffer(const StringBuffer& s);
  /// Leaves `s` empty.
  StringBuffer(StringBuffer&& s) noexcept : buffer(nullptr), len(0) { take(s); }

  /// The one virtual operation: a string may be destroyed through a pointer to its base.
  virtual ~StringBuffer() { deleteBuffer(); }

  /// Keeps its block when the lengths are equal. When memory is out the buffer is left empty.
  StringBuffer& operator=(const StringBuffer& s);
  /// Leaves `s` empty, unless it is this object.
  StringBuffer& operator=(StringBuffer&& s) noexcept {
    if (this != &s) {
      deleteBuffer();
      take(s);
    }
    return *this;
  }

  /// Appends; `s` may be this object.
  StringBuffer& operator+=(const StringBuffer& s);

  /// Makes room for exactly `n` elements and stores the terminator behind them. With `n`
  /// equal to length() the present block stays with its contents, otherwise the contents
  /// are lost and the elements uninitialised.
  /// \throws std::bad_alloc when memory is out or the block would have 4 GiB or more; the
  ///         buffer is then empty.
  void makeBuffer(unsigned n) {
    // One of the two zeros that empty buffers point at; both are kept (docs/contract.md).
    static T nullString[1] = {};
    if (buffer != nullptr && n == len) {
      return;
    }
    deleteBuffer();
    buffer = nullString;
    if (n != 0) {
      buffer = getBlock(n);
      len = n;
    }
  }

  /// Gives the storage of a buffer that is not empty back and leaves a null pointer: the
  /// object needs makeBuffer() before it is used as a string again.
  void deleteBuffer() noexcept {
    if (len != 0 && buffer != nullptr) {
      freeBlock(buffer, len);
      len = 0;
      buffer = nullptr;
    }
  }

  /// Makes the buffer empty.
  void clear() noexcept {
    static T nullString[1] = {};  // the other one, see makeBuffer()
    if (len != 0) {
      deleteBuffer();
      len = 0;
      buffer = nullString;
    }
  }

  /// The elements with their terminator, valid until the next change of this object.
  // NOLINTBEGIN(google-explicit-constructor): a string passes for its text everywhere.
  operator const T*() const noexcept { return buffer; }
  operator T*() noexcept { return buffer; }
  // NOLINTEND(google-explicit-constructor)

  /// Number of elements without the terminator.
  [[nodiscard]] unsigned length() const noexcept { return len; }

  /// The element at position `i`, unchecked.
  [[nodiscard]] const T& operator[](unsigned i) const noexcept { return buffer[i - 1]; }
  [[nodiscard]] T& operator[](unsigned i) noexcept { return buffer[i - 1]; }
  [[nodiscard]] const T& operator[](int i) const noexcept { return buffer[i - 1]; }
  [[nodiscard]] T& operator[](int i) noexcept { return buffer[i - 1]; }

  /// First position at or behind `start` (0 counts as 1) that holds `c`.
  [[nodiscard]] unsigned indexOf(T c, unsigned start = 1) const noexcept;
  /// First position at or behind `start` (0 counts as 1) that does not hold `c`.
  [[nodiscard]] unsigned indexOfAnyBut(T c, unsigned start = 1) const noexcept;
  /// Last position up to `start` that holds `c`; pass length() to search from the end.
  [[nodiscard]] unsigned lastIndexOf(T c, unsigned start) const noexcept;
  /// Last position up to `start` that does not hold `c`.
  [[nodiscard]] unsigned lastIndexOfAnyBut(T c, unsigned start) const noexcept;
  /// First position at or behind `start` (0 counts as 1) where the whole of `pattern`
  /// stands. An empty pattern stands at every position up to length() + 1.
  [[nodiscard]] unsigned indexOf(const StringBuffer& pattern, unsigned start = 1) const noexcept;
  /// Number of places at or behind `start` (0 counts as 1) where `pattern` stands, counted
  /// without overlap from the left; 0 for an empty pattern.
  [[nodiscard]] unsigned occurrencesOf(const StringBuffer& pattern,
                                       unsigned start = 1) const noexcept;

  [[nodiscard]] bool operator==(const StringBuffer& s) const noexcept {
    return len == s.len && __builtin_memcmp(buffer, s.buffer, len * sizeof(T)) == 0;
  }
  [[nodiscard]] bool operator!=(const StringBuffer& s) const noexcept { return !(*this == s); }
  /// Orders by the unsigned bytes of the storage over the shorter of the two lengths only:
  /// a text and its own beginning are neither less nor greater. Wide texts are therefore
  /// ordered by their little-endian bytes. Sorted containers depend on it.
  [[nodiscard]] bool operator<(const StringBuffer& s) const noexcept {
    const unsigned common = len < s.len ? len : s.len;
    return __builtin_memcmp(buffer, s.buffer, common * sizeof(T)) < 0;
  }
  [[nodiscard]] bool operator>(const StringBuffer& s) const noexcept { return s < *this; }

  /// Whether all elements are decimal digits. Like the next two false when empty, so that
  /// an empty token never passes for a number.
  [[nodiscard]] bool isDigits() const noexcept;
  /// Whether all elements are hexadecimal digits of either case.
  [[nodiscard]] bool isHexDigits() const noexcept;
  /// Whether all elements are '0' or '1'.
  [[nodiscard]] bool isBinaryDigits() const noexcept;

  /// The low 32 bits of the 64-bit FNV-1a hash (Fowler, Noll, Vo) of the storage's bytes.
  [[nodiscard]] unsigned hashValue() const noexcept;
  /// The 8-bit checksum crc8() of the storage's bytes.
  [[nodiscard]] unsigned char hashValue8() const noexcept;

  /// Removes `count` elements from position `pos` on; a `count` of 0xFFFFFFFF or beyond the
  /// end means all the rest. Nothing happens for a `pos` of 0 or behind the end.
  void remove(unsigned pos, unsigned count);

  /// Replaces the first occurrence of `from` at or behind `start` (0 counts as 1), and no
  /// other, by `to`. Both may be this object. An empty `from` stands at `start` itself. Nothing
  /// happens when `start` is greater than length(): in an empty buffer only an empty `from` at 0
  /// is replaced.
  void change(const StringBuffer& from, const StringBuffer& to, unsigned start = 1);

  /// Puts `pad` in front until there are `width` elements; a longer text stays as it is.
  void rightJustify(unsigned width, T pad);

 protected:
  T* buffer;     ///< The elements and a 0; null only after deleteBuffer().
  unsigned len;  ///< Number of elements, without the terminator.

 private:
  // A terminated block for `n` elements, `n` not 0.
  static T* getBlock(unsigned n);
  static void freeBlock(T* block, unsigned n) noexcept;

  // What every edit comes down to: a new block with `inserted` in place of the `removed`
  // elements behind the first `kept`. Arguments may point into this buffer.
  void splice(unsigned kept, unsigned removed, const T* inserted, unsigned count);

  // Takes over the storage of `s`; this object has none.
  void take(StringBuffer& s) noexcept {
    buffer = nullptr;
    len = 0;
    if (s.len == 0) {
      makeBuffer(0);
      return;
    }
    buffer = s.buffer;
    len = s.len;
    s.buffer = nullptr;
    s.len = 0;
    s.makeBuffer(0);
  }
};

extern template class StringBuffer<char>;
extern template class StringBuffer<unsigned char>;
extern template class StringBuffer<wchar_t>;
