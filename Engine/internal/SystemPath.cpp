#include "Engine/internal/SystemPath.h"

#include <algorithm>
#include <unistd.h>

#include "Engine/utilities/ByteString.h"

namespace {

constexpr unsigned greatestRoom = 4098;

}  // namespace

std::string systemPath(const EncodedString& path) {
  if (path.isNLS()) {
    const ByteString bytes = path.convert(EncodedString::native);
    if (EncodedString(bytes, EncodedString::native) == path) {
      return std::string(bytes.view());
    }
  }
  return std::string(path.view());
}

EncodedString pathFromSystem(const char* path) {
  EncodedString raw(path, EncodedString::utf8);
  if (raw.isNLS()) {
    EncodedString text(path, EncodedString::native);
    if (systemPath(text) == raw.view()) {
      return text;
    }
  }
  return raw;
}

EncodedString workingDirectory(unsigned room) {
  char buffer[greatestRoom];
  return getcwd(buffer, std::min(room, greatestRoom)) == nullptr ? EncodedString()
                                                                 : pathFromSystem(buffer);
}

std::string_view nextPathEntry(std::string_view& list) {
  list.remove_prefix(std::min(list.find_first_not_of(':'), list.size()));
  const std::string_view entry = list.substr(0, list.find(':'));
  list.remove_prefix(entry.size());
  return entry;
}
