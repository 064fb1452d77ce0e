#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <poll.h>
#include <string>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <benchmark/benchmark.h>

#include "Engine/utilities/ByteString.h"
#include "Engine/utilities/UNIX/UNIXStdioPipes.h"

#include "benchmarks/Comparison.h"

namespace {

constexpr unsigned size = 1024 * 1024;
constexpr unsigned pieceRead = 65536;
constexpr unsigned pieceWritten = 4096;

void check(bool success, const char* what) {
  if (!success) {
    std::perror(what);
    std::exit(1);
  }
}

class Descriptor {
 public:
  Descriptor(int fd, const char* what) : fd_(fd) { check(fd >= 0, what); }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  ~Descriptor() { close(fd_); }
  [[nodiscard]] int get() const { return fd_; }

 private:
  int fd_;
};

int openSlave(int master, bool raw) {
  const int fd = open(ptsname(master), O_RDWR | O_NOCTTY | O_CLOEXEC);
  check(fd >= 0, "open");
  if (raw) {
    termios modes;
    check(tcgetattr(fd, &modes) == 0, "tcgetattr");
    cfmakeraw(&modes);
    check(tcsetattr(fd, TCSANOW, &modes) == 0, "tcsetattr");
  }
  return fd;
}

int openUnlockedMaster() {
  const int fd = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
  check(fd >= 0 && grantpt(fd) == 0 && unlockpt(fd) == 0, "posix_openpt");
  return fd;
}

/// Makes a pseudo-terminal the three standard streams until the end of the scope: a console
/// is opened on a terminal only, and the benchmarks may run without one.
class OnTerminal {
 public:
  OnTerminal()
      : master_(openUnlockedMaster(), "master"), slave_(openSlave(master_.get(), false), "slave") {
    std::fflush(nullptr);
    for (int stream = 0; stream < 3; ++stream) {
      former_[stream] = fcntl(stream, F_DUPFD_CLOEXEC, 3);
      check(former_[stream] >= 0 && dup2(slave_.get(), stream) == stream, "dup2");
    }
  }
  OnTerminal(const OnTerminal&) = delete;
  OnTerminal& operator=(const OnTerminal&) = delete;
  ~OnTerminal() {
    for (int stream = 0; stream < 3; ++stream) {
      dup2(former_[stream], stream);
      close(former_[stream]);
    }
  }

 private:
  Descriptor master_;
  Descriptor slave_;
  int former_[3];
};

/// Our console with the slave side as a debuggee has it.
struct OurConsole {
  OurConsole() : console(makeConsole()), slave(openSlave(console->writeHandle(), true), "slave") {}

  [[nodiscard]] int master() const { return console->readHandle(StdioPipes::StdOutput); }

  std::unique_ptr<UNIXStdioPipes> console;
  Descriptor slave;

 private:
  static std::unique_ptr<UNIXStdioPipes> makeConsole() {
    const OnTerminal terminal;
    return std::make_unique<UNIXStdioPipes>();
  }
};

struct BareTerminal {
  BareTerminal()
      : opened(openUnlockedMaster(), "master"), slave(openSlave(opened.get(), true), "slave") {}

  [[nodiscard]] int master() const { return opened.get(); }

