// The configuration of the trace: any text, given as argument or by the environment,
// against a plain reading of it; and a line that comes out as it was written.

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <set>
#include <sstream>
#include <system_error>
#include <unistd.h>
#include <utility>
#include <vector>

#include "Engine/utilities/TraceImplementation.h"

#include "fuzz/Fuzz.h"

namespace {

// The known types; their order does not matter here.
const std::vector<const char*> knownTypes = [] {
  struct Row {
    const char* name;
    int place;
  };
#define ROW_OF_TYPE(enumerator, tag, place) {tag, place},
#define ROW_OF_WISH(name, place) {name, place},
  constexpr Row rows[] = {CUL_TRACE_TYPES(ROW_OF_TYPE, ROW_OF_WISH)};
#undef ROW_OF_TYPE
#undef ROW_OF_WISH
  std::vector<const char*> names;
  for (const Row& row : rows) {
    if (row.place != 0) {
      names.push_back(row.name);
    }
  }
  return names;
}();

using Names = std::set<std::string>;

std::string stripped(const std::string& text) {
  const size_t first = text.find_first_not_of(' ');
  return first == std::string::npos ? std::string()
                                    : text.substr(first, text.find_last_not_of(' ') - first + 1);
}

// What a configuration says.
struct Reading {
  std::string output;
  unsigned size = 16;
  Names included;
  Names excluded;

  explicit Reading(const std::string& text) {
    size_t at = 0;
    if (text.starts_with(',')) {
      output = "stderr";
    } else {
      at = std::min(text.find(','), text.size());
      output = stripped(text.substr(0, at));
    }
    while (at < text.size()) {
      const size_t end = std::min(text.find(',', at), text.size());
      if (end != at) {
        take(stripped(text.substr(at, end - at)));
      }
      at = end + 1;
    }
    complete();
  }

  [[nodiscard]] bool isOn(const std::string& type) const {
    return !output.empty() && (included.contains(type) || !excluded.contains(type));
  }

 private:
  void take(std::string token) {
    for (char& c : token) {
      c = c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
    }
    unsigned long number = 0;
    char behind = 0;
    if (token.starts_with('~') || token.starts_with('!')) {
      excluded.insert(token.substr(1));
      included.erase(token.substr(1));
    } else if (std::sscanf(token.c_str(), "%lu%c", &number, &behind) == 1) {
      size = number >= 2 && number <= 511 ? static_cast<unsigned>(number) : size;
    } else {
      included.insert(token);
      excluded.erase(token);
    }
  }

  void exclude(const std::string& type) {
    if (!included.contains(type)) {
      excluded.insert(type);
    }
  }

  void complete() {
    if (included.empty() || included.contains("ALL")) {
      const bool isAll = !included.empty();
      if (isAll) {
        exclude("ISD");
      }
      if (isAll || !excluded.empty()) {
        exclude("TLS");
      }
      exclude("CHILD");
      for (const char* const type : knownTypes) {
        if (!excluded.contains(type)) {
          included.insert(type);
        }
      }
    } else {
      for (const char* const type : knownTypes) {
        exclude(type);
      }
    }
    for (const char* const type : {"ERROR", "WARNING"}) {
      excluded.erase(type);
      if (!included.empty()) {
        included.insert(type);
      }
    }
  }
};

bool beginsWithRole(const std::string& id) {
  std::string lower = id;
  std::transform(lower.begin(), lower.end(), lower.begin(), [](char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c + ('a' - 'A')) : c;
  });
  return lower.starts_with("root") || lower.starts_with("middle") || lower.starts_with("leaf");
}

std::string contentsOf(const std::string& file) {
  std::ifstream stream(file);
  std::ostringstream text;
  text << stream.rdbuf();
  return text.str();
}

// What takes the place of the standard streams while the trace runs.
FILE* substitute = nullptr;

std::string substituteContents() {
  std::string text(static_cast<size_t>(std::ftell(substitute)), '\0');
  FUZZ_CHECK(pread(fileno(substitute), text.data(), text.size(), 0) ==
             static_cast<ssize_t>(text.size()));
  return text;
}

void emptySubstitute() {
  std::rewind(substitute);
  FUZZ_CHECK(ftruncate(fileno(substitute), 0) == 0);
}

bool exists(const std::string& path, std::filesystem::file_type type) {
  std::error_code ignored;
  return std::filesystem::status(path, ignored).type() == type;
}

