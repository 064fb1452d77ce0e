#include "HostEvents.h"

#include <atomic>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include "Engine/utilities/KeepErrno.h"
#include "Engine/utilities/StdException.h"

namespace {

std::atomic<int> writeEnd = -1;

extern "C" void postSignal(int signal, siginfo_t* info, void*) {
  HostEvents::post(info->si_code == SI_KERNEL ? signal | HostEvents::toGroup : signal);
}

}  // namespace

HostEvents::HostEvents(std::initializer_list<int> signals) {
  // Non-blocking: a full queue must not stop a signal handler.
  int ends[2];
  if (pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) {
    StdException::throwException(__PRETTY_FUNCTION__, __LINE__, std::strerror(errno), -1);
  }
  readEnd_.reset(ends[0]);
  writeEnd_.reset(ends[1]);
  writeEnd = ends[1];
  for (const int signal : signals) {
    struct sigaction action = {};
    action.sa_sigaction = postSignal;
    action.sa_flags = SA_SIGINFO | SA_RESTART;
    Former former = {signal, {}};
    sigaction(signal, &action, &former.action);
    former_.push_back(former);
  }
}

HostEvents::~HostEvents() {
  for (const Former& former : former_) {
    sigaction(former.signal, &former.action, nullptr);
  }
  writeEnd = -1;
}

bool HostEvents::isEmpty() const {
  pollfd waited = {readEnd_.get(), POLLIN, 0};
  return poll(&waited, 1, 0) <= 0;
}

int HostEvents::next() const {
  for (;;) {
    unsigned char event;
    if (read(readEnd_.get(), &event, 1) == 1) {
      return event;
    }
    pollfd waited = {readEnd_.get(), POLLIN, 0};
    poll(&waited, 1, -1);
  }
}

void HostEvents::post(int event) noexcept {
  const KeepErrno keep;
  const unsigned char byte = static_cast<unsigned char>(event);
  static_cast<void>(!write(writeEnd, &byte, 1));
}

void endBySignal(int signal) {
  std::signal(signal, SIG_DFL);
  std::raise(signal);
  // Still here: the signal is put off, as it may be under an emulator.
  _exit(128 + signal);
}
