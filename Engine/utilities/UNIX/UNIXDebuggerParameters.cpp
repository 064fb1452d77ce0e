#include "Engine/utilities/UNIX/UNIXDebuggerParameters.h"

#include <cstring>
#include <string>
#include <string_view>

#include "Engine/internal/SystemPath.h"
#include "Engine/internal/Texts.h"
#include "Engine/utilities/CharString.h"
#include "Engine/utilities/PathSearch.h"

namespace {

// One more byte than the longest working directory that is used.
constexpr unsigned workingDirectoryRoom = 4098;

CharString fromNative(const char* argument) {
  CharString text;
  if (argument != nullptr) {
    text.loadFrom(argument, static_cast<unsigned>(std::strlen(argument)), EncodedString::native);
  }
  return text;
}

// The path without "/./", "//" and "/../", each "/../" taken together with the component before
// it; empty for a path that climbs above the root. What stands at the very start or end without
// its two separators stays. One walk gives what repeated cutting of the first occurrence would
// give: "/./" and "//" go first there, and never come into being by the cutting of a "/../".
std::string folded(std::string_view path) {
  std::string result;
  const bool absolute = path.starts_with('/');
  if (absolute) {
    result = "/";
    path.remove_prefix(1);
  }
  bool first = !absolute;
  for (size_t slash = path.find('/'); slash != std::string_view::npos; slash = path.find('/')) {
    const std::string_view component = path.substr(0, slash);
    path.remove_prefix(slash + 1);
    if (component == ".." && result == "/") {
      return {};
    }
    if (component == ".." && !result.empty()) {
      result.pop_back();
      result.erase(result.rfind('/') + 1);  // Without a "/", all of it.
    } else if (first || (!component.empty() && component != ".")) {
      result.append(component).append("/");
    }
    first = false;
  }
  return result.append(path);
}

}  // namespace

UNIXDebuggerParameters::UNIXDebuggerParameters(int argc, char** argv) {
  if (argc < 1 || argv == nullptr) {
    return;
  }
  setDebuggerName(EncodedString(argv[0], EncodedString::native));
  int i = 1;
  while (i < argc && !endOfDebuggerArguments_) {
    const CharString arg = unquote(fromNative(argv[i]));
    if (attach_ && !isDebuggerArg(arg)) {
      // It is as useless as all that follows, and becomes part of one invalid argument.
      endOfDebuggerArguments_ = true;
    } else {
      const CharString next = i + 1 < argc ? unquote(fromNative(argv[i + 1])) : CharString();
      i += static_cast<int>(addDebuggerArg(arg, next));
    }
  }
  argumentsUsed_ = i;
  // Gathered outside of the field, which would be copied for every argument.
  std::string gathered;
  for (int rest = i; rest < argc; ++rest) {
    if (rest != i) {
      gathered += ' ';
    }
    gathered += fromNative(argv[rest]).makeToken().encoded().view();
  }
  if (!attach_) {
    debuggeeArguments_ = encodedText(gathered);
  } else if (!gathered.empty()) {
    addInvalidArgument(encodedText(gathered));
  }
}

void UNIXDebuggerParameters::setDebuggerName(const EncodedString& name) {
  const std::string_view given = name.view();
  if (given.empty()) {
    return;
  }
  EncodedString path;
  if (given.starts_with('/')) {
    path = name;
  } else if (given.starts_with("./") || given.starts_with("../")) {
    path = resolveRelative(name);
  } else {
    path = searchPath(name);
  }
  path = resolveSymbolicLink(path);
  if (path.length() != 0) {  // What was not found is no name of the working directory.
    path = resolveRelative(path);
  }
  debuggerName_ = encodedText(folded(path.view()));
}

// NOLINTNEXTLINE(readability-convert-member-functions-to-static): called on the object.
EncodedString UNIXDebuggerParameters::resolveRelative(const EncodedString& path) {
  if (path.view().starts_with('/')) {
    return path;
  }
  const EncodedString current = workingDirectory(workingDirectoryRoom);
  if (current.length() == 0) {
    return path;
  }
  std::string absolute(current.view());
  if (absolute.ends_with('/')) {
    absolute.pop_back();
  }
  return encodedText(absolute.append("/").append(path.view()));
}
