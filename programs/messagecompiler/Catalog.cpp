#include "Catalog.h"

#include <algorithm>

#include "Directives.h"

namespace {

std::string nameOf(const MessageId& id) {
  return "message " + std::to_string(id.number) + " of set " + std::to_string(id.set);
}

void check(const Translation& translation, const Translation& base) {
  for (const auto& [id, message] : translation.messages) {
    const auto original = base.messages.find(id);
    if (original == base.messages.end()) {
      throw MessageError{translation.file, message.line,
                         "there is no " + nameOf(id) + " in " + base.file};
    }
    if (directivesOf(message.text) != directivesOf(original->second.text)) {
      throw MessageError{translation.file, message.line,
                         nameOf(id) + " takes other arguments than in " + base.file + ":" +
                             std::to_string(original->second.line)};
    }
  }
}

// Everything but plain ASCII is octal: no character set of a compiler has a say, and no digit
// that follows is taken for one of the escape.
std::string literal(std::string_view text) {
  std::string result = "\"";
  for (const char c : text) {
    const auto code = static_cast<unsigned char>(c);
    const bool isPlain = code >= 0x20 && code < 0x7F && c != '"' && c != '\\' && c != '?';
    if (isPlain) {
      result += c;
    } else {
      result += '\\';
      for (const unsigned shift : {6U, 3U, 0U}) {
        result += static_cast<char>('0' + ((code >> shift) & 7));
      }
    }
  }
  return result + '"';
}

constexpr std::string_view head = R"(// Made by cul-message-compiler from message sources.

namespace {

struct Key {
  int set;
  int number;
};

)";

constexpr std::string_view code = R"(
const char* const* chosen = languages[0].texts;

bool isSame(const char* a, const char* b) {
  for (; *a == *b; ++a, ++b) {
    if (*a == '\0') {
      return true;
    }
  }
  return false;
}

}  // namespace

extern "C" {

__attribute__((visibility("default"))) int setMessageLang(const char* locale);
__attribute__((visibility("default"))) const char* getMessage(int set, int number);

int setMessageLang(const char* locale) {
  for (const Language& language : languages) {
    if (locale != nullptr && isSame(language.locale, locale)) {
      __atomic_store_n(&chosen, language.texts, __ATOMIC_RELEASE);
      return 1;
    }
  }
  __atomic_store_n(&chosen, languages[0].texts, __ATOMIC_RELEASE);
  return 0;
}

const char* getMessage(int set, int number) {
  unsigned first = 0;
  unsigned end = sizeof keys / sizeof keys[0];
  while (first < end) {
    const unsigned middle = first + (end - first) / 2;
    const Key& key = keys[middle];
    if (key.set == set && key.number == number) {
      const char* text = __atomic_load_n(&chosen, __ATOMIC_ACQUIRE)[middle];
      return text != nullptr ? text : languages[0].texts[middle];
    }
    if (key.set < set || (key.set == set && key.number < number)) {
      first = middle + 1;
    } else {
      end = middle;
    }
  }
  return nullptr;
}
}
)";

}  // namespace

Catalog::Catalog(const std::vector<Translation>& translations) {
  const Translation& base = translations.front();
  if (base.messages.empty()) {
    throw MessageError{base.file, 1, "there is no message"};
  }
  for (const auto& entry : base.messages) {
    keys_.push_back(entry.first);
  }
  for (const Translation& translation : translations) {
    check(translation, base);
    Language& language = languages_.emplace_back();
    language.locale = translation.locale;
    for (const MessageId& key : keys_) {
      const auto found = translation.messages.find(key);
      language.texts.push_back(
          found == translation.messages.end() ? std::nullopt : std::optional(found->second.text));
    }
  }
}

bool Catalog::setLanguage(std::string_view locale) {
  const auto found =
      std::find_if(languages_.begin(), languages_.end(),
                   [locale](const Language& language) { return language.locale == locale; });
  chosen_ = found == languages_.end() ? 0 : static_cast<std::size_t>(found - languages_.begin());
  return found != languages_.end();
}

const char* Catalog::find(int set, int number) const {
  const MessageId wanted = {set, number};
  const auto found = std::lower_bound(keys_.begin(), keys_.end(), wanted);
  if (found == keys_.end() || *found != wanted) {
    return nullptr;
  }
  const auto index = static_cast<std::size_t>(found - keys_.begin());
  const std::optional<std::string>& text = languages_[chosen_].texts[index];
  return text ? text->c_str() : languages_[0].texts[index]->c_str();
}

std::string Catalog::source() const {
  std::string result(head);
  result += "constexpr Key keys[] = {\n";
  for (const MessageId& key : keys_) {
    result += "    {" + std::to_string(key.set) + ", " + std::to_string(key.number) + "},\n";
  }
  result += "};\n";
  std::string table;
  for (std::size_t i = 0; i < languages_.size(); ++i) {
    const std::string texts = "texts" + std::to_string(i);
    result += "\nconstexpr const char* " + texts + "[] = {\n";
    for (const std::optional<std::string>& text : languages_[i].texts) {
      result += "    " + (text ? literal(*text) : "nullptr") + ",\n";
    }
    result += "};\n";
    table += "    {" + literal(languages_[i].locale) + ", " + texts + "},\n";
  }
  result +=
      "\nstruct Language {\n"
      "  const char* locale;\n"
      "  const char* const* texts;\n"
      "};\n\n"
      "constexpr Language languages[] = {\n" +
      table + "};\n";
  return result += code;
}
