#pragma once

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <map>
#include <string>
#include <vector>

#include "tests/support/Child.h"

/// \file
/// Runs children that trace and takes the output of the trace apart.

/// A child with these variables set.
inline ChildOptions childWith(const std::map<std::string, std::string>& environment,
                              const std::vector<std::string>& arguments = {}) {
  ChildOptions options;
  options.environment = environment;
  options.arguments = arguments;
  return options;
}

/// The 72 "=" between header and ring.
inline const std::string separator(72, '=');

/// The lines of a text, without their newlines.
inline std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines;
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
inline std::vector<std::string> bodyOf(const std::string& output) {
  std::vector<std::string> body;
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
  std::vector<std::string> included;
  std::vector<std::string> excluded;
  std::string size;
};

inline Header headerOf(const std::string& output) {
  const std::string own = "void TraceImplementation::traceInternal(718): ";
  Header header;
  std::vector<std::string>* types = nullptr;
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
inline const std::vector<std::string> knownTypes = {
    "AGENT", "AGTT",  "CHILD", "CLI",    "CONNECTION", "CUL", "DBX",   "DSL",
    "LCC",   "ENTRY", "DXPL",  "EXCPTN", "EXPR",       "WZ4", "GDE",   "GDET",
    "GMH",   "GMHT",  "GMHS",  "ISD",    "PMD",        "RDR", "ERROR", "WARNING"};

/// The known names without some.
inline std::vector<std::string> knownTypesBut(const std::vector<std::string>& some) {
  std::vector<std::string> result;
  for (const std::string& type : knownTypes) {
    if (std::find(some.begin(), some.end(), type) == some.end()) {
      result.push_back(type);
    }
  }
  return result;
}
