#pragma once

#include "Engine/utilities/Export.h"
#include "Engine/utilities/msgserv/XPG4MsgServer.h"

/// \file
/// A message catalog in a shared library.
///
/// The library is opened as loadSharedEntry() opens it, by the name between "lib" and ".so",
/// and is never unloaded. It has two entries with C linkage:
/// \code
///   int setMessageLang(const char* locale);       // "de_DE"; nonzero on success
///   const char* getMessage(int set, int number);  // UTF-8 that stays; null when there is none
/// \endcode
/// Its language is set once, when the server is made, to one of ::messageLocales. A name chooses
/// the one that begins with the same two letters, of either case: "DE_at.UTF-8" is served as
/// "de_DE". Behind its two letters a name counts as written: only names that begin with
/// "zh_TW" or "zh_HK" (Hong Kong reads the same characters) are served as "zh_TW", all other
/// Chinese as "zh_CN". Any other name is served as "en_US". Two servers of one catalog share
/// the library: the language that was set last is the language of both.

/// The locales that there are for catalogs, in the order in which they are looked through. A new
/// one goes behind the last.
inline constexpr const char* messageLocales[] = {"en_US", "de_DE", "es_ES", "fr_FR", "it_IT",
                                                 "ja_JP", "ko_KR", "pt_BR", "zh_TW", "zh_CN"};

class CUL_EXPORT LibraryMessageServer : public XPG4MsgServer::SystemMessageServer {
 public:
  /// Loads the catalog and sets its language. Failures of the dynamic loader are told on
  /// standard error, one line for each of the two entries; then a missing entry is a failed
  /// assertion, see AssertionFail(). A catalog that refuses the language serves what it has;
  /// the trace tells it.
  /// \param catalog  the name between "lib" and ".so".
  /// \param language chooses the locale; null: getMessageLocale() does.
  /// \throws StdException when assertions throw.
  LibraryMessageServer(const ByteString& catalog, const char* language);

  /// Empty also when the catalog has no function to get messages with, or has not been loaded.
  [[nodiscard]] EncodedString getMessage(int set, int number) const override;
  /// As getMessage(), the bytes as they stand in the catalog.
  [[nodiscard]] ByteString getRawMessage(int set, int number) const override;

  /// The locale that the environment variable "LANG" chooses. No other variable has a say.
  [[nodiscard]] static const char* getMessageLocale();

 private:
  using MessageRetriever = const char* (*)(int, int);

  [[nodiscard]] const char* find(int set, int number) const;

  MessageRetriever messageRetriever = nullptr;
};
