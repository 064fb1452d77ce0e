#include "programs/enginetrace/Output.h"

#include <cerrno>
#include <cstddef>
#include <unistd.h>

namespace {

constexpr std::size_t bufferSize = 256 * 1024;

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

Output::Output(int descriptor) : descriptor_(descriptor) { buffer_.reserve(bufferSize); }

void Output::put(std::string_view bytes) {
  if (buffer_.size() + bytes.size() > bufferSize) {
    flush();
    if (bytes.size() >= bufferSize) {
      writeAll(descriptor_, bytes);
      return;
    }
  }
  buffer_.append(bytes);
}

void Output::flush() {
  writeAll(descriptor_, buffer_);
  buffer_.clear();
}
