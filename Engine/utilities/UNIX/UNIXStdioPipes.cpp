#include "Engine/utilities/UNIX/UNIXStdioPipes.h"

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <string>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include "Engine/internal/FixedLayout.h"
#include "Engine/internal/HoldRequests.h"
#include "Engine/internal/PlaceNumber.h"
#include "Engine/internal/SignalIgnored.h"
#include "Engine/internal/Texts.h"
#include "Engine/utilities/Descriptor.h"
#include "Engine/utilities/StdException.h"
#include "Engine/utilities/TraceFlags.h"

// The engine knows this layout: docs/contract.md.
CUL_FIXED_SIZE(UNIXStdioPipes, 72);
CUL_FIXED_FIELD(UNIXStdioPipes, slaveName_, 8);
CUL_FIXED_FIELD(UNIXStdioPipes, savedAttributes_, 32);
CUL_FIXED_FIELD(UNIXStdioPipes, savedWindowSize_, 40);
CUL_FIXED_FIELD(UNIXStdioPipes, masterHandle_, 48);
CUL_FIXED_FIELD(UNIXStdioPipes, slaveHandle_, 52);
CUL_FIXED_FIELD(UNIXStdioPipes, inputCopy_, 56);
CUL_FIXED_FIELD(UNIXStdioPipes, outputCopy_, 60);
CUL_FIXED_FIELD(UNIXStdioPipes, errorCopy_, 64);
CUL_FIXED_FIELD(UNIXStdioPipes, noConsole_, 68);
CUL_FIXED_FIELD(UNIXStdioPipes, inputIsTerminal_, 69);
CUL_FIXED_FIELD(UNIXStdioPipes, outputIsTerminal_, 70);
CUL_FIXED_FIELD(UNIXStdioPipes, errorIsTerminal_, 71);

