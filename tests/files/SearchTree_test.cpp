#include "Engine/utilities/SearchTree.h"

#include <algorithm>
#include <cerrno>
#include <dirent.h>
#include <fcntl.h>
#include <filesystem>
#include <memory>
#include <set>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/Child.h"
#include "tests/support/OpenDescriptors.h"
#include "tests/support/StandIn.h"
#include "tests/support/TemporaryFolder.h"

CUL_STAND_IN(dirent*, readdir, (DIR * folder), CUL_NOTHING, folder)
CUL_STAND_IN(int, fstat, (int file, struct stat* status), noexcept, file, status)
CUL_STAND_IN(int, fstatat, (int folder, const char* file, struct stat* status, int flags), noexcept,
             folder, file, status, flags)

namespace {

using testing::ElementsAre;

FileName name(const std::string& text) {
  return FileName(
      EncodedString(text.data(), static_cast<unsigned>(text.size()), EncodedString::utf8));
}

// Wanted names with their statuses and what was found for them.
class Wanted {
 public:
  explicit Wanted(const std::vector<std::string>& names) : status(names.size(), 0) {
    for (const std::string& n : names) {
      wanted.add(new FileName(name(n)));
    }
  }
  Wanted(const Wanted&) = delete;
  Wanted& operator=(const Wanted&) = delete;
  ~Wanted() {
    for (const List<FileName*>* list : {&wanted, &found}) {
      for (const FileName* n : *list) {
        delete n;
      }
    }
  }

  bool searchIn(const SearchTree& tree) {
    return tree.searchRecursiveComplete(wanted, found, status.data());
  }

  // The paths found, without the folder they begin with.
  std::vector<std::string> foundBelow(const std::string& folder) const {
    std::vector<std::string> result;
    for (const FileName* n : found) {
      const std::string path = std::string(n->view());
      EXPECT_TRUE(path.starts_with(folder)) << path;
      result.push_back(path.substr(folder.size()));
    }
    return result;
  }

  List<FileName*> wanted;
  List<FileName*> found;
  std::vector<int> status;
};

void makeFile(const TemporaryFolder& folder, const std::string& file) {
  std::filesystem::create_directories(std::filesystem::path(folder.file(file)).parent_path());
  writeFile(folder.file(file), "x");
}

void makeLink(const TemporaryFolder& folder, const std::string& target, const std::string& link) {
  std::filesystem::create_symlink(target, folder.file(link));
}

std::string search(const TemporaryFolder& folder, const std::string& wanted) {
  const std::string path(SearchTree(name(folder.path())).search(name(wanted)).view());
  return path.starts_with(folder.path()) ? path.substr(folder.path().size()) : path;
}

}  // namespace

TEST(SearchTree, HasItsOptionsOffOnOff) {
  const TemporaryFolder folder;
  const SearchTree tree(name(folder.path()));
  EXPECT_FALSE(tree.followsLinks());
  EXPECT_TRUE(tree.descends());
  EXPECT_FALSE(tree.stopsAtFirstHit());
  EXPECT_EQ(tree.root().view(), folder.path());
}

TEST(SearchTree, OfAParentCopiesItsOptions) {
  const TemporaryFolder folder;
  SearchTree parent(name(folder.path()));
  for (unsigned bits = 0; bits < 8; ++bits) {
    parent.setFollowLinks((bits & 1U) != 0);
    parent.setDescend((bits & 2U) != 0);
    parent.setStopAtFirstHit((bits & 4U) != 0);
    const SearchTree child(name(folder.file("sub")), parent);
    EXPECT_EQ(child.followsLinks(), (bits & 1U) != 0);
    EXPECT_EQ(child.descends(), (bits & 2U) != 0);
    EXPECT_EQ(child.stopsAtFirstHit(), (bits & 4U) != 0);
    EXPECT_EQ(child.root().view(), folder.file("sub"));
  }
}

