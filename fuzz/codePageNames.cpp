// Names of code pages and languages, as users and environments give them: any bytes are a name that
// is known, and then means what iconv says, or one that is not, and then what stands in for it.

#include <array>
#include <cstring>
#include <iconv.h>
#include <string>
#include <string_view>

#include "Engine/utilities/Iconv.h"
#include "Engine/utilities/UnicodeUtilities.h"
#include "Engine/utilities/msgserv/LibraryMessageServer.h"

#include "fuzz/Fuzz.h"
#include "programs/enginehost/CodePageStreams.h"

namespace {

// Whether iconv opens the name in both directions.
bool isKnown(const std::string& name) {
  bool result = name.size() <= IconvDescriptor::longestName;
  for (const bool isFrom : {true, false}) {
    const iconv_t descriptor = !result  ? invalidIconv
                               : isFrom ? iconv_open("UTF-8", name.c_str())
                                        : iconv_open(name.c_str(), "UTF-8");
    result = descriptor != invalidIconv;
    if (result) {
      iconv_close(descriptor);
    }
  }
  return result;
}

void checkConversions(const std::string& name, const std::string& text) {
  const bool known = isKnown(name);
  FUZZ_CHECK((IconvDescriptor("UTF-8", name.c_str()).isOpen() &&
              IconvDescriptor(name.c_str(), "UTF-8").isOpen()) == known);
  const EncodedString read = UnicodeUtilities::convertFromCP(text.c_str(), name.c_str());
  FUZZ_CHECK(bytesOf(read).find('\0') == std::string::npos);
  const EncodedString written(ByteString(text.data(), static_cast<unsigned>(text.size())),
                              name.c_str());
  FUZZ_CHECK(bytesOf(written).find('\0') == std::string::npos);
  if (!name.empty() && !IconvDescriptor("UTF-8", name.c_str()).isOpen()) {
    // As if it had not been named.
    FUZZ_CHECK(read == EncodedString(text.c_str(), EncodedString::native));
  }
}

void checkStreams(const std::string& name, const std::string& text) {
  const std::unique_ptr<CodePageReader> reader = codePageReader(name.c_str());
  const std::unique_ptr<CodePageWriter> writer = codePageWriter(name.c_str());
  const bool isOwn = name == "native" || name == "escapes" || name == "Cp1047";
  const bool isLocales = name.empty() || name[0] == '/';
  if (!isOwn && reader != nullptr && writer != nullptr) {
    FUZZ_CHECK(!isLocales && name.size() <= IconvDescriptor::longestName);
  }
  if (reader != nullptr && writer != nullptr) {
    writer->write(reader->read(text, true), true);
  }
}

// The language in other words: the first two letters, and which script of Chinese.
std::string expectedLocale(const std::string& language) {
  std::string two;
  for (const char c : language.substr(0, 2)) {
    two += c >= 'A' && c <= 'Z' ? static_cast<char>(c + ('a' - 'A')) : c;
  }
  constexpr std::array locales = {"de_DE", "es_ES", "fr_FR", "it_IT", "ja_JP", "ko_KR", "pt_BR"};
  for (const std::string_view locale : locales) {
    if (two.size() == 2 && locale.starts_with(two)) {
      return std::string(locale);
    }
  }
  if (two != "zh") {
    return "en_US";
  }
  const std::string country = language.substr(2, 3);
  return country == "_TW" || country == "_HK" ? "zh_TW" : "zh_CN";
}

}  // namespace

void setUpFuzzing() {}

void fuzz(FuzzInput& input) {
  const std::string name = upToZero(input.text());
  const std::string text = upToZero(input.rest());
  checkConversions(name, text);
  checkStreams(name, text);
  const FuzzVariable language("LANG", name);
  FUZZ_CHECK(LibraryMessageServer::getMessageLocale() == expectedLocale(name));
}
