#include "Engine/utilities/StdioPipes.h"

#include <algorithm>
#include <atomic>
#include <cstring>

#include "Engine/utilities/ByteString.h"
#include "Engine/utilities/UNIX/UNIXStdioPipes.h"

StdioPipes* StdioPipes::instance() {
  static std::atomic<StdioPipes*> console = nullptr;
  StdioPipes* made = console.load(std::memory_order_acquire);
  if (made == nullptr) {
    made = new UNIXStdioPipes;
    console.store(made, std::memory_order_release);
  }
  return made;
}

void StdioPipes::closePipes() {}

int StdioPipes::write(const ByteString& data) const {
  return write(static_cast<const unsigned char*>(data), data.length());
}

int StdioPipes::read(StdFileHandle stream, void* buffer, unsigned int maximum) const {
  ByteString bytes;
  read(stream, bytes, maximum);
  const unsigned int count = std::min(bytes.length(), maximum);
  if (count != 0) {
    std::memcpy(buffer, static_cast<const unsigned char*>(bytes), count);
  }
  return static_cast<int>(count);
}
