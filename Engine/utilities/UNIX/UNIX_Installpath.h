#pragma once

#include "Engine/utilities/Export.h"
#include "Engine/utilities/InstallPath.h"

/// \file
/// From the path of an executable to the place where its product is installed. How this
/// process finds its own executable is up to a derived class.

class CUL_EXPORT UNIX_Installpath : public InstallPath {
 public:
  [[nodiscard]] const EncodedString& path() const override { return installLocation_; }

  /// Turns the path of an executable into the install location: "/opt/prod" for
  /// "/opt/prod/bin/engine". A path with a "/" that does not begin with one starts from the
  /// working directory, a bare name is searched for along "PATH", see searchPath(). What is
  /// found by a relative entry there that does not begin with "." stays relative, and the
  /// install location with it: "prod" for the entry "prod/bin", and none for the entry "bin",
  /// which has no "/" in front. Symbolic links of the last
  /// component are followed, at most ten; a longer chain ends the process, see
  /// resolveSymbolicLink(). Otherwise the file need not exist. Nothing is folded.
  /// \param executable in UTF-8. Replaced by the install location, which is empty for an
  ///   executable in "/bin"; left alone on failure.
  /// \return whether the executable lies in a folder named "bin".
  [[nodiscard]] static bool installLocation(EncodedString& executable);

 protected:
  UNIX_Installpath() = default;

  /// Takes the install location from the path of the executable; stays empty on failure.
  explicit UNIX_Installpath(const EncodedString& executable);

 private:
  EncodedString installLocation_;
};
