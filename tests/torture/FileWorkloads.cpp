#include <memory>
#include <string>
#include <utility>

#include "Engine/utilities/CharString.h"
#include "Engine/utilities/EncodedString.h"
#include "Engine/utilities/FileName.h"
#include "Engine/utilities/InstallPath.h"
#include "Engine/utilities/List.h"
#include "Engine/utilities/OpenFiles.h"
#include "Engine/utilities/PathSearch.h"
#include "Engine/utilities/SearchTree.h"
#include "Engine/utilities/UNIX/LINUX_Installpath.h"

#include "tests/torture/Workload.h"

namespace {

EncodedString utf8(const std::string& text) { return {text.c_str(), EncodedString::utf8}; }
FileName named(const std::string& text) { return {text.c_str(), EncodedString::utf8}; }

// Of a list that owns what it points at.
template <class T>
struct Owned {
  List<T*> list;
  ~Owned() {
    for (T* const one : list) {
      delete one;
    }
  }
};

void takeNamesApart() {
  FileName name = named("/usr/lib/libtorture.so.1(member)");
  CUL_EXPECT_THAT(name.isValidName() && name.isAbsolute());
  CUL_EXPECT_THAT(name.directory().view() == "/usr/lib/" || name.directory().view() == "/usr/lib");
  CUL_EXPECT_THAT(name.base().length() != 0 && name.baseAndMember().length() != 0);
  CUL_EXPECT_THAT(name.short_name().length() != 0 && name.root().length() != 0);
  CUL_EXPECT_THAT(name.root_exe().length() != 0 && name.extension().length() != 0);
  CUL_EXPECT_THAT(name.member().length() != 0 && name.genericLibraryName().length() != 0);
  CUL_EXPECT_THAT(name.commonPathPrefix(name).length() == 0);
  CUL_EXPECT_THAT(named("/x/lib/f").commonPathSuffix(named("/y/lib")).view() == "lib/");
  CUL_EXPECT_THAT(name.computeHash() == name.computeHash());
  CUL_EXPECT_THAT(named("libz.so.1") == named("libz.so"));
  CUL_EXPECT_THAT(FileName::is_valid_path(utf8("/usr/lib")));
  CUL_EXPECT_THAT(FileName::PathSepString().view() == "/");
  CUL_EXPECT_THAT(FileName::PeriodString().view() == ".");
  CUL_EXPECT_THAT(FileName::LeftParenString().view() == "(");
  CUL_EXPECT_THAT(FileName::RightParenString().view() == ")");
  CUL_EXPECT_THAT(FileName::pathSeparator()->view() == "/");
}

void changeNames() {
  FileName name = named("lib/torture.txt");
  name.change_path(utf8("/usr/share"));
  name.change_extension(utf8("doc"));
  name.change_member(utf8("member"));
  CUL_EXPECT_THAT(name.view() == "/usr/share/torture.doc(member)");
  FileName relative = named("torture.txt");
  relative.rationalizePath(utf8("/usr"));
  relative.rationalizePath();
  CUL_EXPECT_THAT(relative.isAbsolute());
  FileName copy(relative);
  FileName moved(std::move(copy));
  copy = std::move(moved);
  copy = utf8("/other");
  copy.validate();
  CUL_EXPECT_THAT(copy.view() == "/other");
}

void makeNames() {
  const auto* const bytes = reinterpret_cast<const unsigned char*>("/torture");
  const auto* const signedBytes = reinterpret_cast<const signed char*>("/torture");
  CUL_EXPECT_THAT(FileName(bytes, EncodedString::utf8) == named("/torture"));
  CUL_EXPECT_THAT(FileName(signedBytes, EncodedString::utf8) == named("/torture"));
  CUL_EXPECT_THAT(FileName(L"/torture") == named("/torture"));
  CUL_EXPECT_THAT(FileName(CharString(L"/torture")) == named("/torture"));
  CUL_EXPECT_THAT(FileName(utf8("/torture")) == named("/torture"));
  const FileName ends = named("/torture/");
  CUL_EXPECT_THAT(!ends.isValidName());
}

void findFiles() {
  CUL_EXPECT_THAT(named(workFolder() + "/properties").isAccessible(false));
  CUL_EXPECT_THAT(!named(workFolder() + "/nothing").isAccessible(true));
  const FileName found = FileName::findFile(named("properties"), utf8("/:" + workFolder()), false);
  CUL_EXPECT_THAT(found.view() == workFolder() + "/properties");
  const Owned<EncodedString> paths{FileName::parsePaths(utf8("/usr:/bin:" + workFolder()))};
  CUL_EXPECT_THAT(paths.list.count() == 3);
}

void searchPaths() {
  CUL_EXPECT_THAT(searchPath(utf8("sh"), utf8("/nowhere:/bin")).view() == "/bin/sh");
  CUL_EXPECT_THAT(searchPath(utf8("sh")).length() != 0);
  const std::string link = workFolder() + "/link";
  CUL_EXPECT_THAT(resolveSymbolicLink(utf8(link)).view() == workFolder() + "/properties");
  CUL_EXPECT_THAT(resolveSymbolicLink(utf8(link), 3).view() == workFolder() + "/properties");
  CUL_EXPECT_THAT(stripPath(utf8(link)).view() == workFolder() + "/");
}

void followALoop() {
  try {
    static_cast<void>(resolveSymbolicLink(utf8(workFolder() + "/loop"), 0));
  } catch (const EncodedString&) {
    return;
  }
  CUL_EXPECT_THAT(false && "a loop has no end");
}

void endInALoop() { static_cast<void>(resolveSymbolicLink(utf8(workFolder() + "/loop"))); }

class OtherInstallPath : public UNIX_Installpath {
 public:
  OtherInstallPath() : UNIX_Installpath(utf8("/bin/sh")) {}
};

void findTheInstallation() {
  CUL_EXPECT_THAT(InstallPath::instance()->path().length() != 0);
  EncodedString executable = utf8("/usr/bin/sh");
  CUL_EXPECT_THAT(UNIX_Installpath::installLocation(executable) && executable.view() == "/usr");
  const LINUX_Installpath path;
  const OtherInstallPath other;
  CUL_EXPECT_THAT(path.path() == InstallPath::instance()->path() && other.path().length() == 0);
}

void lookAtOpenFiles() {
  CUL_EXPECT_THAT(OpenFiles::initialOpenFiles()[2]);
  const OpenFiles now;
  CUL_EXPECT_THAT(now.count() == 17 && now[2]);
}

void searchTrees() {
  SearchTree tree(named(workFolder() + "/tree"));
  CUL_EXPECT_THAT(tree.search(named("deep")).view() == workFolder() + "/tree/folder/deep");
  CUL_EXPECT_THAT(tree.search(named("nothing")).length() == 0);
  tree.setFollowLinks(true);
  const SearchTree same(named(workFolder() + "/tree/"), tree);
  Owned<FileName> wanted;
  FileName first = named("deep");
  FileName second = named("top");
  wanted.list.extend(2);
  wanted.list.add(new FileName(first));
  wanted.list.add(new FileName(second));
  Owned<FileName> found;
  int status[2] = {};
  CUL_EXPECT_THAT(same.searchRecursiveComplete(wanted.list, found.list, status));
  CUL_EXPECT_THAT(found.list.count() == 2 && status[0] == 1 && status[1] == 1);
  status[0] = SearchTree::stillWanted;
  CUL_EXPECT_THAT(same.compareMulti("deep", wanted.list, found.list, status) == 1);
}

// What looks into folders.
constexpr const char* folders = "malloc opendir readdir dirfd fstat fstatat";

const Workload workloads[] = {
    {"parts of names", takeNamesApart},
    {"changed names", changeNames},
    {"making names", makeNames},
    // What cannot be looked at is not there.
    {"finding files",
     findFiles,
     -1,
     {{"other: named(workFolder() + \"/properties\")...", "access stat"},
      {"other: found.view()...", "access stat getcwd"}}},
    {"search paths",
     searchPaths,
     -1,
     {{"other: searchPath(...", "stat"}, {"other: resolveSymbolicLink(...", "readlink"}}},
    {"loop of links", followALoop, -1, {{"other: false && ...", "readlink"}}},
    {"end in a loop", endInALoop, 255, {{"done", "readlink"}}},
    {.name = "installation",
     .work = findTheInstallation,
     .mayTell = {{"other: InstallPath::instance()...", "readlink"},
                 {"other: path.path()...", "readlink"}},
     .keepsFirstFailure = true},
    {.name = "open files",
     .work = lookAtOpenFiles,
     .mayTell = {{"other: OpenFiles::initialOpenFiles()[2]", "fstat"},
                 {"other: now.count()...", "fstat"}},
     .keepsFirstFailure = true},
    // Folders that cannot be read are passed over.
    {"search trees",
     searchTrees,
     -1,
     {{"other: tree.search(...", folders}, {"other: same.searchRecursiveComplete(...", folders}}},
};

}  // namespace

std::span<const Workload> fileWorkloads() { return workloads; }
