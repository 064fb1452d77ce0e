#pragma once

#include <string_view>

#include "Engine/utilities/EncodedString.h"
#include "Engine/utilities/Export.h"
#include "Engine/utilities/SearchList_HashTable.h"

/// \file
/// The keys and values of property files.
///
/// A property file is text, read line by line. A line ends at a line feed or at the end of
/// the file; no other character ends one, so that a carriage return is part of its line and a
/// zero byte is an ordinary byte. Everything from the first "#" on is a comment. Of the rest,
/// the text before the first "=" is the key and the text behind it the value, both without
/// white space (see isWhiteSpace()) at their ends:
/// \code
///   # a comment
///   host = localhost       # host is "localhost"
///   port=                  # port is empty
///   path=a=b               # path is "a=b"
///   path==b                # path is "b": further "=" right behind the first one are dropped
///   verbose                # verbose is empty
///   =lost                  # no key, no property
/// \endcode
/// Keys are case-sensitive, and a key that occurs again replaces its value, in the place that
/// the property has. There are no
/// quotes, escapes, continued lines or sections, and no line is an error. Keys and values that
/// are valid UTF-8 are taken as they are; any other is read in the native code page, up to its
/// first zero byte.
///
/// Not copyable. Not thread-safe, not even for reading alone: a look-up moves a cursor.

class FileName;

class CUL_EXPORT Properties {
 public:
  /// A property as the table holds it.
  struct CUL_EXPORT HashElement {
    /// Copies both.
    HashElement(const EncodedString& elementKey, const EncodedString& elementValue)
        : key(elementKey), value(elementValue) {}
    HashElement(const HashElement&) = default;
    HashElement& operator=(const HashElement&) = default;
    virtual ~HashElement();

    EncodedString key;    ///< Unique in a table; must not be changed there.
    EncodedString value;  ///< May be empty.
  };

  /// What holds the properties, by their keys: 257 buckets, elements in blocks of 500 from the
  /// free store, keys unique.
  using Table = SearchList_HashTable<HashElement, EncodedString>;
  /// A position among them.
  using TableCursor = Cursor_HashTable<HashElement, EncodedString>;

  /// The properties of a file, or none when `file` is null or cannot be read.
  explicit Properties(const FileName* file);
  Properties(const Properties&) = delete;
  Properties& operator=(const Properties&) = delete;
  ~Properties();

  /// Reads a file into the table, on top of what is there.
  /// \return false when the file was read, true when it could not be opened or read; `errno`
  ///         then tells why. A folder cannot be read. When reading fails half-way, the
  ///         properties of the lines before stay; otherwise the table is as it was.
  /// \throws std::bad_alloc when memory is out or a line without its comment has 4 GiB or more;
  ///         the properties of the lines before stay.
  bool set(const FileName& file);

  /// Adds a property or replaces its value; an empty key is ignored. A property that is there
  /// keeps its place among the others, one that is added becomes the first of its bucket.
  /// \throws std::bad_alloc with the properties unchanged.
  void setProperty(const EncodedString& key, const EncodedString& value);

  /// The value, or an empty text when there is no such key.
  [[nodiscard]] EncodedString getString(const EncodedString& key) const;

  /// The value as a decimal integer, see CharString::asValue(): one that is out of range wraps,
  /// so that "4294967297" is 1.
  /// \throws StdException "Invalid property format.", status -1, when the value is absent,
  ///         empty or not an integer.
  [[nodiscard]] int getInteger(const EncodedString& key) const;

  /// Whether there is such a key.
  [[nodiscard]] bool doesContain(const EncodedString& key) const;

  /// Number of properties.
  [[nodiscard]] unsigned int numItems() const noexcept { return table_.count(); }
  /// Whether there is no property.
  [[nodiscard]] bool isEmpty() const noexcept { return table_.isEmpty(); }

  /// A new cursor over the properties, which stands nowhere. Their order is the table's, not
  /// that of the file. Values may be changed through it, keys not. It stays where it is when
  /// properties are looked up, added or replaced: a property that is added on the way comes by
  /// when its bucket lies ahead, one in the cursor's own bucket or behind does not.
  [[nodiscard]] TableCursor cursor() noexcept { return TableCursor(table_); }

 private:
  void setLine(std::string_view line);

  mutable Table table_;  // Finding moves its cursor.
};

extern template class SearchList<Properties::HashElement, EncodedString>;
extern template class SearchList_HashTable<Properties::HashElement, EncodedString>;
extern template class Cursor<Properties::HashElement, EncodedString>;
extern template class Cursor_HashTable<Properties::HashElement, EncodedString>;