TEST(SearchTree, FindsAFileByItsBase) {
  const TemporaryFolder folder;
  makeFile(folder, "top.x");
  makeFile(folder, "a/b/deep.x");
  EXPECT_EQ(search(folder, "top.x"), "/top.x");
  EXPECT_EQ(search(folder, "deep.x"), "/a/b/deep.x");
  EXPECT_EQ(search(folder, "/other/folder/deep.x(member)"), "/a/b/deep.x");
  EXPECT_EQ(search(folder, "deep"), "");
  EXPECT_EQ(search(folder, "DEEP.x"), "");
  EXPECT_EQ(search(folder, ""), "");
  EXPECT_EQ(search(folder, "deep.x/"), "");
}

TEST(SearchTree, LooksAtTheFilesOfAFolderBeforeItsSubFolders) {
  const TemporaryFolder folder;
  makeFile(folder, "z");
  makeFile(folder, "a/z");
  makeFile(folder, "b/c/y");
  makeFile(folder, "c/y");
  EXPECT_EQ(search(folder, "z"), "/z");
  // All that is below "b" comes before "c".
  EXPECT_EQ(search(folder, "y"), "/b/c/y");
}

TEST(SearchTree, WalksInTheByteOrderOfNames) {
  const TemporaryFolder folder;
  const std::vector<std::string> inOrder = {"B",   "a",   "b",     "\xC3\xA9", "C/1",
                                            "c/0", "c/2", "c/d/3", "e/4"};
  std::vector<std::string> names;
  for (const std::string& file : inOrder) {
    makeFile(folder, file);
    names.push_back(std::filesystem::path(file).filename().string());
  }
  std::reverse(names.begin(), names.end());
  Wanted wanted(names);
  EXPECT_TRUE(wanted.searchIn(SearchTree(name(folder.path()))));
  EXPECT_EQ(wanted.foundBelow(folder.path() + "/"), inOrder);
}

TEST(SearchTree, TakesARootWithASeparatorAtItsEnd) {
  const TemporaryFolder folder;
  makeFile(folder, "a/x");
  EXPECT_EQ(SearchTree(name(folder.path() + "/")).search(name("x")).view(), folder.file("a/x"));
}

TEST(SearchTree, FindsNothingBelowARootThatCannotBeOpened) {
  const TemporaryFolder folder;
  makeFile(folder, "file");
  for (const std::string& root : {std::string(), folder.file("none"), folder.file("file")}) {
    const SearchTree tree(name(root));
    EXPECT_EQ(tree.search(name("file")).view(), "") << root;
    Wanted wanted({"file"});
    EXPECT_FALSE(wanted.searchIn(tree));
    EXPECT_EQ(wanted.status[0], SearchTree::stillWanted);
  }
}

TEST(SearchTree, SearchesAgainAndSeesWhatIsNew) {
  const TemporaryFolder folder;
  const SearchTree tree(name(folder.path()));
  EXPECT_EQ(tree.search(name("x")).view(), "");
  makeFile(folder, "x");
  EXPECT_EQ(tree.search(name("x")).view(), folder.file("x"));
  EXPECT_EQ(tree.search(name("x")).view(), folder.file("x"));
}

TEST(SearchTree, StaysInTheRootWhenItDoesNotDescend) {
  const TemporaryFolder folder;
  makeFile(folder, "a/x");
  makeFile(folder, "y");
  SearchTree tree(name(folder.path()));
  tree.setDescend(false);
  EXPECT_EQ(tree.search(name("x")).view(), "");
  EXPECT_EQ(tree.search(name("y")).view(), folder.file("y"));
  Wanted wanted({"x", "y"});
  EXPECT_FALSE(wanted.searchIn(tree));
  EXPECT_THAT(wanted.foundBelow(folder.path()), ElementsAre("/y"));
}

TEST(SearchTree, FoldersAreNoHits) {
  const TemporaryFolder folder;
  makeFile(folder, "name/other");
  makeFile(folder, "z/name");
  EXPECT_EQ(search(folder, "name"), "/z/name");
}

TEST(SearchTree, ALinkCountsAsWhatItLeadsTo) {
  const TemporaryFolder folder;
  makeFile(folder, "real/file");
  makeLink(folder, "real/file", "toFile");
  makeLink(folder, "real", "toFolder");
  makeLink(folder, "none", "toNothing");
  EXPECT_EQ(search(folder, "toFile"), "/toFile");
  EXPECT_EQ(search(folder, "toFolder"), "");
  EXPECT_EQ(search(folder, "toNothing"), "");
}

