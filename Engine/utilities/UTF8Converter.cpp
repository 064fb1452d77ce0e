#include "Engine/utilities/UTF8Converter.h"

#include <clocale>
#include <cstdlib>
#include <langinfo.h>
#include <optional>
#include <string>

#include "Engine/internal/ConvertedText.h"
#include "Engine/internal/FixedLayout.h"
#include "Engine/internal/LoaderGuard.h"
#include "Engine/internal/ProcessWide.h"
#include "Engine/utilities/ByteString.h"
#include "Engine/utilities/EncodedString.h"
#include "Engine/utilities/EnvironmentVariables.h"
#include "Engine/utilities/Iconv.h"
#include "Engine/utilities/KeepErrno.h"

// The engine knows this layout: docs/contract.md.
CUL_FIXED_SIZE(UTF8Converter, 24);
CUL_FIXED_FIELD(UTF8Converter, toNative, 0);
CUL_FIXED_FIELD(UTF8Converter, toUTF8, 8);
CUL_FIXED_FIELD(UTF8Converter, codepage, 16);

namespace {

constexpr const char* utf8Name = "UTF-8";

// No code page needs more bytes of UTF-8 for one of its own.
constexpr size_t longestForOneByte = 6;

// The locale that the environment chooses, until the end of the scope.
class EnvironmentLocale {
 public:
  EnvironmentLocale() {
    // What cannot be put back is left alone.
    if (const char* const present = setlocale(LC_ALL, nullptr); present != nullptr) {
      saved_ = present;
      setlocale(LC_ALL, "");
    }
  }
  EnvironmentLocale(const EnvironmentLocale&) = delete;
  EnvironmentLocale& operator=(const EnvironmentLocale&) = delete;
  ~EnvironmentLocale() {
    if (saved_) {
      setlocale(LC_ALL, saved_->c_str());
    }
  }

 private:
  std::optional<std::string> saved_;
};

// What is left of `n` bytes when only ASCII can be told: each other byte is a "?", unless
// it continues a sequence of UTF-8 and `utf8` is set.
void keepAscii(const char* bytes, unsigned n, bool utf8, ConvertedText& result) {
  for (unsigned i = 0; i < n && bytes[i] != 0; ++i) {
    const auto byte = static_cast<unsigned char>(bytes[i]);
    if (byte < 0x80) {
      result.add(bytes[i]);
    } else if (!utf8 || byte >= 0xC0) {
      result.add('?');
    }
  }
}

void convertTo(iconv_t descriptor, const char* bytes, unsigned n, bool utf8,
               ConvertedText& result) {
  if (descriptor == invalidIconv) {
    keepAscii(bytes, n, utf8, result);
  } else {
    result.convert(descriptor, bytes, n);
  }
}

}  // namespace

UTF8Converter& UTF8Converter::instance() {
  static constinit ProcessWide<UTF8Converter> converter;
  return converter.get([] { return new UTF8Converter; });
}

UTF8Converter::UTF8Converter() : toNative(invalidIconv), toUTF8(invalidIconv), codepage(nullptr) {
  const LoaderGuard guard("UTF8Converter::UTF8Converter()", __LINE__);
  const KeepErrno keepErrno;
  const char* name = getenv(environmentVariable("QVX_DBG_CODEPAGE"));
  if (name != nullptr && *name != 0 && open(name, true)) {
    return;
  }
  const EnvironmentLocale locale;
  // The C library keeps the data of a locale that was once the process's for ever.
  open(nl_langinfo(CODESET), false);
}

UTF8Converter::~UTF8Converter() {
  const LoaderGuard guard("UTF8Converter::~UTF8Converter()", __LINE__);
  for (const iconv_t descriptor : {toNative, toUTF8}) {
    if (descriptor != invalidIconv) {
      iconv_close(descriptor);
    }
  }
}

// Opens what can be opened; when `both` are needed, all or nothing.
bool UTF8Converter::open(const char* name, bool both) {
  IconvDescriptor out(name, utf8Name);
  IconvDescriptor in(utf8Name, name);
  if (both && !(out.isOpen() && in.isOpen())) {
    return false;
  }
  toNative = out.release();
  toUTF8 = in.release();
  codepage = name;
  return true;
}

EncodedString UTF8Converter::convertToUTF8(const char* bytes, unsigned n, const char* named) const {
  if (n == 0) {
    return {};
  }
  ConvertedText result(longestForOneByte * n + 1);
  if (named == nullptr || *named == 0) {
    convertTo(toUTF8, bytes, n, false, result);
  } else {
    const LoaderGuard guard(
        "EncodedString UTF8Converter::convertToUTF8(const char*, unsigned int, const char*) const",
        __LINE__);
    // From UTF-8 to the named code page, though the name says otherwise: kept (docs/contract.md).
    const IconvDescriptor descriptor(named, utf8Name);
    convertTo(descriptor.get(), bytes, n, false, result);
  }
  return {result.text(), result.length(), EncodedString::utf8};
}

ByteString UTF8Converter::convertFromUTF8(const char* bytes, unsigned n) const {
  if (n == 0) {
    return {};
  }
  ConvertedText result(size_t{n} + 1);
  convertTo(toNative, bytes, n, true, result);
  return {result.text(), result.length()};
}
