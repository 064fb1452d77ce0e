#include "Engine/utilities/UNIX/UNIX_Installpath.h"

#include <string_view>

#include "Engine/internal/FixedLayout.h"
#include "Engine/internal/SystemPath.h"
#include "Engine/internal/Texts.h"
#include "Engine/utilities/FileName.h"
#include "Engine/utilities/PathSearch.h"

// The engine knows this layout: docs/contract.md.
CUL_FIXED_SIZE(UNIX_Installpath, 32);
CUL_FIXED_FIELD(UNIX_Installpath, installLocation_, 8);

namespace {

constexpr unsigned workingDirectoryRoom = 1024;

// Empty on failure.
EncodedString absolutePath(const EncodedString& executable) {
  const std::string_view text = executable.view();
  if (text.empty() || text.front() == '/') {
    return executable;
  }
  if (text.find('/') == std::string_view::npos) {
    return searchPath(executable);
  }
  const EncodedString current = workingDirectory(workingDirectoryRoom);
  return current.length() == 0 ? current : current + FileName::PathSepString() + executable;
}

// Up to the last "/", which does not belong to it. Without a "/" it is empty.
std::string_view folderOf(std::string_view path) {
  const size_t separator = path.rfind('/');
  return path.substr(0, separator == std::string_view::npos ? 0 : separator);
}

}  // namespace

UNIX_Installpath::UNIX_Installpath(const EncodedString& executable) {
  EncodedString location = executable;
  if (installLocation(location)) {
    installLocation_ = location;
  }
}

bool UNIX_Installpath::installLocation(EncodedString& executable) {
  FileName path(resolveSymbolicLink(absolutePath(executable)));
  path.rationalizePath();
  const std::string_view folder = folderOf(path.view());
  if (!folder.ends_with("/bin")) {
    return false;
  }
  executable = encodedText(folderOf(folder));
  return true;
}
