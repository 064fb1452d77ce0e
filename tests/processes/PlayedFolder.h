#pragma once

#include <string>
#include <vector>

/// \file
/// A folder whose entries this test program plays, in an order of its own.

/// Until the end of the scope, `opendir` of exactly this path gives a folder that seems to
/// hold these names in this order, for the library under test too. One at a time, and used by
/// one thread. The folder has to exist.
///
/// A number stands at a position of its own, whatever there is before, and other names at 0: so
/// the kernel makes the folder of the processes. It is that, or seems to be of some other file
/// system.
class PlayedFolder {
 public:
  /// Of another file system.
  PlayedFolder(std::string path, std::vector<std::string> names);

  /// The kernel's. The names must be in the order of their positions.
  /// \param before what is added to a number to give its position.
  /// \param most   how many entries are read at once, at most.
  PlayedFolder(std::string path, std::vector<std::string> names, long before, unsigned most = 100);
  PlayedFolder(const PlayedFolder&) = delete;
  PlayedFolder& operator=(const PlayedFolder&) = delete;
  ~PlayedFolder();

  /// How often it was opened.
  [[nodiscard]] unsigned opened() const;
  /// How often it was closed.
  [[nodiscard]] unsigned closed() const;
  /// How many entries were read, and made for that.
  [[nodiscard]] unsigned read() const;
  /// Whether it was last opened so that no started program inherits it.
  [[nodiscard]] bool isClosedOnExec() const;
};