// The file that an output name opens; nothing when it is a standard stream.
std::string fileOf(const std::string& output, const std::optional<std::string>& id) {
  if (!exists(output, std::filesystem::file_type::directory)) {
    return output;
  }
  const bool isComplete = output.ends_with('/') || output.ends_with('\\');
  return output + (isComplete ? "" : "/") + (id ? *id + '.' : "") + std::to_string(getpid()) +
         ".trc";
}

void checkLists(TraceImplementation& trace, const Reading& expected) {
  Names names = expected.included;
  names.insert(expected.excluded.begin(), expected.excluded.end());
  names.insert(knownTypes.begin(), knownTypes.end());
  names.insert({"TLS", "MFI", "CLIP", "ALL", "no such type"});
  for (const std::string& name : names) {
    const ByteString bytes(name.data(), static_cast<unsigned>(name.size()));
    FUZZ_CHECK(trace.isIncluded(bytes) == expected.included.contains(name));
    FUZZ_CHECK(trace.isExcluded(bytes) == expected.excluded.contains(name));
    if (name.find('\0') == std::string::npos) {
      FUZZ_CHECK(trace.isTraceBitSet(name.c_str()) == expected.isOn(name));
    }
  }
  FUZZ_CHECK(trace.isTraceBitSet(nullptr) == !expected.output.empty());
}

void checkFlags(const TraceImplementation& trace, const Reading& expected) {
  for (unsigned type = 0; type < TraceFlags::size; ++type) {
    const auto kind = static_cast<TraceType>(type);
    const bool isOn = kind == TraceType::active ? trace.isActive() : expected.isOn(traceTag(kind));
    FUZZ_CHECK(trace.flags.bytes[type] == (isOn ? 1 : 0));
    FUZZ_CHECK(isTraced(kind) == isOn);
  }
}

void checkHeader(const std::string& text, const Reading& expected) {
  FUZZ_CHECK(text.find("Trace start at ") != std::string::npos);
  FUZZ_CHECK(text.find("Trace size: " + std::to_string(expected.size) + "Mb\n") !=
             std::string::npos);
  const size_t middle = text.find("Excluded Trace types:");
  FUZZ_CHECK(middle != std::string::npos);
  for (const char* const type : knownTypes) {
    const size_t at = text.find("  " + std::string(type) + '\n');
    FUZZ_CHECK(at != std::string::npos);
    FUZZ_CHECK((at < middle) == expected.isOn(type));
  }
  FUZZ_CHECK(text.ends_with(std::string(72, '=') + '\n'));
}

// The end of the line that was traced last.
std::string lineOf(const std::string& function, const char* tag, const std::string& message) {
  const size_t parenthesis = function.find('(');
  return (tag == nullptr ? "" : "**" + std::string(tag) + ": ") +
         (parenthesis == 0 ? function : function.substr(0, parenthesis)) + "(12): " + message +
         '\n';
}

template <class Contents>
void checkOutput(TraceImplementation& trace, const Reading& expected, const std::string& message,
                 const Contents& contents) {
  const std::string header = contents();
  checkHeader(header, expected);
  const std::string text = upToZero(message);
  trace.taggedTrace(text.c_str(), 12, "CUL", "%s", text.c_str());
  const std::string whole = contents();
  FUZZ_CHECK(whole.starts_with(header));
  FUZZ_CHECK(whole.ends_with(")" + lineOf(text, "CUL", text)));
  FUZZ_CHECK(trace.pause(true));
  trace.taggedTrace("f", 12, nullptr, "paused");
  FUZZ_CHECK(contents() == whole);
  FUZZ_CHECK(!trace.pause(false));
  FUZZ_CHECK(trace.setRewindPoint() == whole.size() + 73);
}

std::string hostName() {
  std::array<char, 256> host = {};
  FUZZ_CHECK(gethostname(host.data(), host.size()) == 0);
  return host.data();
}

// Whether a list of hosts names this one; an empty list means all.
bool isSelected(const std::string& hosts) {
  const std::string list = stripped(hosts);
  const std::string name = hostName();
  for (size_t at = 0; at < list.size();) {
    const size_t end = std::min(list.find(':', at), list.size());
    const std::string one = list.substr(at, end - at);
    if (!one.empty() && (one == name || one == name.substr(0, name.find('.')))) {
      return true;
    }
    at = end + 1;
  }
  return list.empty();
}

// The output name without what would lead out of the folder that is written to.
template <class Char>
void contain(Char* text, size_t length) {
  for (size_t at = 0; at < length && text[at] != ','; ++at) {
    text[at] = text[at] == '/' || text[at] == '.' ? '-' : text[at];
  }
}

}  // namespace

