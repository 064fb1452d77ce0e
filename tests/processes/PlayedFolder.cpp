#include "tests/processes/PlayedFolder.h"

#include <cstring>
#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <utility>

#include <gtest/gtest.h>

namespace {

struct Play {
  std::string path;
  std::vector<std::string> names;
  DIR* folder = nullptr;
  std::size_t at = 0;
  dirent entry = {};
  unsigned opened = 0;
  unsigned closed = 0;
  bool isClosedOnExec = false;
};

constinit Play* play = nullptr;

// The function that `name` would be without this file.
template <typename Function>
Function* next(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

PlayedFolder::PlayedFolder(std::string path, std::vector<std::string> names) {
  EXPECT_EQ(play, nullptr) << "a folder is played already";
  play = new Play{.path = std::move(path), .names = std::move(names)};
}

PlayedFolder::~PlayedFolder() {
  EXPECT_EQ(play->folder, nullptr) << "the folder was left open";
  delete std::exchange(play, nullptr);
}

unsigned PlayedFolder::opened() const { return play->opened; }

unsigned PlayedFolder::closed() const { return play->closed; }

bool PlayedFolder::isClosedOnExec() const { return play->isClosedOnExec; }

extern "C" DIR* opendir(const char* path) {
  static auto* const real = next<DIR*(const char*)>("opendir");
  DIR* const folder = real(path);
  if (play != nullptr && folder != nullptr && play->path == path) {
    EXPECT_EQ(play->folder, nullptr) << "the folder is open already";
    play->folder = folder;
    play->at = 0;
    ++play->opened;
    play->isClosedOnExec = (fcntl(dirfd(folder), F_GETFD) & FD_CLOEXEC) != 0;
  }
  return folder;
}

extern "C" dirent* readdir(DIR* folder) {
  static auto* const real = next<dirent*(DIR*)>("readdir");
  if (play == nullptr || folder != play->folder) {
    return real(folder);
  }
  if (play->at == play->names.size()) {
    return nullptr;
  }
  const std::string& name = play->names[play->at++];
  EXPECT_LT(name.size(), sizeof play->entry.d_name);
  std::strncpy(play->entry.d_name, name.c_str(), sizeof play->entry.d_name - 1);
  return &play->entry;
}

extern "C" int closedir(DIR* folder) {
  static auto* const real = next<int(DIR*)>("closedir");
  if (play != nullptr && folder == play->folder) {
    play->folder = nullptr;
    ++play->closed;
  }
  return real(folder);
}
