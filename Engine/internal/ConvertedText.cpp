#include "Engine/internal/ConvertedText.h"

#include <algorithm>
#include <climits>
#include <cstring>

#include "Engine/utilities/Iconv.h"

ConvertedText::ConvertedText(size_t size) : area_(small_), size_(size) {
  if (size > sizeof small_) {
    large_ = std::make_unique_for_overwrite<char[]>(size);
    area_ = large_.get();
  }
}

void ConvertedText::convert(iconv_t descriptor, const char* input, size_t inputLength) {
  iconvDebug(descriptor, input, inputLength, area_, size_);
  length_ = strlen(area_);
}

unsigned ConvertedText::length() const noexcept {
  return static_cast<unsigned>(std::min<size_t>(length_, UINT_MAX));
}
