#pragma once

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstddef>
#include <filesystem>
#include <map>
#include <string>
#include <sys/types.h>
#include <sys/wait.h>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/Child.h"

/// \file
/// Runs children that trace and takes the output of the trace apart.
///
/// Child cases for all: `TraceNothing` only builds the trace, `TraceOneLine` traces a line of
/// ERROR, `TraceTypesNamedByArguments` hands its arguments to traceEach().

using Environment = std::map<std::string, std::string>;
using Strings = std::vector<std::string>;

inline constexpr unsigned megabyte = 1048576;

/// A child with these variables set.
inline ChildOptions childWith(const Environment& environment, const Strings& arguments = {}) {
  ChildOptions options;
  options.environment = environment;
  options.arguments = arguments;
  return options;
}

/// Runs a child case that has to end with status 0.
inline ChildResult runWith(const std::string& name, const Environment& environment,
                           const Strings& arguments = {}) {
  ChildResult r = runChild(name, childWith(environment, arguments));
  EXPECT_EQ(r.status, 0) << r.out.substr(0, 5000) << r.err.substr(0, 5000);
  return r;
}

/// Waits for a child of the present process.
/// \return its exit status, or 128 + the signal that killed it.
inline int statusOf(pid_t child) {
  int status = 0;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

/// The names in a folder, in their order.
inline Strings filesIn(const std::string& folder) {
  Strings names;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    names.push_back(entry.path().filename().string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

/// In a child: one line of each type's own, written when its switch is on.
void traceEach(const Strings& types);

/// Expects that a child does not trace, whatever it calls.
void expectOff(const Environment& environment);

/// Expects that a child traces to its standard error.
void expectOn(const Environment& environment);

/// The 72 "=" between header and ring.
inline const std::string separator(72, '=');

/// The lines of a text, without their newlines.
inline Strings linesOf(const std::string& text) {
  Strings lines;
  std::size_t start = 0;
  while (start < text.size()) {
    const std::size_t end = std::min(text.find('\n', start), text.size());
    lines.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  return lines;
}

/// Length of the time stamp and thread name at the start of a line.
inline constexpr std::size_t stampLength = 26;

/// Whether a line starts with them, as in "12:34:56.000789 (main    )".
inline bool hasStamp(const std::string& line) {
  const std::string form = "00:00:00.000000 (********)";
  if (line.size() < stampLength) {
    return false;
  }
  for (std::size_t i = 0; i < stampLength; ++i) {
    const bool isDigit = std::isdigit(static_cast<unsigned char>(line[i])) != 0;
    if (form[i] == '0' ? !isDigit : form[i] != '*' && form[i] != line[i]) {
      return false;
    }
  }
  return true;
}

/// What follows time stamp and thread name; the whole line when it has none.
inline std::string withoutStamp(const std::string& line) {
  return hasStamp(line) ? line.substr(stampLength) : line;
}

/// The lines behind the first separator, without time stamp and thread name.
inline Strings bodyOf(const std::string& output) {
  Strings body;
  bool inBody = false;
  for (const std::string& line : linesOf(output)) {
    if (inBody) {
      body.push_back(withoutStamp(line));
    }
    inBody = inBody || line == separator;
  }
  return body;
}

/// What the header says.
struct Header {
  Strings included;
  Strings excluded;
  std::string size;
};

inline Header headerOf(const std::string& output) {
  const std::string own = "void TraceImplementation::traceInternal(718): ";
  Header header;
  Strings* types = nullptr;
  for (const std::string& line : linesOf(output)) {
    if (line == separator) {
      break;
    }
    std::string text = withoutStamp(line);
    if (!text.starts_with(own)) {
      continue;
    }
    text = text.substr(own.size());
    if (text == "Included Trace types:") {
      types = &header.included;
    } else if (text == "Excluded Trace types:") {
      types = &header.excluded;
    } else if (text.starts_with("Trace size: ")) {
      header.size = text.substr(12);
    } else if (text.starts_with("  ") && types != nullptr) {
      types->push_back(text.substr(2));
    }
  }
  return header;
}

/// The names in the table of known types, in their order. A new one is added here by hand.
inline const Strings knownTypes = {"AGENT", "AGTT", "CHILD", "CLI",   "CONNECTION", "CUL",
                                   "DBX",   "DSL",  "LCC",   "ENTRY", "DXPL",       "EXCPTN",
                                   "EXPR",  "WZ4",  "GDE",   "GDET",  "GMH",        "GMHT",
                                   "GMHS",  "ISD",  "PMD",   "RDR",   "ERROR",      "WARNING"};

/// The known names without some.
inline Strings knownTypesBut(const Strings& some) {
  Strings result;
  for (const std::string& type : knownTypes) {
    if (std::find(some.begin(), some.end(), type) == some.end()) {
      result.push_back(type);
    }
  }
  return result;
}