TEST(SearchTree, EntersLinksToFoldersOnlyWhenAskedTo) {
  const TemporaryFolder outside;
  makeFile(outside, "x");
  const TemporaryFolder folder;
  makeLink(folder, outside.path(), "link");
  SearchTree tree(name(folder.path()));
  EXPECT_EQ(tree.search(name("x")).view(), "");
  tree.setFollowLinks(true);
  EXPECT_EQ(tree.search(name("x")).view(), folder.file("link/x"));
  EXPECT_EQ(tree.search(name("link")).view(), "");
}

TEST(SearchTree, AsksForTheKindsThatTheFileSystemDoesNotTell) {
  const TemporaryFolder folder;
  makeFile(folder, "real/a");
  makeFile(folder, "b");
  makeLink(folder, "real", "link");
  makeLink(folder, "b", "other");
  makeLink(folder, "nowhere", "dangling");
  const Instead silent(readdirStandIn, [](DIR* stream) {
    dirent* const entry = readdirStandIn.real(stream);
    if (entry != nullptr) {
      entry->d_type = DT_UNKNOWN;
    }
    return entry;
  });
  SearchTree tree(name(folder.path()));
  EXPECT_EQ(tree.search(name("a")).view(), folder.file("real/a"));
  EXPECT_EQ(tree.search(name("other")).view(), folder.file("other"));
  EXPECT_EQ(tree.search(name("dangling")).length(), 0U);
  tree.setFollowLinks(true);
  EXPECT_EQ(tree.search(name("a")).view(), folder.file("link/a"));
}

TEST(SearchTree, PassesOverAFolderThatTellsNothingOfItself) {
  const TemporaryFolder folder;
  makeFile(folder, "a");
  const SearchTree tree(name(folder.path()));
  EXPECT_EQ(tree.search(name("a")).view(), folder.file("a"));
  const Instead silent(fstatStandIn, [](auto...) {
    errno = EIO;
    return -1;
  });
  EXPECT_EQ(tree.search(name("a")).view(), "");
}

TEST(SearchTree, TakesForAFolderWhatMayBeALinkToOne) {
  const TemporaryFolder folder;
  makeFile(folder, "real/a");
  const Instead silent(readdirStandIn, [](DIR* stream) {
    dirent* const entry = readdirStandIn.real(stream);
    if (entry != nullptr) {
      entry->d_type = DT_UNKNOWN;
    }
    return entry;
  });
  const Instead untold(fstatatStandIn,
                       [](int parent, const char* file, struct stat* status, int flags) {
                         if ((flags & AT_SYMLINK_NOFOLLOW) != 0) {
                           errno = EIO;
                           return -1;
                         }
                         return fstatatStandIn.real(parent, file, status, flags);
                       });
  EXPECT_EQ(SearchTree(name(folder.path())).search(name("a")).view(), folder.file("real/a"));
}

TEST(SearchTree, TheRootMayBeALink) {
  const TemporaryFolder folder;
  makeFile(folder, "real/x");
  makeLink(folder, "real", "link");
  EXPECT_EQ(SearchTree(name(folder.file("link"))).search(name("x")).view(), folder.file("link/x"));
}

TEST(SearchTree, EndsInALoopOfLinks) {
  const TemporaryFolder folder;
  makeFile(folder, "a/b/z");
  makeLink(folder, "../..", "a/b/up");
  makeLink(folder, ".", "self");
  SearchTree tree(name(folder.path()));
  tree.setFollowLinks(true);
  EXPECT_EQ(tree.search(name("none")).view(), "");
  EXPECT_EQ(tree.search(name("z")).view(), folder.file("a/b/z"));
}

