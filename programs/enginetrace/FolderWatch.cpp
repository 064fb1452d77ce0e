#include "programs/enginetrace/FolderWatch.h"

#include <array>
#include <cerrno>
#include <chrono>
#include <poll.h>
#include <sys/inotify.h>
#include <system_error>
#include <thread>
#include <unistd.h>

#include "programs/enginetrace/Output.h"

namespace {

constexpr int secondInMilliseconds = 1000;
constexpr std::chrono::milliseconds moment(20);

}  // namespace

FolderWatch::FolderWatch() : events_(inotify_init1(IN_CLOEXEC | IN_NONBLOCK)) {}

void FolderWatch::add(const std::string& folder) {
  static_cast<void>(inotify_add_watch(events_.get(), folder.c_str(),
                                      IN_MODIFY | IN_CREATE | IN_MOVED_TO | IN_DELETE));
}

void FolderWatch::wait() {
  std::array<pollfd, 2> descriptors = {{{events_.get(), POLLIN, 0}, {STDOUT_FILENO, 0, 0}}};
  static_cast<void>(poll(descriptors.data(), descriptors.size(), secondInMilliseconds));
  if ((descriptors[1].revents & POLLERR) != 0) {
    throw OutputFailed(EPIPE, std::generic_category());
  }
  std::this_thread::sleep_for(moment);
  // What has happened is not looked at: who waits looks at all.
  std::array<char, 65536> events;
  while (read(events_.get(), events.data(), events.size()) > 0) {
  }
}
