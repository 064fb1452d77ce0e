#include "tests/processes/PlayedFolder.h"

#include <cstddef>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <linux/magic.h>
#include <sys/vfs.h>
#include <unistd.h>
#include <utility>

#include <gtest/gtest.h>

#include "tests/support/StandIn.h"

namespace {

struct Play {
  std::string path;
  std::vector<std::string> names;
  bool isOfProcesses = false;
  long before = 258;
  unsigned most = 100;
  DIR* folder = nullptr;
  std::size_t at = 0;
  dirent entry = {};
  unsigned opened = 0;
  unsigned closed = 0;
  unsigned read = 0;
  bool isClosedOnExec = false;

  [[nodiscard]] bool isOpenAs(int fd) const { return folder != nullptr && dirfd(folder) == fd; }

  [[nodiscard]] off_t positionOf(std::size_t name) const {
    constexpr off_t end = 1L << 32;
    return name == names.size() ? end
           : names[name].find_first_not_of("0123456789") == std::string::npos
               ? before + std::stol(names[name])
               : 0;
  }
};

constinit Play* play = nullptr;

}  // namespace

PlayedFolder::PlayedFolder(std::string path, std::vector<std::string> names) {
  EXPECT_EQ(play, nullptr) << "a folder is played already";
  play = new Play{.path = std::move(path), .names = std::move(names)};
}

PlayedFolder::PlayedFolder(std::string path, std::vector<std::string> names, long before,
                           unsigned most)
    : PlayedFolder(std::move(path), std::move(names)) {
  play->isOfProcesses = true;
  play->before = before;
  play->most = most;
}

PlayedFolder::~PlayedFolder() {
  EXPECT_EQ(play->folder, nullptr) << "the folder was left open";
  delete std::exchange(play, nullptr);
}

unsigned PlayedFolder::opened() const { return play->opened; }

unsigned PlayedFolder::closed() const { return play->closed; }

unsigned PlayedFolder::read() const { return play->read; }

bool PlayedFolder::isClosedOnExec() const { return play->isClosedOnExec; }

CUL_DEFINE_STAND_IN(DIR*, opendir, (const char*))
extern "C" DIR* opendir(const char* path) {
  DIR* const folder = opendirStandIn.real(path);
  if (play != nullptr && folder != nullptr && play->path == path) {
    EXPECT_EQ(play->folder, nullptr) << "the folder is open already";
    play->folder = folder;
    play->at = 0;
    ++play->opened;
    play->isClosedOnExec = (fcntl(dirfd(folder), F_GETFD) & FD_CLOEXEC) != 0;
  }
  return folder;
}

CUL_DEFINE_STAND_IN(dirent*, readdir, (DIR*))
extern "C" dirent* readdir(DIR* folder) {
  if (play == nullptr || folder != play->folder) {
    return readdirStandIn.real(folder);
  }
  if (play->at == play->names.size()) {
    return nullptr;
  }
  const std::string& name = play->names[play->at++];
  ++play->read;
  EXPECT_LT(name.size(), sizeof play->entry.d_name);
  std::strncpy(play->entry.d_name, name.c_str(), sizeof play->entry.d_name - 1);
  return &play->entry;
}

CUL_DEFINE_STAND_IN(int, closedir, (DIR*))
extern "C" int closedir(DIR* folder) {
  if (play != nullptr && folder == play->folder) {
    play->folder = nullptr;
    ++play->closed;
  }
  return closedirStandIn.real(folder);
}

CUL_DEFINE_STAND_IN(void, rewinddir, (DIR*))
extern "C" void rewinddir(DIR* folder) noexcept {
  if (play != nullptr && folder == play->folder) {
    play->at = 0;
  }
  rewinddirStandIn.real(folder);
}

CUL_DEFINE_STAND_IN(int, fstatfs, (int, struct statfs*))
extern "C" int fstatfs(int fd, struct statfs* system) noexcept {
  const int result = fstatfsStandIn.real(fd, system);
  if (play != nullptr && play->isOpenAs(fd) && !play->isOfProcesses) {
    system->f_type = TMPFS_MAGIC;
  }
  return result;
}

CUL_DEFINE_STAND_IN(off64_t, lseek64, (int, off64_t, int))
extern "C" off64_t lseek64(int fd, off64_t position, int from) noexcept {
  if (play == nullptr || !play->isOpenAs(fd)) {
    return lseek64StandIn.real(fd, position, from);
  }
  EXPECT_EQ(from, SEEK_SET);
  play->at = 0;
  while (play->at < play->names.size() && play->positionOf(play->at) < position) {
    ++play->at;
  }
  return position;
}

CUL_DEFINE_STAND_IN(ssize_t, getdents64, (int, void*, size_t))
extern "C" ssize_t getdents64(int fd, void* buffer, size_t size) noexcept {
  if (play == nullptr || !play->isOpenAs(fd)) {
    return getdents64StandIn.real(fd, buffer, size);
  }
  size_t used = 0;
  for (unsigned n = 0; n < play->most && play->at < play->names.size(); ++n) {
    const std::string& name = play->names[play->at];
    const size_t length = (offsetof(dirent64, d_name) + name.size() + 1 + 7) / 8 * 8;
    ++play->read;  // Made, whether or not there is room.
    if (used + length > size) {
      break;
    }
    auto* const entry = reinterpret_cast<dirent64*>(static_cast<char*>(buffer) + used);
    ++play->at;
    entry->d_off = play->positionOf(play->at);
    entry->d_reclen = static_cast<unsigned short>(length);
    std::memcpy(entry->d_name, name.c_str(), name.size() + 1);
    used += length;
  }
  return static_cast<ssize_t>(used);
}