TEST(SearchTree, EntersEachFolderOnceHoweverManyLinksLeadToIt) {
  // Following every path would take as many steps as there are orders of the folders.
  const TemporaryFolder folder;
  for (unsigned i = 0; i < 15; ++i) {
    const std::string from = std::to_string(i);
    std::filesystem::create_directory(folder.file(from));
    for (unsigned j = 0; j < 15; ++j) {
      makeLink(folder, "../" + std::to_string(j), from + "/to" + std::to_string(j));
    }
  }
  makeFile(folder, "9/z");
  SearchTree tree(name(folder.path()));
  tree.setFollowLinks(true);
  EXPECT_EQ(tree.search(name("none")).view(), "");
  EXPECT_EQ(tree.search(name("z")).view().substr(folder.path().size() + 1, 2), "0/");
}

TEST(SearchTree, FindsSeveralNamesInOneWalk) {
  const TemporaryFolder folder;
  makeFile(folder, "x");
  makeFile(folder, "a/x");
  makeFile(folder, "a/y");
  makeFile(folder, "b/z");
  Wanted wanted({"z", "none", "x", "d/y(m)"});
  EXPECT_FALSE(wanted.searchIn(SearchTree(name(folder.path()))));
  EXPECT_THAT(wanted.status, ElementsAre(1, 0, 1, 1));
  EXPECT_THAT(wanted.foundBelow(folder.path()), ElementsAre("/x", "/a/y", "/b/z"));
}

TEST(SearchTree, TellsWhenNothingIsLeftToFind) {
  const TemporaryFolder folder;
  makeFile(folder, "x");
  makeFile(folder, "a/y");
  const SearchTree tree(name(folder.path()));
  Wanted all({"y", "x"});
  EXPECT_TRUE(all.searchIn(tree));
  EXPECT_TRUE(all.searchIn(tree));
  EXPECT_EQ(all.found.count(), 2U);
  Wanted none({});
  EXPECT_TRUE(none.searchIn(tree));
}

TEST(SearchTree, LooksOnlyForWhatIsStillWanted) {
  const TemporaryFolder folder;
  makeFile(folder, "x");
  makeFile(folder, "y");
  Wanted wanted({"x", "y", "y"});
  wanted.status = {7, 0, 1};
  EXPECT_TRUE(wanted.searchIn(SearchTree(name(folder.path()))));
  EXPECT_THAT(wanted.status, ElementsAre(7, 1, 1));
  EXPECT_THAT(wanted.foundBelow(folder.path()), ElementsAre("/y"));
}

TEST(SearchTree, FindsANameThatIsWantedTwiceTwice) {
  const TemporaryFolder folder;
  makeFile(folder, "x");
  Wanted wanted({"x", "x"});
  EXPECT_TRUE(wanted.searchIn(SearchTree(name(folder.path()))));
  EXPECT_THAT(wanted.foundBelow(folder.path()), ElementsAre("/x", "/x"));
}

TEST(SearchTree, StopsAtTheFirstHitWhenAskedTo) {
  const TemporaryFolder folder;
  makeFile(folder, "x");
  makeFile(folder, "y");
  SearchTree tree(name(folder.path()));
  tree.setStopAtFirstHit(true);
  Wanted wanted({"y", "x"});
  EXPECT_FALSE(wanted.searchIn(tree));
  EXPECT_THAT(wanted.status, ElementsAre(0, 1));
  EXPECT_THAT(wanted.foundBelow(folder.path()), ElementsAre("/x"));
  EXPECT_TRUE(wanted.searchIn(tree));
  EXPECT_THAT(wanted.foundBelow(folder.path()), ElementsAre("/x", "/y"));
}

TEST(SearchTree, CompareMultiMatchesExactBytes) {
  const SearchTree tree{FileName()};
  Wanted wanted({"d/a.b(m)", "a.B", "a.b", "a", "a.b"});
  wanted.status = {0, 0, 0, 0, 1};
  EXPECT_EQ(tree.compareMulti("a.b", wanted.wanted, wanted.found, wanted.status.data()), 2U);
  EXPECT_THAT(wanted.status, ElementsAre(1, 0, 1, 0, 1));
  EXPECT_THAT(wanted.foundBelow(""), ElementsAre("a.b", "a.b"));
  EXPECT_EQ(tree.compareMulti("a.b", wanted.wanted, wanted.found, wanted.status.data()), 0U);
  EXPECT_EQ(tree.compareMulti("a.", wanted.wanted, wanted.found, wanted.status.data()), 0U);
  EXPECT_EQ(tree.compareMulti("", wanted.wanted, wanted.found, wanted.status.data()), 0U);
}

