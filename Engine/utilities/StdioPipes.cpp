#include "Engine/utilities/StdioPipes.h"

#include <algorithm>
#include <cstring>

#include "Engine/internal/ProcessWide.h"
#include "Engine/utilities/ByteString.h"
#include "Engine/utilities/UNIX/UNIXStdioPipes.h"

StdioPipes* StdioPipes::instance() {
  static constinit ProcessWide<StdioPipes> console;
  return &console.get([] { return new UNIXStdioPipes; });
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
