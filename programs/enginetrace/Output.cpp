#include "programs/enginetrace/Output.h"

#include <cerrno>
#include <cstddef>
#include <fcntl.h>
#include <unistd.h>

namespace {

// As much as anybody may ask for.
constexpr int roomOfPipe = 1024 * 1024;

void writeAll(int descriptor, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t n = ::write(descriptor, bytes.data(), bytes.size());
    if (n >= 0) {
      bytes.remove_prefix(static_cast<std::size_t>(n));
    } else if (errno != EINTR) {
      throw OutputFailed(errno, std::generic_category());
    }
  }
}

}  // namespace

// In a pipe of usual size, writer and reader wait for each other: one fills it, the other empties
// it.
Output::Output(int descriptor)
    : descriptor_(descriptor), buffer_(std::make_unique_for_overwrite<char[]>(size)) {
  static_cast<void>(fcntl(descriptor, F_SETPIPE_SZ, roomOfPipe));
}

void Output::putBehindOthers(std::string_view bytes) {
  flush();
  if (bytes.size() >= size) {
    writeAll(descriptor_, bytes);
  } else {
    put(bytes);
  }
}

void Output::flush() {
  writeAll(descriptor_, {buffer_.get(), filled_});
  filled_ = 0;
}
