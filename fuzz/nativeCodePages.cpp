// The native code page, as the environment names it or its locale has it. It is chosen once in a
// process: each input has one of its own.

#include <cstdlib>
#include <cstring>
#include <langinfo.h>
#include <locale.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

#include "Engine/utilities/Descriptor.h"
#include "Engine/utilities/Iconv.h"
#include "Engine/utilities/UTF8Converter.h"
#include "Engine/utilities/UnicodeUtilities.h"

#include "fuzz/Fuzz.h"

namespace {

bool isKnown(const std::string& name) {
  return !name.empty() && IconvDescriptor("UTF-8", name.c_str()).isOpen() &&
         IconvDescriptor(name.c_str(), "UTF-8").isOpen();
}

std::string codePageOfLocale() {
  const locale_t locale = newlocale(LC_ALL_MASK, "", nullptr);
  if (locale == nullptr) {
    return nl_langinfo(CODESET);
  }
  std::string result = nl_langinfo_l(CODESET, locale);
  freelocale(locale);
  return result;
}

void checkChoice(const std::string& name, const std::string& text) {
  const std::string before = setlocale(LC_ALL, nullptr);
  const std::string expected = isKnown(name) ? name : codePageOfLocale();
  const ExactBytes bytes(text);
  const EncodedString read(bytes.data(), bytes.size(), EncodedString::native);
  FUZZ_CHECK(EncodedString::nativeCodepage() == expected);
  FUZZ_CHECK(setlocale(LC_ALL, nullptr) == before);
  FUZZ_CHECK(bytesOf(read).find('\0') == std::string::npos);
  // The other way to the same conversion takes what is said to be UTF-8 as it is.
  if (expected != "UTF-8") {
    const EncodedString named =
        UnicodeUtilities::convertFromCP(upToZero(text).c_str(), expected.c_str());
    FUZZ_CHECK(upToZero(text) != text || read == named);
  }
  const std::string written = bytesOf(read.convert(EncodedString::native));
  FUZZ_CHECK(written.find('\0') == std::string::npos && written.size() <= read.length());
}

}  // namespace

void setUpFuzzing() {}

// The name of the code page, the name of the locale, and a text.
void fuzz(FuzzInput& input) {
  const std::string name = upToZero(input.text());
  const std::string language = upToZero(input.text());
  const std::string text = input.rest();
  const pid_t child = fork();
  FUZZ_CHECK(child >= 0);
  if (child == 0) {
    setenv("QVX_DBG_CODEPAGE", name.c_str(), 1);
    setenv("LC_ALL", language.c_str(), 1);
    checkChoice(name, text);
    _exit(0);
  }
  int status = 0;
  FUZZ_CHECK(uninterrupted([&] { return waitpid(child, &status, 0); }) == child);
  FUZZ_CHECK(status == 0);
}
