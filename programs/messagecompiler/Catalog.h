#pragma once

/// \file
/// The message sources of all languages made into one catalog.

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "MessageSource.h"

struct Translation {
  std::string locale;
  std::string file;  ///< for errors
  Messages messages;
};

/// Messages by set and number in several languages, of which the first is the base: it has
/// every message and stands in where a translation has none.
class Catalog {
 public:
  /// \param translations with different locales; at least the base.
  /// \throws MessageError when the base has no message, or a translation has one that the base
  ///   does not have, or one whose directives are not those of the base.
  explicit Catalog(const std::vector<Translation>& translations);

  /// Chooses the language of find().
  /// \return whether the catalog has it; otherwise the base is chosen.
  bool setLanguage(std::string_view locale);

  /// \return null when there is no such message. It lives as long as the catalog.
  [[nodiscard]] const char* find(int set, int number) const;

  /// The C++ source of a library that does the same, as "setMessageLang" and "getMessage". It
  /// needs no header and exports nothing else.
  [[nodiscard]] std::string source() const;

 private:
  struct Language {
    std::string locale;
    std::vector<std::optional<std::string>> texts;  // as many as there are keys
  };

  std::vector<MessageId> keys_;  // ascending
  std::vector<Language> languages_;
  std::size_t chosen_ = 0;
};