  Descriptor opened;
  Descriptor slave;
};

/// What a debuggee prints. Without zero bytes, which the console's read() drops.
const std::string& printed() {
  static const std::string text = [] {
    std::string result;
    for (unsigned i = 0; i < size; ++i) {
      result.push_back(static_cast<char>(1 + i % 251));
    }
    return result;
  }();
  return text;
}

void print(int slave) {
  const std::string& text = printed();
  for (unsigned at = 0; at < size;) {
    const ssize_t n = write(slave, text.data() + at, std::min(pieceWritten, size - at));
    check(n > 0, "write");
    at += static_cast<unsigned>(n);
  }
}

void waitForOutput(int master) {
  pollfd wait = {master, POLLIN, 0};
  check(poll(&wait, 1, -1) == 1, "poll");
}

/// A reader takes the next bytes, at most so many, into the buffer.
unsigned readByHandle(int master, char* buffer, unsigned maximum) {
  const ssize_t n = read(master, buffer, maximum);
  check(n > 0, "read");
  return static_cast<unsigned>(n);
}

unsigned pollAndRead(int master, char* buffer, unsigned maximum) {
  waitForOutput(master);
  return readByHandle(master, buffer, maximum);
}

/// Runs on two threads: one prints, the other reads it all.
template <typename Reader>
void transfer(benchmark::State& state, int slave, const Reader& reader) {
  if (state.thread_index() == 1) {
    for (auto _ : state) {
      print(slave);
    }
    return;
  }
  const std::unique_ptr<char[]> buffer(new char[size]);
  for (auto _ : state) {
    for (unsigned at = 0; at < size;) {
      at += reader(buffer.get() + at, std::min(pieceRead, size - at));
    }
    benchmark::ClobberMemory();
  }
  require(std::memcmp(buffer.get(), printed().data(), size) == 0, "text of a console");
}

void compareTransfer() {
  const auto ours = std::make_shared<OurConsole>();
  const auto bare = std::make_shared<BareTerminal>();
  const std::string handle = "console: 1 MiB through readHandle()";
  addPeer(
      handle, "ours",
      [ours](benchmark::State& state) {
        transfer(state, ours->slave.get(), [&](char* buffer, unsigned maximum) {
          return readByHandle(ours->master(), buffer, maximum);
        });
      },
      2);
  addPeer(
      handle, "bare pseudo-terminal",
      [bare](benchmark::State& state) {
        transfer(state, bare->slave.get(), [&](char* buffer, unsigned maximum) {
          return readByHandle(bare->master(), buffer, maximum);
        });
      },
      2);
  const std::string polled = "console: 1 MiB through read(), after poll()";
  addPeer(
      polled, "ours",
      [ours](benchmark::State& state) {
        transfer(state, ours->slave.get(), [&](char* buffer, unsigned maximum) {
          waitForOutput(ours->master());
          return static_cast<unsigned>(
              ours->console->StdioPipes::read(StdioPipes::StdOutput, buffer, maximum));
        });
      },
      2);
  addPeer(
      polled, "bare pseudo-terminal",
      [bare](benchmark::State& state) {
        transfer(state, bare->slave.get(), [&](char* buffer, unsigned maximum) {
          return pollAndRead(bare->master(), buffer, maximum);
        });
      },
      2);
}

/// Asks the terminal what a console asks it.
void inspectStreams() {
  for (int stream = 0; stream < 3; ++stream) {
    check(isatty(stream) == 1, "isatty");
  }
  termios modes;
  winsize window;
  check(tcgetattr(0, &modes) == 0 && ioctl(0, TIOCGWINSZ, &window) == 0, "terminal");
  benchmark::DoNotOptimize(modes);
  benchmark::DoNotOptimize(window);
}

/// A console does more than its first peer, which only opens, and as much as its second.
void compareConstruction() {
  const std::string what = "console: open and close";
  addPeer(what, "ours", [](benchmark::State& state) {
    const OnTerminal terminal;
    for (auto _ : state) {
      const UNIXStdioPipes console;
      benchmark::DoNotOptimize(&console);
    }
  });
  addPeer(what, "posix_openpt...ptsname", [](benchmark::State& state) {
    const OnTerminal terminal;
    for (auto _ : state) {
      const Descriptor master(openUnlockedMaster(), "master");
      benchmark::DoNotOptimize(ptsname(master.get()));
    }
  });
  addPeer(what, "all its system calls", [](benchmark::State& state) {
    const OnTerminal terminal;
    for (auto _ : state) {
      inspectStreams();
      const Descriptor master(openUnlockedMaster(), "master");
      benchmark::DoNotOptimize(ptsname(master.get()));
      tcflush(master.get(), TCIOFLUSH);
    }
  });
}

}  // namespace

void compareConsole() {
  compareTransfer();
  compareConstruction();
}