namespace {

constexpr const char* constructorText = "UNIXStdioPipes::UNIXStdioPipes()";
constexpr const char* destructorText = "virtual UNIXStdioPipes::~UNIXStdioPipes()";
constexpr const char* slaveHandleText = "int UNIXStdioPipes::slaveHandle()";
constexpr const char* readHandleText =
    "virtual HANDLE UNIXStdioPipes::readHandle(StdioPipes::StdFileHandle) const";

// What the debuggee's terminal is given, for all consoles of the process.
termios attributesRecord;
winsize windowSizeRecord;

void closeIfOpen(int& handle) {
  if (handle >= 0) {
    closeHandle(handle);
  }
}

// A master side with the path it was opened by.
struct Master {
  int handle = -1;
  char path[16] = "/dev/ptmx";
};

// The multiplexer, or else the first of 16 masters of the old kind.
Master openMaster() {
  Master master;
  master.handle = open(master.path, O_RDWR | O_CLOEXEC);
  if (master.handle >= 0) {
    return master;
  }
  for (const char digit :
       {'0', '1', '2', '3', '4', '5', '6', '7', '8', '9', 'a', 'b', 'c', 'd', 'e', 'f'}) {
    char path[] = "/dev/ptyp00?";
    path[sizeof path - 2] = digit;
    std::copy(std::begin(path), std::end(path), master.path);
    master.handle = open(master.path, O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (master.handle >= 0) {
      break;
    }
  }
  return master;
}

// The path of the slave side; null, having been traced, when it cannot be had.
const char* unlockSlave(const Master& master) {
  if (grantpt(master.handle) != 0) {
    CUL_TRACE(TraceType::error, constructorText, 120_place,
              "grantpt() failed for pseudo-terminal %s", master.path);
    return nullptr;
  }
  if (unlockpt(master.handle) != 0) {
    CUL_TRACE(TraceType::error, constructorText, 122_place,
              "unlockpt() failed for pseudo-terminal %s", master.path);
    return nullptr;
  }
  const char* const name = ptsname(master.handle);
  if (name == nullptr || *name == '\0') {
    CUL_TRACE(TraceType::error, constructorText, 134_place,
              "ptsname() failed for pseudo-terminal %s", master.path);
    return nullptr;
  }
  return name;
}

bool isReadyToRead(int fd) {
  pollfd wait = {fd, POLLIN | POLLPRI, 0};
  return poll(&wait, 1, 0) > 0;
}

// What is read is a text, to which a zero byte adds nothing but an early end. Returns the new end.
char* removeZeros(char* begin, char* end) {
  // There hardly ever is one: a fast search first.
  void* const zero = std::memchr(begin, '\0', static_cast<size_t>(end - begin));
  return zero == nullptr ? end : std::remove(static_cast<char*>(zero), end, '\0');
}

bool setWindowSize(int terminal, const winsize* size) {
  const SignalIgnored windowChange(SIGWINCH);
  return ioctl(terminal, TIOCSWINSZ, size) == 0;
}

}  // namespace

UNIXStdioPipes::UNIXStdioPipes()
    : inputIsTerminal_(isatty(STDIN_FILENO) != 0 ? 1 : 0),
      outputIsTerminal_(isatty(STDOUT_FILENO) != 0 ? 1 : 0),
      errorIsTerminal_(isatty(STDERR_FILENO) != 0 ? 1 : 0) {
  if (inputIsTerminal_ != 0 || outputIsTerminal_ != 0 || errorIsTerminal_ != 0) {
    const HoldRequests hold;
    saveTerminal();
    openConsole();
  }
}

// Takes the attributes and the window size of the first standard stream after which both are
// known: what one terminal cannot tell may come from the next.
void UNIXStdioPipes::saveTerminal() {
  const unsigned char isTerminal[] = {inputIsTerminal_, outputIsTerminal_, errorIsTerminal_};
  for (int stream = STDIN_FILENO; stream <= STDERR_FILENO; ++stream) {
    if (isTerminal[stream] == 0) {
      continue;
    }
    if (tcgetattr(stream, &attributesRecord) == 0) {
      savedAttributes_ = &attributesRecord;
    }
    if (ioctl(stream, TIOCGWINSZ, &windowSizeRecord) == 0) {
      savedWindowSize_ = &windowSizeRecord;
    }
    if (savedAttributes_ != nullptr && savedWindowSize_ != nullptr) {
      // Only here: attributes without a window size keep their echo, as the console is known to.
      savedAttributes_->c_lflag &= ~static_cast<tcflag_t>(ECHO);
      return;
    }
  }
}

void UNIXStdioPipes::openConsole() {
  const Master master = openMaster();
  if (master.handle < 0) {
    CUL_TRACE(TraceType::error, constructorText, 118_place,
              "open() failed for all pseudo-terminals");
    return;
  }
  // Whoever cannot make a console has no destructor that would close it.
  Descriptor owned(master.handle);
  const char* const name = unlockSlave(master);
  if (name == nullptr) {
    return;
  }
  slaveName_ = ByteString(name);
  masterHandle_ = owned.release();
  noConsole_ = 0;
  CUL_TRACE(TraceType::dsl, constructorText, 129_place,
            "Console on pseudo-terminal \"%s\" successfully created", slaveName_.view().data());
}

UNIXStdioPipes::~UNIXStdioPipes() {
  if (slaveName_.length() != 0 && slaveHandle_ < 0) {
    CUL_TRACE(TraceType::dsl, destructorText, 147_place, "Pseudo-terminal \"%s\" destroyed",
              slaveName_.view().data());
  }
  const HoldRequests hold;
  UNIXStdioPipes::closePipes();
  closeIfOpen(inputCopy_);
  closeIfOpen(outputCopy_);
  closeIfOpen(errorCopy_);
}

void UNIXStdioPipes::closePipes() {
  const HoldRequests hold;
  for (int* const handle : {&slaveHandle_, &masterHandle_}) {
    if (*handle >= 0) {
      tcflush(*handle, TCIOFLUSH);
      closeIfOpen(*handle);
    }
  }
}

int UNIXStdioPipes::slaveHandle() {
  if (noConsole_ != 0) {
    return slaveHandle_;
  }
  closeIfOpen(masterHandle_);
  noConsole_ = 1;
  if (setsid() < 0) {
    CUL_TRACE(TraceType::error, slaveHandleText, 273_place, "setsid() failed");
    return slaveHandle_;
  }
  // The first terminal that the leader of a session opens becomes its controlling terminal.
  slaveHandle_ = open(slaveName_.view().data(), O_RDWR | O_CLOEXEC);
  if (slaveHandle_ < 0) {
    CUL_TRACE(TraceType::error, slaveHandleText, 278_place, "debuggee open '%s' failed",
              slaveName_.view().data());
    slaveHandle_ = -1;
    return slaveHandle_;
  }
  if (savedAttributes_ != nullptr && tcsetattr(slaveHandle_, TCSANOW, savedAttributes_) != 0) {
    CUL_TRACE(TraceType::error, slaveHandleText, 284_place, "tcsetattr failed");
    closeIfOpen(slaveHandle_);
    return slaveHandle_;
  }
  if (savedWindowSize_ != nullptr && !setWindowSize(slaveHandle_, savedWindowSize_)) {
    CUL_TRACE(TraceType::error, slaveHandleText, 294_place, "ioctl(TIOCSWINSZ) failed");
  }
  return slaveHandle_;
}

HANDLE UNIXStdioPipes::childReadHandle() {
  if (inputIsTerminal_ == 0) {
    return dupAndRewind(inputCopy_, STDIN_FILENO);
  }
  const int slave = slaveHandle();
  return slave < 0 ? STDIN_FILENO : slave;
}

HANDLE UNIXStdioPipes::childWriteHandle(StdFileHandle stream) {
  if (stream != StdOutput && stream != StdError) {
    return -1;
  }
  const bool isOutput = stream == StdOutput;
  if ((isOutput ? outputIsTerminal_ : errorIsTerminal_) == 0) {
    return dupAndTruncate(isOutput ? outputCopy_ : errorCopy_, stream);
  }
  const int slave = slaveHandle();
  return slave < 0 ? static_cast<int>(stream) : slave;
}

HANDLE UNIXStdioPipes::readHandle(StdFileHandle stream) const {
  switch (stream) {
    case StdOutput:
      return outputIsTerminal_ == 0 ? outputCopy_ : masterHandle_;
    case StdError:
      return errorIsTerminal_ == 0 ? errorCopy_ : masterHandle_;
    default:
      StdException::throwException(readHandleText, 259_place, "invalid call", -1);
  }
}

HANDLE UNIXStdioPipes::writeHandle() const {
  return inputIsTerminal_ == 0 ? inputCopy_ : masterHandle_;
}

int UNIXStdioPipes::write(const void* data, unsigned int length) const {
  if (masterHandle_ < 0) {
    return 0;
  }
  const ssize_t written = ::write(masterHandle_, data, length);
  return written < 0 ? 0 : static_cast<int>(written);
}

int UNIXStdioPipes::read(StdFileHandle stream, ByteString& out, unsigned int maximum) const {
  out = ByteString();
  const bool isOnConsole = (stream == StdOutput && outputIsTerminal_ != 0) ||
                           (stream == StdError && errorIsTerminal_ != 0);
  if (!isOnConsole || masterHandle_ < 0) {
    return 0;
  }
  // In pieces that never hold more than is still wanted: what is left in the terminal is what
  // reading byte by byte would leave there.
  char piece[4096];
  std::string text;
  while (text.size() < maximum && isReadyToRead(masterHandle_)) {
    const ssize_t n =
        ::read(masterHandle_, piece, std::min<size_t>(sizeof piece, maximum - text.size()));
    if (n < 1) {
      break;
    }
    text.append(piece, removeZeros(piece, piece + n));
  }
  out = ByteString(text.data(), static_cast<unsigned int>(text.size()));
  return static_cast<int>(out.length());
}

int UNIXStdioPipes::dupAndRewind(int& copy, int fd) {
  closeIfOpen(copy);
  copy = fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  if (copy >= 0) {
    lseek(copy, 0, SEEK_SET);
  }
  return copy;
}

int UNIXStdioPipes::dupAndTruncate(int& copy, int fd) {
  if (dupAndRewind(copy, fd) >= 0) {
    static_cast<void>(ftruncate(copy, 0));
  }
  return copy;
}
