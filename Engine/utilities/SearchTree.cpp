#include "Engine/utilities/SearchTree.h"

#include <algorithm>
#include <fcntl.h>
#include <set>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <utility>
#include <vector>

#include "Engine/internal/SystemPath.h"
#include "Engine/internal/Texts.h"
#include "Engine/utilities/OwningList.h"

namespace {

enum class EntryKind : unsigned char { file, folder, linkToFolder, neither };

EntryKind kindOf(DIR* stream, const dirent& entry) {
  switch (entry.d_type) {
    case DT_DIR:
      return EntryKind::folder;
    case DT_LNK:
    case DT_UNKNOWN:
      break;
    default:
      return EntryKind::file;
  }
  struct stat status = {};
  if (fstatat(dirfd(stream), entry.d_name, &status, 0) != 0) {
    return EntryKind::neither;
  }
  if (!S_ISDIR(status.st_mode)) {
    return EntryKind::file;
  }
  const bool isLink = fstatat(dirfd(stream), entry.d_name, &status, AT_SYMLINK_NOFOLLOW) == 0 &&
                      S_ISLNK(status.st_mode);
  return isLink ? EntryKind::linkToFolder : EntryKind::folder;
}

bool isDotOrDotDot(std::string_view name) { return name == "." || name == ".."; }

}  // namespace

// The names of one folder's entries as the system knows them, sorted by their bytes.
struct SearchTree::Folder {
  std::vector<std::string> files;
  std::vector<std::string> folders;
};

// The folders that a search has entered.
class SearchTree::Visited {
 public:
  // Whether the folder behind `stream` is a new one.
  bool enter(DIR* stream) {
    struct stat status = {};
    return fstat(dirfd(stream), &status) == 0 &&
           folders_.emplace(status.st_dev, status.st_ino).second;
  }

 private:
  std::set<std::pair<dev_t, ino_t>> folders_;
};

SearchTree::SearchTree(const FileName& root)
    : stream_(root.length() == 0 ? nullptr : opendir(systemPath(root).c_str())), root_(root) {}

SearchTree::SearchTree(const FileName& root, const SearchTree& parent) : SearchTree(root) {
  followLinks_ = parent.followLinks_;
  descend_ = parent.descend_;
  stopAtFirstHit_ = parent.stopAtFirstHit_;
}

SearchTree::Folder SearchTree::list() const {
  Folder result;
  rewinddir(stream_.get());
  while (const dirent* entry = readdir(stream_.get())) {
    if (isDotOrDotDot(entry->d_name)) {
      continue;
    }
    switch (kindOf(stream_.get(), *entry)) {
      case EntryKind::file:
        result.files.emplace_back(entry->d_name);
        break;
      case EntryKind::folder:
        result.folders.emplace_back(entry->d_name);
        break;
      case EntryKind::linkToFolder:
        if (followLinks_) {
          result.folders.emplace_back(entry->d_name);
        }
        break;
      case EntryKind::neither:
        break;
    }
  }
  std::sort(result.files.begin(), result.files.end());
  std::sort(result.folders.begin(), result.folders.end());
  return result;
}

EncodedString SearchTree::pathOf(const EncodedString& entry) const {
  const std::string_view folder = root_.view();
  const bool needsSeparator = !folder.empty() && folder.back() != '/';
  return needsSeparator ? root_ + FileName::PathSepString() + entry : root_ + entry;
}

// Hands every file of the tree, with the tree below whose root it lies, to `visitor` until
// that returns false. Folders still to come wait by their paths, not by open streams, so
// that the depth of the tree does not matter.
template <class Visitor>
void SearchTree::walk(Visitor&& visitor) const {
  Visited visited;
  std::vector<EncodedString> waiting;
  const auto visitFolder = [&](const SearchTree& tree) {
    if (!tree.stream_ || !visited.enter(tree.stream_.get())) {
      return true;
    }
    const Folder folder = tree.list();
    for (const std::string& file : folder.files) {
      if (!visitor(tree, pathFromSystem(file.c_str()))) {
        return false;
      }
    }
    if (descend_) {
      for (auto name = folder.folders.rbegin(); name != folder.folders.rend(); ++name) {
        waiting.push_back(tree.pathOf(pathFromSystem(name->c_str())));
      }
    }
    return true;
  };
  bool goesOn = visitFolder(*this);
  while (goesOn && !waiting.empty()) {
    const FileName next(waiting.back());
    waiting.pop_back();
    goesOn = visitFolder(SearchTree(next, *this));
  }
}

FileName SearchTree::search(const FileName& wanted) const {
  FileName result;
  const std::string_view name = wanted.baseView();
  if (!name.empty()) {
    walk([&](const SearchTree& tree, const EncodedString& entry) {
      if (entry.view() != name) {
        return true;
      }
      result = tree.pathOf(entry);
      return false;
    });
  }
  return result;
}

bool SearchTree::searchRecursiveComplete(List<FileName*>& wanted, List<FileName*>& found,
                                         int* status) const {
  auto left = static_cast<unsigned>(std::count(status, status + wanted.count(), stillWanted));
  if (left != 0) {
    walk([&](const SearchTree& tree, const EncodedString& entry) {
      const unsigned hits = tree.compareMulti(entry, wanted, found, status);
      left -= hits;
      return left != 0 && (hits == 0 || !stopAtFirstHit_);
    });
  }
  return left == 0;
}

unsigned SearchTree::compareMulti(const char* entry, List<FileName*>& wanted,
                                  List<FileName*>& found, int* status) const {
  unsigned hits = 0;
  for (unsigned i = 0; i < wanted.count(); ++i) {
    if (status[i] != stillWanted || wanted[i]->baseView() != entry) {
      continue;
    }
    auto hit = std::make_unique<FileName>(pathOf(EncodedString(entry, EncodedString::utf8)));
    addOwned(found, hit.get(), hit);
    status[i] = alreadyFound;
    ++hits;
  }
  return hits;
}
