#pragma once

#include <string>

#include "tests/support/Child.h"
#include "tests/support/TemporaryFolder.h"

/// What a child case left behind, with everything it traced.
struct TracedChildResult {
  ChildResult child;
  std::string trace;
};

/// Runs the child case `name` with all tracing on, into a file of its own.
inline TracedChildResult runTracedChild(const std::string& name, ChildOptions options = {}) {
  const TemporaryFolder folder;
  const std::string file = folder.file("trace");
  options.environment["GDIA_ID"] = "root";
  options.environment["QVX_DBG_TRACE"] = file;
  TracedChildResult result;
  result.child = runChild(name, options);
  result.trace = contentsOf(file);
  return result;
}

/// How often `text` stands in `whole`.
inline unsigned occurrences(const std::string& whole, const std::string& text) {
  unsigned n = 0;
  for (size_t at = whole.find(text); at != std::string::npos; at = whole.find(text, at + 1)) {
    ++n;
  }
  return n;
}
