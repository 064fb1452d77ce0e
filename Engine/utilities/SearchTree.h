#pragma once

#include <dirent.h>
#include <memory>

#include "Engine/utilities/Export.h"
#include "Engine/utilities/FileName.h"
#include "Engine/utilities/List.h"

/// \file
/// Searches a folder and the folders below it for files, by the names of their last
/// components.
///
/// The order is always the same: first the files of a folder by the bytes of their names,
/// then its sub-folders by the bytes of their names, each with all that is below it. A hit
/// is any entry but a folder; a link counts as what it leads to, and one that leads nowhere
/// is no hit. Every folder is entered once in a search, under the first path that leads to
/// it, so links that form a loop do no harm. Folders that cannot be read are passed over.
///
/// A tree keeps the stream on its root open from construction to destruction, and a search
/// opens one more folder at a time. Not copyable; a search moves the stream, so one thread
/// at a time also for `const` operations.

class CUL_EXPORT SearchTree {
 public:
  /// What a wanted name's status entry says.
  enum Status : int {
    stillWanted = 0,  ///< To be found; the caller starts with this.
    alreadyFound = 1  ///< Found, by this search or by an earlier one.
  };

  /// A tree below `root`, which may end with "/". With an empty root, or one that cannot be
  /// opened, nothing will be found.
  explicit SearchTree(const FileName& root);

  /// The same with the options of `parent`, which is not needed any more afterwards.
  SearchTree(const FileName& root, const SearchTree& parent);

  SearchTree(const SearchTree&) = delete;
  SearchTree& operator=(const SearchTree&) = delete;
  ~SearchTree() = default;

  /// The folder that searches begin in, as it was given.
  [[nodiscard]] const FileName& root() const noexcept { return root_; }

  /// Whether links to folders are entered like folders. Off unless set. The root itself may
  /// always be a link.
  [[nodiscard]] bool followsLinks() const noexcept { return followLinks_; }
  /// Changes it for searches that begin later.
  void setFollowLinks(bool on) noexcept { followLinks_ = on; }

  /// Whether the folders below the root are searched too. On unless set.
  [[nodiscard]] bool descends() const noexcept { return descend_; }
  /// Changes it for searches that begin later.
  void setDescend(bool on) noexcept { descend_ = on; }

  /// Whether searchRecursiveComplete() ends with its first hit. Off unless set.
  [[nodiscard]] bool stopsAtFirstHit() const noexcept { return stopAtFirstHit_; }
  /// Changes it for searches that begin later.
  void setStopAtFirstHit(bool on) noexcept { stopAtFirstHit_ = on; }

  /// Looks for one file.
  /// \param wanted only its base() counts.
  /// \return the path of the first hit, which begins with the root; empty without a hit.
  [[nodiscard]] FileName search(const FileName& wanted) const;

  /// Looks for several files in one walk, which ends when all are found.
  /// \param wanted names of which only the base() counts.
  /// \param found  a new FileName is added for each hit, in the order of the walk; the caller
  ///               deletes them. Of files with the same name the first one is taken.
  /// \param status one entry per wanted name, see Status.
  /// \return whether no wanted name is left.
  bool searchRecursiveComplete(List<FileName*>& wanted, List<FileName*>& found, int* status) const;

  /// Compares the name of one entry of the root folder, byte by byte, with the base() of
  /// each wanted name that is still wanted. For every one that is equal, adds the entry's
  /// path to `found` and sets the status. The entry is not looked up.
  /// \return number of hits.
  unsigned compareMulti(const char* entry, List<FileName*>& wanted, List<FileName*>& found,
                        int* status) const;

 private:
  struct CloseStream {
    void operator()(DIR* stream) const noexcept { closedir(stream); }
  };
  struct Folder;
  class Visited;

  [[nodiscard]] Folder list() const;
  template <class Visitor>
  void walk(Visitor&& visitor) const;
  [[nodiscard]] EncodedString pathOf(const EncodedString& entry) const;

  std::unique_ptr<DIR, CloseStream> stream_;
  FileName root_;
  bool followLinks_ = false;
  bool descend_ = true;
  bool stopAtFirstHit_ = false;
};
