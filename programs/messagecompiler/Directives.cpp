#include "Directives.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <optional>

// Read here and not by the C library's parse_printf_format(), which calls "%d" and "%u", or "%c"
// and
// "%hhd", the same, gives each argument one type whatever the second use of it asks for, and says
// nothing about what it does not know.

namespace {

constexpr std::string_view flags = "-+ #0'I";
constexpr std::string_view digits = "0123456789";
constexpr std::string_view lengthCharacters = "hlqLjzZt";
constexpr std::array<std::string_view, 11> lengths = {"",  "hh", "h", "l", "ll", "q",
                                                      "L", "j",  "z", "Z", "t"};
constexpr std::string_view conversions = "diouxXeEfFgGaAcsCSpn";
// These two take no argument.
constexpr std::string_view withoutArgument = "%m";

std::string_view takeAnyOf(std::string_view& text, std::string_view characters) {
  const std::string_view taken =
      text.substr(0, std::min(text.find_first_not_of(characters), text.size()));
  text.remove_prefix(taken.size());
  return taken;
}

class Reader {
 public:
  Directives read(std::string_view text) {
    for (std::size_t at = text.find('%'); at != std::string_view::npos; at = text.find('%')) {
      text.remove_prefix(at + 1);
      if (!readOne(text)) {
        ++result_.malformed;
      }
    }
    if (isNumbered_ && last_ > 0) {
      ++result_.malformed;
    }
    return result_;
  }

 private:
  // The number in front of a "$", which is taken too; nothing when there is no such number.
  static std::optional<unsigned> takePosition(std::string_view& text) {
    std::string_view rest = text;
    const std::string_view number = takeAnyOf(rest, digits);
    unsigned position = 0;
    std::from_chars(number.data(), number.data() + number.size(), position);
    if (position == 0 || !rest.starts_with('$')) {
      return std::nullopt;
    }
    text = rest.substr(1);
    return position;
  }

  bool add(std::optional<unsigned> position, const std::string& type) {
    isNumbered_ = isNumbered_ || position.has_value();
    const unsigned argument = position ? *position : ++last_;
    return result_.arguments.try_emplace(argument, type).first->second == type;
  }

  // A width or a precision.
  bool readSize(std::string_view& text) {
    if (!text.starts_with('*')) {
      takeAnyOf(text, digits);
      return true;
    }
    text.remove_prefix(1);
    return add(takePosition(text), "*");
  }

  // False when it is malformed. The text then begins behind what has been read of it.
  bool readOne(std::string_view& text) {
    const std::optional<unsigned> position = takePosition(text);
    takeAnyOf(text, flags);
    bool isGood = readSize(text);
    if (text.starts_with('.')) {
      text.remove_prefix(1);
      isGood = readSize(text) && isGood;
    }
    std::string type(takeAnyOf(text, lengthCharacters));
    isGood = isGood && std::find(lengths.begin(), lengths.end(), type) != lengths.end();
    if (text.empty()) {
      return false;
    }
    const char conversion = text[0];
    if (withoutArgument.find(conversion) != std::string_view::npos) {
      text.remove_prefix(1);
      return isGood && !position;
    }
    if (conversions.find(conversion) == std::string_view::npos) {
      return false;
    }
    text.remove_prefix(1);
    type += conversion;
    return add(position, type) && isGood;
  }

  Directives result_;
  unsigned last_ = 0;  // of the arguments without a number
  bool isNumbered_ = false;
};

}  // namespace

Directives directivesOf(std::string_view text) { return Reader().read(text); }