TEST(SearchTree, CompareMultiRecordsThePathBelowTheRoot) {
  const TemporaryFolder folder;
  for (const std::string& root : {folder.path(), folder.path() + "/"}) {
    const SearchTree tree(name(root));
    Wanted wanted({"a.b"});
    char entry[] = "a.b";
    EXPECT_EQ(tree.compareMulti(entry, wanted.wanted, wanted.found, wanted.status.data()), 1U);
    EXPECT_THAT(wanted.foundBelow(folder.path()), ElementsAre("/a.b"));
    EXPECT_EQ(wanted.found[0]->base().view(), "a.b");
  }
}

CUL_CHILD(SearchTreeThatIsDeep) {
  const std::string& top = childArguments().at(0);
  const std::string& file = childArguments().at(1);
  const std::set<int> before = openDescriptors();
  {
    rlimit few = {};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &few), 0);
    few.rlim_cur = before.size() + 5;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &few), 0);
    const SearchTree tree(name(top));
    EXPECT_EQ(tree.search(name("x")).view(), file);
    Wanted wanted({"x", "none"});
    EXPECT_FALSE(wanted.searchIn(tree));
    EXPECT_EQ(wanted.found.count(), 1U);
  }
  EXPECT_EQ(openDescriptors(), before);
}

TEST(SearchTree, NeedsFewDescriptorsInADeepTreeAndLeaksNone) {
  // The child could not remove it: that takes a descriptor for each level.
  const TemporaryFolder folder;
  std::string below;
  for (unsigned level = 0; level < 100; ++level) {
    below += "d/";
  }
  makeFile(folder, below + "x");
  ChildOptions options;
  options.arguments = {folder.path(), folder.file(below + "x")};
  const ChildResult r = runChild("SearchTreeThatIsDeep", options);
  EXPECT_EQ(r.status, 0) << r.out << r.err;
}

TEST(SearchTree, GivesItsDescriptorBack) {
  const TemporaryFolder folder;
  makeFile(folder, "a/x");
  makeFile(folder, "b/y");
  const std::set<int> before = openDescriptors();
  {
    const SearchTree tree(name(folder.path()));
    EXPECT_EQ(openDescriptors().size(), before.size() + 1);
    EXPECT_EQ(tree.search(name("x")).view(), folder.file("a/x"));
    EXPECT_EQ(openDescriptors().size(), before.size() + 1);
    const SearchTree none{FileName()};
    EXPECT_EQ(openDescriptors().size(), before.size() + 1);
  }
  EXPECT_EQ(openDescriptors(), before);
}

CUL_CHILD(SearchTreeWithALockedFolder) {
  if (geteuid() == 0) {
    ASSERT_EQ(setuid(65534), 0);
  }
  const std::string folder = childArguments().at(0);
  EXPECT_EQ(SearchTree(name(folder)).search(name("x")).view(), folder + "/b/x");
}

TEST(SearchTree, PassesOverAFolderThatMayNotBeRead) {
  const TemporaryFolder folder;
  makeFile(folder, "a/x");
  makeFile(folder, "b/x");
  ASSERT_EQ(chmod(folder.path().c_str(), 0755), 0);
  ASSERT_EQ(chmod(folder.file("a").c_str(), 0), 0);
  ASSERT_EQ(chmod(folder.file("b").c_str(), 0755), 0);
  ChildOptions options;
  options.arguments = {folder.path()};
  const ChildResult r = runChild("SearchTreeWithALockedFolder", options);
  ASSERT_EQ(chmod(folder.file("a").c_str(), 0755), 0);
  EXPECT_EQ(r.status, 0) << r.out << r.err;
}

TEST(SearchTree, FindsNamesThatAreNoText) {
  const TemporaryFolder folder;
  makeFile(folder, "d\xFF/\x80.x");
  EXPECT_EQ(search(folder, "\x80.x"), "/d\xFF/\x80.x");
}
