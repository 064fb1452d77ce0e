#pragma once

#include <string>
#include <vector>

/// \file
/// The settings of a debugger whose host is a remote system, as its users know them.

struct ExpectedItem {
  std::string name;
  unsigned number;   ///< For lists the mask.
  bool sets = true;  ///< For lists.
};

/// No limit of a length.
inline constexpr unsigned any = 65535;

enum class Kind { string = 1, boolean = 2, number = 8, choice = 16, list = 32, path = 64 };

struct ExpectedSetting {
  std::string name;
  Kind kind;
  int control;
  int group;
  unsigned identifier;
  std::string defaultText;
  unsigned minimum = 0;
  unsigned maximum = 0;
  std::vector<ExpectedItem> items = {};
  bool acceptsAllAndNone = false;
};

/// In the order in which they are made.
extern const std::vector<ExpectedSetting> expectedSettings;

/// By identifier; there is one for each slot.
const ExpectedSetting& expectedSetting(unsigned identifier);
