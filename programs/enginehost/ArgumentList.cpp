#include "ArgumentList.h"

#include <algorithm>
#include <string_view>

#include "Engine/utilities/ProcessTable.h"

#include "programs/common/Printable.h"

namespace {

constexpr std::string_view cutMark = "...";

// The kernel gives each argument with its zero byte. A program that has written over its own
// arguments may leave the last one without.
std::vector<std::string> split(std::string_view bytes) {
  std::vector<std::string> result;
  while (!bytes.empty()) {
    const std::size_t end = std::min(bytes.find('\0'), bytes.size());
    result.emplace_back(bytes.substr(0, end));
    bytes.remove_prefix(std::min(end + 1, bytes.size()));
  }
  return result;
}

std::string shown(const std::string& argument) {
  std::string escaped;
  for (const char c : argument) {
    escaped.append(c == '"' || c == '\\' ? 1 : 0, '\\').push_back(c);
  }
  const std::string text = printable(escaped);
  const bool isPlain =
      text == argument && !text.empty() && text != cutMark && text.find(' ') == std::string::npos;
  return isPlain ? text : '"' + text + '"';
}

}  // namespace

std::optional<ArgumentList> argumentsOf(pid_t process) {
  // The last byte that is not `unused` any more is the zero byte behind the list.
  constexpr char unused = 1;
  std::string buffer(argumentsSize, unused);
  procentry64 entry = {process};
  if (getargs(&entry, sizeof entry, buffer.data(), argumentsSize) != 0) {
    return std::nullopt;
  }
  const std::size_t stored = buffer.find_last_not_of(unused);
  return ArgumentList{split(std::string_view(buffer).substr(0, stored)),
                      stored == buffer.size() - 1};
}

std::string shown(const ArgumentList& list) {
  std::string result;
  for (const std::string& argument : list.arguments) {
    result.append(result.empty() ? "" : " ").append(shown(argument));
  }
  if (list.isCut) {
    result.append(result.empty() ? "" : " ").append(cutMark);
  }
  return result;
}
