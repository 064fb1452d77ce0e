// Message sources: any bytes read as one, and two as a base and its translation. What is taken
// is found in the catalog, what is written down again reads back.

#include <algorithm>
#include <cstdio>
#include <optional>
#include <utility>

#include "fuzz/Fuzz.h"
#include "programs/messagecompiler/Catalog.h"
#include "programs/messagecompiler/Directives.h"
#include "programs/messagecompiler/MessageSource.h"

namespace {

// Nothing when the source is refused, in one of its lines.
std::optional<Messages> messagesIn(const std::string& source) {
  const ExactBytes exact(source);
  try {
    return parseMessages({exact.data(), exact.size()}, "source");
  } catch (const MessageError& e) {
    const auto lines = 1 + std::count(source.begin(), source.end(), '\n');
    FUZZ_CHECK(e.file == "source" && !e.text.empty());
    FUZZ_CHECK(e.line >= 1 && e.line <= lines);
    return std::nullopt;
  }
}

// The messages written so that every byte of a text is an escape.
std::string sourceOf(const Messages& messages) {
  std::string source;
  for (const auto& [id, message] : messages) {
    source += "$set " + std::to_string(id.set) + '\n' + std::to_string(id.number) + ' ';
    for (const char c : message.text) {
      char escape[5];
      std::snprintf(escape, sizeof escape, "\\%03o", static_cast<unsigned char>(c));
      source += escape;
    }
    source += '\n';
  }
  return source;
}

void checkMessages(const Messages& messages) {
  for (const auto& [id, message] : messages) {
    FUZZ_CHECK(id.set >= 1 && id.number >= 1 && message.line >= 1);
    FUZZ_CHECK(message.text.find('\0') == std::string::npos);
    FUZZ_CHECK(utf8Text(message.text).isValid());
    const Directives directives = directivesOf(message.text);
    FUZZ_CHECK(directives.arguments.size() + directives.malformed <= 3 * message.text.size());
  }
  const std::optional<Messages> again = messagesIn(sourceOf(messages));
  FUZZ_CHECK(again && again->size() == messages.size());
  for (const auto& [id, message] : messages) {
    FUZZ_CHECK(again->at(id).text == message.text);
  }
}

// Each text, and nothing beside it.
void checkLookUp(const Catalog& catalog, const Messages& base, const Messages& chosen) {
  for (const auto& [id, message] : base) {
    const auto own = chosen.find(id);
    const std::string& expected = own == chosen.end() ? message.text : own->second.text;
    const char* const found = catalog.find(id.set, id.number);
    FUZZ_CHECK(found != nullptr && expected == found);
    for (const auto& [set, number] : {std::pair{id.set, id.number - 1}, {id.set - 1, id.number}}) {
      FUZZ_CHECK((catalog.find(set, number) != nullptr) == base.contains({set, number}));
    }
  }
  FUZZ_CHECK(catalog.find(0, 0) == nullptr && catalog.find(-1, 1) == nullptr);
}

bool canBeMade(const Messages& base, const Messages& translated) {
  return !base.empty() && std::all_of(translated.begin(), translated.end(), [&](const auto& entry) {
    const auto original = base.find(entry.first);
    return original != base.end() &&
           directivesOf(original->second.text) == directivesOf(entry.second.text);
  });
}

}  // namespace

void setUpFuzzing() {}

void fuzz(FuzzInput& input) {
  const std::optional<Messages> base = messagesIn(input.text('\f'));
  const std::optional<Messages> translated = messagesIn(input.rest());
  if (!base || !translated) {
    return;
  }
  checkMessages(*base);
  checkMessages(*translated);
  try {
    Catalog catalog({{"en_US", "base", *base}, {"de_DE", "translated", *translated}});
    FUZZ_CHECK(canBeMade(*base, *translated));
    checkLookUp(catalog, *base, *base);
    FUZZ_CHECK(catalog.setLanguage("de_DE"));
    checkLookUp(catalog, *base, *translated);
    FUZZ_CHECK(!catalog.setLanguage("fr_FR"));
    checkLookUp(catalog, *base, *base);
    FUZZ_CHECK(catalog.source().find("getMessage") != std::string::npos);
  } catch (const MessageError& e) {
    FUZZ_CHECK(!canBeMade(*base, *translated));
    FUZZ_CHECK(e.file == (base->empty() ? "base" : "translated") && e.line >= 1);
  }
}
