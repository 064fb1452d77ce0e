#pragma once

#include <array>
#include <string_view>

#include "Engine/utilities/Export.h"

/// \file
/// The character classes and case maps of ASCII that all string types share. They do not
/// depend on the locale and know no byte of 0x80 or above. Everything here is a constant
/// table: any thread, any time, nothing throws.

/// A set of static functions; there are no objects of this class.
class CUL_EXPORT ASCII {
 public:
  ASCII() = delete;

  /// The classes, or-ed together in a type(). Tab, line feed and carriage return are both
  /// white space and escapable, and are not printable.
  enum Class : unsigned short {
    lowerCase = 0x001,
    upperCase = 0x002,
    decimalDigit = 0x004,
    hexDigit = 0x008,          ///< Of either case.
    whiteSpace = 0x010,        ///< Blank, tab, line feed, carriage return.
    punctuation = 0x020,       ///< All graphic characters but letters, digits and "@#$".
    binaryDigit = 0x040,       ///< 0 and 1.
    identifierLetter = 0x080,  ///< Letters and "@#$".
    printable = 0x100,
    escapable = 0x200  ///< Control characters that have an escape form, as "\n".
  };

  /// The classes of `c`; 0 for characters that belong to none.
  [[nodiscard]] static constexpr unsigned short type(unsigned char c) noexcept { return types[c]; }

  /// \name Case
  /// The lower or upper case of one of the 26 letters; every other byte maps to itself.
  /// @{
  [[nodiscard]] static constexpr unsigned char toLower(unsigned char c) noexcept {
    return lower[c];
  }
  [[nodiscard]] static constexpr unsigned char toUpper(unsigned char c) noexcept {
    return upper[c];
  }
  /// @}

 private:
  static constexpr std::string_view upperLetters = "ABCDEFGHIJKLMNOPQRSTUVWXYZ";
  static constexpr std::string_view lowerLetters = "abcdefghijklmnopqrstuvwxyz";

  using TypeTable = std::array<unsigned short, 256>;
  using CaseTable = std::array<unsigned char, 256>;

  static constexpr void add(TypeTable& table, std::string_view characters, unsigned bits) {
    for (const char c : characters) {
      unsigned short& entry = table[static_cast<unsigned char>(c)];
      entry = static_cast<unsigned short>(entry | bits);
    }
  }

  static constexpr TypeTable makeTypes() {
    TypeTable table = {};
    add(table, upperLetters, printable | identifierLetter | upperCase);
    add(table, lowerLetters, printable | identifierLetter | lowerCase);
    add(table, "@#$", printable | identifierLetter);
    add(table, "0123456789", printable | hexDigit | decimalDigit);
    add(table, "abcdefABCDEF", printable | hexDigit);
    add(table, "01", printable | binaryDigit);
    add(table, "~`!%^&*()_+-={}|[]\\:\";',./<>?", printable | punctuation);
    add(table, " ", printable | whiteSpace);
    add(table, "\t\n\r", whiteSpace);
    add(table, "\n\t\v\b\r\f\a", escapable);
    return table;
  }

  static constexpr CaseTable makeCases(std::string_view from, std::string_view to) {
    CaseTable table = {};
    for (unsigned c = 0; c < table.size(); ++c) {
      table[c] = static_cast<unsigned char>(c);
    }
    for (unsigned i = 0; i < from.size(); ++i) {
      table[static_cast<unsigned char>(from[i])] = static_cast<unsigned char>(to[i]);
    }
    return table;
  }

  static const TypeTable types;
  static const CaseTable lower;
  static const CaseTable upper;
};

inline constexpr ASCII::TypeTable ASCII::types = ASCII::makeTypes();
inline constexpr ASCII::CaseTable ASCII::lower = ASCII::makeCases(upperLetters, lowerLetters);
inline constexpr ASCII::CaseTable ASCII::upper = ASCII::makeCases(lowerLetters, upperLetters);

/// Whether `c` is a blank, a tab, a line feed or a carriage return.
[[nodiscard]] constexpr bool isWhiteSpace(char c) noexcept {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}
