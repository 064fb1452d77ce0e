#pragma once

#include <string>
#include <vector>

/// \file
/// A folder whose entries this test program plays, in an order of its own.

/// Until the end of the scope, `opendir` of exactly this path gives a folder that seems to
/// hold these names in this order, for the library under test too. One at a time, and used by
/// one thread. The folder has to exist.
class PlayedFolder {
 public:
  PlayedFolder(std::string path, std::vector<std::string> names);
  PlayedFolder(const PlayedFolder&) = delete;
  PlayedFolder& operator=(const PlayedFolder&) = delete;
  ~PlayedFolder();

  /// How often it was opened.
  [[nodiscard]] unsigned opened() const;
  /// How often it was closed.
  [[nodiscard]] unsigned closed() const;
  /// Whether it was last opened so that no started program inherits it.
  [[nodiscard]] bool isClosedOnExec() const;
};
