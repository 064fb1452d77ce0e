#pragma once

#include "Engine/utilities/EncodedString.h"
#include "Engine/utilities/Export.h"
#include "Engine/utilities/OwningList.h"

/// \file
/// The debugger's own arguments as pairs of an option name and its value.
///
/// Pairs are kept in the order in which they were given, also several of one name; a lookup
/// by name finds the last of them, as the option given last counts. Positions are 1-based,
/// and 0 means "not found". Names are compared whole and with their case. The list owns its
/// texts. One object is used by one thread at a time, or read by several.

class CUL_EXPORT DebuggerArgList {
 public:
  DebuggerArgList() = default;
  DebuggerArgList(const DebuggerArgList& other);
  DebuggerArgList& operator=(const DebuggerArgList& other);
  ~DebuggerArgList();

  /// Appends a pair.
  void addArg(const EncodedString& name, const EncodedString& value);

  /// Removes every pair of that name.
  /// \return whether there was one.
  bool removeArg(const EncodedString& name);

  /// The position of the last pair of that name, 0 if there is none.
  [[nodiscard]] unsigned int indexByName(const EncodedString& name) const;

  /// The value of the last pair of that name; empty if there is none.
  [[nodiscard]] EncodedString valueByName(const EncodedString& name) const;

  /// Removes all pairs.
  void deleteAll();

  /// Pairs in the list.
  [[nodiscard]] unsigned int count() const noexcept { return pairs_.count(); }
  /// Whether there is no pair.
  [[nodiscard]] bool isEmpty() const noexcept { return count() == 0; }

  /// \name Pairs
  /// A part of the pair at a position from 1 to count(), valid until the pair is removed.
  /// @{
  [[nodiscard]] const EncodedString& name(unsigned int position) const {
    return pairs_[position - 1].name;
  }
  [[nodiscard]] const EncodedString& value(unsigned int position) const {
    return pairs_[position - 1].value;
  }
  /// @}

 private:
  struct Pair {
    EncodedString name;
    EncodedString value;
  };

  OwningList<Pair> pairs_;
};
