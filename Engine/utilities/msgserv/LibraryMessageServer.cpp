#include "Engine/utilities/msgserv/LibraryMessageServer.h"

#include <cstdlib>
#include <string>
#include <string_view>

#include "Engine/internal/FixedLayout.h"
#include "Engine/internal/Tables.h"
#include "Engine/internal/Texts.h"
#include "Engine/utilities/ASCII.h"
#include "Engine/utilities/AssertionFail.h"
#include "Engine/utilities/EnvironmentVariables.h"
#include "Engine/utilities/SharedEntry.h"
#include "Engine/utilities/TraceFlags.h"

// The engine knows this layout: docs/contract.md.
CUL_FIXED_SIZE(LibraryMessageServer, 16);
CUL_FIXED_FIELD(LibraryMessageServer, messageRetriever, 8);

namespace {

constexpr const char* file = "Engine/utilities/msgserv/LibraryMessageServer";
constexpr const char* constructorText =
    "LibraryMessageServer::LibraryMessageServer(const ByteString&, const char*)";

using LanguageSetter = int (*)(const char*);

// Taken only when asked for in full; Hong Kong reads the same script.
constexpr std::string_view taiwan = "zh_TW";
constexpr std::string_view hongKong = "zh_HK";

constexpr std::size_t languageSize = 2;

static_assert(areDifferentBy(messageLocales,
                             [](std::string_view locale) {
                               return locale == taiwan ? taiwan : locale.substr(0, languageSize);
                             }),
              "two letters must tell the languages of messages apart");

const char* chooseLocale(const char* requested) {
  std::string name = requested == nullptr ? "" : requested;
  if (name.size() < languageSize) {
    return messageLocales[0];
  }
  for (std::size_t i = 0; i < languageSize; ++i) {
    name[i] = static_cast<char>(ASCII::toLower(static_cast<unsigned char>(name[i])));
  }
  for (const std::string_view locale : messageLocales) {
    const bool isLanguage = name.compare(0, languageSize, locale, 0, languageSize) == 0;
    if (isLanguage &&
        (locale != taiwan || name.starts_with(taiwan) || name.starts_with(hongKong))) {
      return locale.data();
    }
  }
  return messageLocales[0];
}

void* catalogEntry(const ByteString& catalog, const char* entry) {
  return loadSharedEntry(catalog.view().data(), "libkdebug.a", entry, nullptr);
}

}  // namespace

LibraryMessageServer::LibraryMessageServer(const ByteString& catalog, const char* language) {
  const auto setMessageLanguage =
      reinterpret_cast<LanguageSetter>(catalogEntry(catalog, "setMessageLang"));
  AssertionFail(setMessageLanguage != nullptr ? 1 : 0, file, constructorText, __LINE__,
                "!!setMessageLanguage");
  const char* const locale = language == nullptr ? getMessageLocale() : chooseLocale(language);
  const bool isSet = setMessageLanguage != nullptr && setMessageLanguage(locale) != 0;
  CUL_TRACE(TraceType::active, constructorText, __LINE__,
            "catalog=%s; requested=%s, actual=%s; success=%d", catalog.view().data(),
            language == nullptr ? "NULL" : language, locale, isSet ? 1 : 0);
  messageRetriever = reinterpret_cast<MessageRetriever>(catalogEntry(catalog, "getMessage"));
  AssertionFail(messageRetriever != nullptr ? 1 : 0, file, constructorText, __LINE__,
                "!!_messageRetriever");
}

const char* LibraryMessageServer::find(int set, int number) const {
  return messageRetriever == nullptr ? nullptr : messageRetriever(set, number);
}

EncodedString LibraryMessageServer::getMessage(int set, int number) const {
  return {find(set, number), EncodedString::utf8};
}

ByteString LibraryMessageServer::getRawMessage(int set, int number) const {
  return ByteString(find(set, number));
}

const char* LibraryMessageServer::getMessageLocale() {
  return chooseLocale(std::getenv(environmentVariable("LANG")));
}
