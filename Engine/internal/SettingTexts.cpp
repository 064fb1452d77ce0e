#include "Engine/internal/SettingTexts.h"

#include <algorithm>

#include "Engine/internal/ReadNumber.h"
#include "Engine/utilities/ASCII.h"

namespace {

template <class Number>
std::optional<Number> readWithin(const EncodedString& text, Number minimum, Number maximum) {
  Number number = 0;
  const bool isWithin = readNumber(text, number) && number >= minimum && number <= maximum;
  return isWithin ? std::optional(number) : std::nullopt;
}

}  // namespace

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

std::optional<int> numberWithin(const EncodedString& text, int minimum, int maximum) {
  return readWithin(text, minimum, maximum);
}

std::optional<unsigned> numberWithin(const EncodedString& text, unsigned minimum,
                                     unsigned maximum) {
  return readWithin(text, minimum, maximum);
}

EncodedString withoutWhiteSpace(EncodedString text) {
  text.stripWhiteSpace();
  return text;
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