void setUpFuzzing() {
  setenv("TZ", "UTC0", 1);
  FUZZ_CHECK(chdir(fuzzFolder().c_str()) == 0);
  std::filesystem::create_directory("folder");
  const std::string file = fuzzFolder() + "/substitute";
  substitute = std::fopen(file.c_str(), "w+e");
  FUZZ_CHECK(substitute != nullptr);
  std::remove(file.c_str());
  // From now on nothing makes a trace unasked.
  delete TraceImplementation::instance(L"");
}

void fuzz(FuzzInput& input) {
  constexpr std::array ids = {"root", "LeafLess", "middle.7", "roo", "\x12oot"};
  constexpr std::array outputs = {"out", "folder", "folder/", "stdout", "stderr", "no/such", ""};
  const unsigned idChoice = input.choice(ids.size() + 1);
  const unsigned outputChoice = input.choice(outputs.size() + 2);
  const unsigned source = input.choice(5);
  const unsigned hostChoice = input.choice(3);
  const std::string message = input.text();
  std::string text = input.rest();
  const bool isFixed = outputChoice < outputs.size();
  if (isFixed) {
    text = outputs[outputChoice] + (',' + text);
  } else {
    contain(text.data(), text.size());
  }

  std::optional<std::string> id;
  std::optional<FuzzVariable> idVariable;
  if (idChoice != 0) {
    id = ids[idChoice - 1];
    idVariable.emplace("GDIA_ID", *id);
  }
  CharString wide = wideText(text);
  if (!isFixed) {
    contain(static_cast<wchar_t*>(wide),
            wide.length());  // Again, as "/" and "." can be written in several ways.
  }
  std::optional<FuzzVariable> variable;
  if (source != 0) {
    constexpr std::array names = {"QVX_DBG_TRACE", "WZ4_DBG_TRACE", "QVX_DBG_TRACE_ROOT",
                                  "QVX_DBG_TRACE_LEAF"};
    variable.emplace(names[source - 1], text);
    wide.loadFrom(text.c_str(), static_cast<unsigned>(upToZero(text).size()),
                  EncodedString::native);
    if (source >= 3 && id != (source == 3 ? "root" : "LeafLess")) {
      wide.clear();
    }
  }
  std::optional<FuzzVariable> hostVariable;
  std::string hosts;
  if (hostChoice != 0) {
    hosts = upToZero(message) + (hostChoice == 1 ? "" : ':' + hostName());
    hostVariable.emplace("QVX_DBG_TRACEHOST", hosts);
  }
  const wchar_t* const argument = wide;
  CharString configuration(argument);
  configuration.stripLeading(L' ');
  configuration.stripTrailing(L' ');
  const Reading expected(bytesOf(configuration));

  FILE* const standardOutput = std::exchange(stdout, substitute);
  FILE* const standardError = std::exchange(stderr, substitute);
  emptySubstitute();
  std::string file;
  if (expected.output != "stdout" && expected.output != "stderr" && !expected.output.empty()) {
    file = bytesOf(utf8Text(expected.output).convert(EncodedString::native));
    const std::string name = stripped(upToZero(text).substr(0, text.find(',')));
    const EncodedString read(name.data(), static_cast<unsigned>(name.size()),
                             EncodedString::native);
    if (source != 0 && bytesOf(read.convert(EncodedString::native)) != name) {
      file = name;  // as it stands in the variable
    }
    file = fileOf(file, id);
  }
  TraceImplementation* const trace =
      TraceImplementation::instance(source == 0 ? argument : nullptr);
  const bool isRead = isSelected(hosts);
  if (isRead) {
    checkLists(*trace, expected);
    checkFlags(*trace, expected);
  }
  const bool mayOpen = isRead && !expected.output.empty() &&
                       (expected.isOn("PMD") || beginsWithRole(id.value_or("")));
  FUZZ_CHECK(mayOpen || !trace->isActive());
  FUZZ_CHECK(isRead || !trace->isTraceBitSet(nullptr));
  if (trace->isActive() && file.empty()) {
    checkOutput(*trace, expected, message, substituteContents);
  } else if (trace->isActive()) {
    checkOutput(*trace, expected, message, [&file] { return contentsOf(file); });
  } else {
    FUZZ_CHECK(!mayOpen || !exists(file, std::filesystem::file_type::regular));
  }
  delete trace;
  stdout = standardOutput;
  stderr = standardError;
  if (!file.empty()) {
    std::remove(file.c_str());
  }
}
