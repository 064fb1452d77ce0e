#pragma once

#include <string>

#include "Engine/utilities/Descriptor.h"

/// \file
/// Waits until something happens to the files of some folders.

class FolderWatch {
 public:
  FolderWatch();

  /// Watches a folder from now on. One that cannot be watched is no failure: wait() ends every
  /// second anyway.
  void add(const std::string& folder);

  /// Waits until a file was written, made, renamed or removed, or a second has passed; then a
  /// moment for what else comes at once, so that whoever looks after each wait is not busy with it.
  /// \throws OutputFailed EPIPE as soon as nobody reads standard output any more.
  void wait();

 private:
  Descriptor events_;
};
