#pragma once

#include "Engine/utilities/ByteString.h"
#include "Engine/utilities/CharString.h"
#include "Engine/utilities/Export.h"
#include "Engine/utilities/List.h"

/// \file
/// A named EBCDIC code page that converts to and from wide text. EBCDICtableStore keeps the
/// tables of a process.
///
/// A table is made from pairs of a Unicode value and an EBCDIC value. Single-byte values
/// stand for themselves; double-byte ones lie between the bytes shift-out (0x0E) and shift-in
/// (0x0F). A text starts and ends in single-byte mode. Nothing is reported: what has no pair
/// becomes the byte 0x3F on the way to EBCDIC and U+00FF on the way back. Nothing throws, but
/// for std::bad_alloc, which a result too long for a 32-bit length is too.
///
/// A table never changes and is not copyable. Any thread may convert.

class CUL_EXPORT EBCDICtable {
 public:
  /// Two values that stand for each other.
  struct ValuePair {
    unsigned short ucs;     ///< The Unicode value.
    unsigned short ebcdic;  ///< A byte, or lead byte * 256 + trail byte.
  };

  /// The built-in table "VKT-1047": EBCDIC::codePage1047 both ways.
  EBCDICtable();

  /// A table of pairs.
  /// \param pairs copied. Of two pairs for the same value the earlier one counts; the later
  ///              one still counts for its other value.
  /// \param name  zero-terminated; null gives an empty name.
  EBCDICtable(const List<ValuePair>& pairs, const char* name);

  EBCDICtable(const EBCDICtable&) = delete;
  EBCDICtable& operator=(const EBCDICtable&) = delete;

  /// Wide text to EBCDIC. Values above 0xFFFF have no pair.
  /// \param text null counts as empty.
  /// \param n    number of values.
  [[nodiscard]] ByteString fromUCS(const wchar_t* text, unsigned n) const;

  /// EBCDIC to wide text. The shift bytes are ordinary ones for a table without double-byte
  /// values, and so are a shift-in in single-byte mode and a shift-out in double-byte mode.
  /// A lead byte at the end has no pair; the byte behind any other is its trail byte, a
  /// shift-in too.
  /// \param bytes null counts as empty.
  /// \param n     number of bytes.
  [[nodiscard]] CharString toUCS(const unsigned char* bytes, unsigned n) const;

  /// The name as it was given.
  [[nodiscard]] const ByteString& getName() const noexcept { return name; }

 private:
  void createTables(const List<ValuePair>& pairs);
  [[nodiscard]] unsigned ebcdicOf(unsigned value) const noexcept;
  [[nodiscard]] wchar_t doubleByteUCS(unsigned value) const noexcept;
  unsigned char* convert(const wchar_t* text, unsigned n, unsigned char* to) const noexcept;
  wchar_t* convert(const unsigned char* bytes, unsigned n, wchar_t* to) const noexcept;

  List<ValuePair> dbcsPairs;   // those of two bytes, by `ebcdic`
  List<ValuePair> upperPairs;  // those beyond ASCII, by `ucs`
  ByteString name;
  ValuePair toUCSTable[256];     // by EBCDIC byte
  ValuePair fromUCS7Table[128];  // by ASCII value
};
