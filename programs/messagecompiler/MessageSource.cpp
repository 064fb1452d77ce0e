#include "MessageSource.h"

#include <algorithm>
#include <charconv>
#include <utility>

#include "Utf8.h"

namespace {

constexpr std::string_view blanks = " \t";

// The characters behind a backslash, and what they stand for.
constexpr std::string_view escapes = "ntvbrf\\";
constexpr std::string_view escaped = "\n\t\v\b\r\f\\";

bool isOctal(char c) { return c >= '0' && c <= '7'; }

std::string_view withoutLeadingBlanks(std::string_view text) {
  return text.substr(std::min(text.find_first_not_of(blanks), text.size()));
}

// Takes the characters up to the next blank off the text.
std::string_view takeWord(std::string_view& text) {
  const std::size_t size = std::min(text.find_first_of(blanks), text.size());
  const std::string_view word = text.substr(0, size);
  text.remove_prefix(size);
  return word;
}

class Parser {
 public:
  Parser(std::string_view source, const std::string& file) : rest_(source), file_(file) {}

  Messages parse() {
    while (!rest_.empty()) {
      readLine();
      if (line_.empty() || line_.find_first_not_of(blanks) == std::string::npos) {
        continue;
      }
      if (line_[0] == '$') {
        takeDirective(std::string_view(line_).substr(1));
      } else if (line_[0] >= '0' && line_[0] <= '9') {
        takeMessage(line_);
      } else {
        fail("neither a directive nor a message");
      }
    }
    return std::move(messages_);
  }

 private:
  [[noreturn]] void fail(const std::string& text) const {
    throw MessageError{file_, lineNumber_, text};
  }

  // A line with those that continue it.
  void readLine() {
    line_.clear();
    lineNumber_ = linesRead_ + 1;
    bool isContinued = true;
    while (isContinued && !rest_.empty()) {
      const std::size_t size = std::min(rest_.find('\n'), rest_.size());
      const std::string_view part = rest_.substr(0, size);
      // An even number of them are backslashes of the text.
      const std::size_t last = part.find_last_not_of('\\');
      const std::size_t backslashes = size - (last == std::string_view::npos ? 0 : last + 1);
      isContinued = backslashes % 2 != 0;
      if (isContinued && size == rest_.size()) {
        fail("nothing follows the backslash at the end");
      }
      line_ += part.substr(0, isContinued ? size - 1 : size);
      rest_.remove_prefix(std::min(size + 1, rest_.size()));
      ++linesRead_;
    }
  }

  int number(std::string_view digits, const char* what) const {
    int value = 0;
    const char* const end = digits.data() + digits.size();
    const auto [stop, error] = std::from_chars(digits.data(), end, value);
    if (error != std::errc() || stop != end || value < 1) {
      fail(std::string(what) + " is no number from 1 to 2147483647");
    }
    return value;
  }

  int setNumber(std::string_view text) const {
    text = withoutLeadingBlanks(text);
    return number(takeWord(text), "the set");
  }

  void takeDirective(std::string_view text) {
    const std::string_view name = takeWord(text);
    if (name.empty()) {
      return;
    }
    if (name == "set") {
      set_ = setNumber(text);
    } else if (name == "delset") {
      const int set = setNumber(text);
      std::erase_if(messages_, [set](const auto& entry) { return entry.first.set == set; });
    } else if (name == "quote") {
      takeQuote(withoutLeadingBlanks(text));
    } else {
      fail("there is no directive $" + std::string(name));
    }
  }

  void takeQuote(std::string_view text) {
    const std::string_view word = takeWord(text);
    if (!word.empty() && (characterSize(word) != word.size() || word == "\\")) {
      fail("the quotation mark is not a single character");
    }
    quote_ = word;
  }

  void takeMessage(std::string_view text) {
    const MessageId id = {set_, number(takeWord(text), "the message")};
    if (text.empty()) {
      messages_.erase(id);
      return;
    }
    text.remove_prefix(1);
    SourceMessage message = {textFrom(text), lineNumber_};
    const auto [entry, isNew] = messages_.try_emplace(id, std::move(message));
    if (!isNew) {
      fail("message " + std::to_string(id.number) + " of set " + std::to_string(id.set) +
           " has a text in line " + std::to_string(entry->second.line));
    }
  }

  std::string textFrom(std::string_view source) const {
    const bool isQuoted = !quote_.empty() && source.starts_with(quote_);
    source.remove_prefix(isQuoted ? quote_.size() : 0);
    std::string text;
    while (!source.empty() && !(isQuoted && source.starts_with(quote_))) {
      text += source[0] == '\\' ? takeEscape(source) : takeCharacter(source);
    }
    if (isQuoted) {
      if (source.empty()) {
        fail("the quotation has no end");
      }
      if (!withoutLeadingBlanks(source.substr(quote_.size())).empty()) {
        fail("there is more behind the quotation");
      }
    }
    if (text.find('\0') != std::string::npos) {
      fail("the text has a zero byte");
    }
    if (!isUtf8(text)) {
      fail("the text is not UTF-8");
    }
    return text;
  }

  static std::string takeCharacter(std::string_view& source) {
    const std::string_view character =
        source.substr(0, std::max<std::size_t>(characterSize(source), 1));
    source.remove_prefix(character.size());
    return std::string(character);
  }

  std::string takeEscape(std::string_view& source) const {
    source.remove_prefix(1);
    // A line does not end in a single backslash: it would have been continued.
    if (isOctal(source[0])) {
      return takeOctal(source);
    }
    if (const std::size_t at = escapes.find(source[0]); at != std::string_view::npos) {
      source.remove_prefix(1);
      return std::string(escaped.substr(at, 1));
    }
    return takeCharacter(source);
  }

  std::string takeOctal(std::string_view& source) const {
    constexpr std::size_t most = 3;
    int value = 0;
    for (std::size_t i = 0; i < most && !source.empty() && isOctal(source[0]); ++i) {
      value = value * 8 + (source[0] - '0');
      source.remove_prefix(1);
    }
    if (value > 0xFF) {
      fail("the octal digits stand for no byte");
    }
    return {static_cast<char>(value)};
  }

  std::string_view rest_;
  const std::string& file_;
  std::string line_;
  unsigned lineNumber_ = 0;
  unsigned linesRead_ = 0;
  int set_ = 1;
  std::string quote_;
  Messages messages_;
};

}  // namespace

Messages parseMessages(std::string_view source, const std::string& file) {
  return Parser(source, file).parse();
}
