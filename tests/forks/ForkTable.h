#pragma once

#include <span>
#include <string>

/// \file
/// What children that are forked off a busy process can do, as a table: in the rows what
/// three threads of the parent do all the time, in the columns what a child does.
///
/// The process that runs it is prepared by prepareForTable() before it uses the library.

/// Something to do with a family of the library.
struct Deed {
  const char* name;
  /// Does it and looks at what comes out.
  bool (*isDone)();
};

/// The rows. Some are no deeds of the library: a program's own calls of the C library.
std::span<const Deed> parentDeeds();

/// The columns.
std::span<const Deed> childDeeds();

/// Whether the library promises that the child's deed can be done. It does not where the program
/// itself calls localtime() on another thread: that holds the C library's own lock, which a child
/// can only wait for.
bool isPromised(const Deed& parent, const Deed& child);

/// What became of the children of one pairing.
struct Outcome {
  unsigned forks = 0;
  unsigned hung = 0;    ///< Killed after a long time.
  unsigned failed = 0;  ///< Did not get what they should, or crashed.

  bool isGood() const { return forks != 0 && hung == 0 && failed == 0; }
};

/// Sets the environment of the process: a trace into `folder`, a native code page.
void prepareForTable(const std::string& folder);

/// Has three threads do the parent's deed, and `forks` children the child's.
/// \return the outcome; the children are all gone. `failed` counts the parent's own failures
///   as well.
Outcome runPairing(const Deed& parent, const Deed& child, unsigned forks);
