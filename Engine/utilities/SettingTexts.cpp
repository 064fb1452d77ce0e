#include "Engine/utilities/SettingTexts.h"

#include <algorithm>
#include <charconv>
#include <system_error>

#include "Engine/utilities/ASCII.h"

std::string_view withoutBlanks(std::string_view text) noexcept {
  text.remove_prefix(std::min(text.find_first_not_of(' '), text.size()));
  return text.substr(0, text.find_last_not_of(' ') + 1);
}

std::string keywordOf(std::string_view text) {
  std::string word(withoutBlanks(text));
  std::transform(word.begin(), word.end(), word.begin(), [](char c) {
    return static_cast<char>(ASCII::toUpper(static_cast<unsigned char>(c)));
  });
  return word;
}

std::optional<long long> wholeNumber(std::string_view text) noexcept {
  constexpr std::string_view whiteSpace = " \t\n\v\f\r";
  text.remove_prefix(std::min(text.find_first_not_of(whiteSpace), text.size()));
  if (text.starts_with('+')) {
    text.remove_prefix(1);
    if (text.starts_with('-')) {
      return std::nullopt;
    }
  }
  long long number = 0;
  const char* const end = text.data() + text.size();
  const auto [behind, error] = std::from_chars(text.data(), end, number);
  if (error != std::errc() || behind != end) {
    return std::nullopt;
  }
  return number;
}

EncodedString rangeText(const EncodedString& minimum, const EncodedString& maximum) {
  return minimum + EncodedString(L" - ") + maximum;
}

void appendTo(EncodedString& texts, const EncodedString& separator, const EncodedString& text) {
  if (texts.length() != 0) {
    texts += separator;
  }
  texts += text;
}

EncodedString joined(const OwningList<EncodedString>& texts) {
  const EncodedString separator(L", ");
  EncodedString result;
  for (const EncodedString* text : texts.list()) {
    appendTo(result, separator, *text);
  }
  return result;
}
