#pragma once

#include <memory>
#include <vector>

#include "Engine/utilities/EBCDICtable.h"
#include "Engine/utilities/Export.h"
#include "Engine/utilities/List.h"

/// \file
/// The EBCDIC code pages of the process, by name; the built-in table "VKT-1047" is always
/// the first and never replaced or removed.
///
/// The store owns its tables. A table lives until remove() of its name, or add() of another
/// one under its name, deletes it: a pointer to it that a caller still holds is then invalid.
/// The built-in table lives as long as the process.
///
/// There is no lock: tables are registered while the process starts and has one thread;
/// afterwards any thread may find them. Nothing throws, but for a failed allocation, which
/// leaves the store as it was.

template <class T>
class ProcessWide;

/// Names are zero-terminated and compared byte for byte.
class CUL_EXPORT EBCDICtableStore {
 public:
  /// The process's store; made by the first call, which belongs on the main thread before a
  /// second thread exists, and never destroyed.
  static EBCDICtableStore& instance();

  EBCDICtableStore(const EBCDICtableStore&) = delete;
  EBCDICtableStore& operator=(const EBCDICtableStore&) = delete;

  /// Makes a table of the pairs and keeps it under `name`, in place of one that had this name.
  /// \return the table; the built-in one, untouched, when that is its name; null for a null or
  ///         empty name.
  EBCDICtable* add(const List<EBCDICtable::ValuePair>& pairs, const char* name);

  /// \return the table of that name, null when there is none; the built-in one for a null or
  ///         empty name.
  [[nodiscard]] EBCDICtable* find(const char* name) const;

  /// Deletes the table of that name, if there is one and it is not the built-in one. A null or
  /// empty name is no table's.
  void remove(const char* name);

 private:
  EBCDICtableStore();
  ~EBCDICtableStore() = default;
  template <class T>
  friend class ProcessWide;

  [[nodiscard]] std::size_t indexOf(const char* name) const;

  std::vector<std::unique_ptr<EBCDICtable>> tables_;
};
