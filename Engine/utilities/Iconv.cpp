#include "Engine/utilities/Iconv.h"

#include <cerrno>

#include "Engine/internal/AcrossFork.h"
#include "Engine/internal/LeafLock.h"

namespace {

// Constant-initialised and never destroyed: strings are converted before main and after exit.
constinit std::mutex iconvMutex;

}  // namespace

size_t iconvDebug(iconv_t descriptor, const char* input, size_t inputLength, char* output,
                  size_t outputSize) {
  if (outputSize == 0) {
    return 0;
  }
  const KeepErrno keepErrno;
  char* in = const_cast<char*>(input);  // iconv's signature: it does not write there.
  char* out = output;
  size_t room = outputSize - 1;
  {
    const LeafLock lock(iconvMutex);
    iconv(descriptor, nullptr, nullptr, nullptr, nullptr);
    while (inputLength != 0) {
      // With input left it has failed.
      iconv(descriptor, &in, &inputLength, &out, &room);
      if (inputLength == 0 || room == 0 || errno == E2BIG) {
        break;
      }
      *out++ = '?';
      --room;
      ++in;
      --inputLength;
    }
  }
  *out = 0;
  return static_cast<size_t>(out - output);
}

bool AcrossFork::holdConversions() noexcept {
  iconvMutex.lock();
  return true;
}

void AcrossFork::releaseConversions() noexcept { iconvMutex.unlock(); }
