// Setting values: any text given to settings of every kind, those of the registry and some
// with tables of any kind. What is taken reads back, what is refused changes nothing.

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdint>
#include <cstdio>
#include <deque>
#include <memory>
#include <optional>
#include <type_traits>
#include <vector>

#include "Engine/utilities/DebuggerBooleanSetting.h"
#include "Engine/utilities/DebuggerEnumSetting.h"
#include "Engine/utilities/DebuggerIntegerSetting.h"
#include "Engine/utilities/DebuggerListSetting.h"
#include "Engine/utilities/DebuggerPathSetting.h"
#include "Engine/utilities/DebuggerSettings.h"
#include "Engine/utilities/DebuggerStringSetting.h"
#include "Engine/utilities/DebuggerUnsignedSetting.h"
#include "Engine/utilities/FileName.h"

#include "fuzz/Fuzz.h"

namespace {

constexpr int noIdentifier = 9999;  // has no default
constexpr auto changeable = static_cast<DebuggerSetting::SettingControl>(67);

// Everything that a refused value must leave alone.
struct State {
  std::string value;
  DebuggerSetting::Origin origin;
  unsigned number;
  std::vector<std::string> paths;

  explicit State(DebuggerSetting& setting)
      : value(bytesOf(setting.getValue())), origin(setting.getOrigin()), number(0) {
    if (const auto* numeric = setting.asNumericSetting(); numeric != nullptr) {
      number = numeric->getValueAsUnsigned();
      FUZZ_CHECK(static_cast<unsigned>(numeric->getValueAsInt()) == number);
      FUZZ_CHECK(numeric->getValueAsBool() == (number != 0));
    }
    if (const auto* path = setting.asPathSetting(); path != nullptr) {
      for (const FileName* name : path->getPaths()) {
        paths.push_back(bytesOf(*name));
      }
    }
  }
  bool operator==(const State&) const = default;
};

std::vector<std::string> split(const std::string& text, const char* separators) {
  std::vector<std::string> result;
  for (size_t at = text.find_first_not_of(separators); at != std::string::npos;
       at = text.find_first_not_of(separators, at)) {
    const size_t end = std::min(text.find_first_of(separators, at), text.size());
    result.push_back(text.substr(at, end - at));
    at = end;
  }
  return result;
}

std::string stripped(const std::string& text, const char* what) {
  const size_t first = text.find_first_not_of(what);
  return first == std::string::npos ? std::string()
                                    : text.substr(first, text.find_last_not_of(what) - first + 1);
}

std::string keyword(std::string text) {
  for (char& c : text) {
    c = c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
  }
  return stripped(text, " ");
}

// What `sscanf` makes of a text, when it lies from `minimum` to `maximum`.
template <class Number>
std::optional<Number> numberWithin(const std::string& text, Number minimum, Number maximum) {
  Number number = 0;
  char behind = 0;
  const char* const format = std::is_signed_v<Number> ? "%d%c" : "%u%c";
  const bool isNumber = std::sscanf(text.c_str(), format, &number, &behind) == 1;
  return isNumber && number >= minimum && number <= maximum ? std::optional(number) : std::nullopt;
}

// Gives a value and checks what holds for every kind.
bool offer(DebuggerSetting& setting, const std::string& text) {
  const State before(setting);
  const bool taken = setting.setValue(utf8Text(text));
  const State after(setting);
  FUZZ_CHECK(taken || after == before);
  FUZZ_CHECK(!taken || after.origin == DebuggerSetting::Changed ||
             after.origin == DebuggerSetting::Default);
  return taken;
}

// The value as text stands for the same value.
void checkReadsBack(DebuggerSetting& setting) {
  const State once(setting);
  FUZZ_CHECK(offer(setting, once.value));
  const State again(setting);
  FUZZ_CHECK(again.value == once.value && again.number == once.number && again.paths == once.paths);
}

void checkText(DebuggerStringSetting& setting, const std::string& text, unsigned minimum,
               unsigned maximum) {
  const unsigned length = utf8Text(text).charCount();
  const bool taken = offer(setting, text);
  FUZZ_CHECK(taken == ((minimum == DebuggerStringSetting::noLimit || length >= minimum) &&
                       (maximum == DebuggerStringSetting::noLimit || length <= maximum)));
  if (!taken) {
    return;
  }
  FUZZ_CHECK(bytesOf(setting.getValue()) == text);
  if (setting.asPathSetting() != nullptr) {
    FUZZ_CHECK(State(setting).paths == split(text, ":"));
  }
  checkReadsBack(setting);
}

template <class Number>
void checkNumber(DebuggerSetting& setting, const std::string& text, Number minimum,
                 Number maximum) {
  const std::string given = stripped(text, " \t\n\r");
  const std::optional<Number> expected = numberWithin(given, minimum, maximum);
  FUZZ_CHECK(offer(setting, text) == expected.has_value());
  FUZZ_CHECK(bytesOf(setting.getPermittedValues()) ==
             std::to_string(minimum) + " - " + std::to_string(maximum));
  if (expected) {
    FUZZ_CHECK(setting.asNumericSetting()->getValueAsUnsigned() ==
               static_cast<unsigned>(*expected));
    FUZZ_CHECK(bytesOf(setting.getValue()) == given);
    checkReadsBack(setting);
  }
}

void checkBoolean(DebuggerBooleanSetting& setting, const std::string& text) {
  FUZZ_CHECK(bytesOf(setting.getPermittedValues()) == "YES/NO, Y/N, TRUE/FALSE, T/F, ON/OFF, 1/0");
  const std::string word = keyword(text);
  const auto isOneOf = [&](const auto&... words) { return ((word == words) || ...); };
  const bool isOn = isOneOf("YES", "Y", "TRUE", "T", "ON", "1");
  const bool isOff = isOneOf("NO", "N", "FALSE", "F", "OFF", "0");
  FUZZ_CHECK(offer(setting, text) == (isOn || isOff));
  if (isOn || isOff) {
    FUZZ_CHECK(bytesOf(setting.getValue()) == (isOn ? "1" : "0"));
    FUZZ_CHECK(setting.getValueAsUnsigned() == (isOn ? 1 : 0));
    checkReadsBack(setting);
  }
}

struct Item {
  std::string name;
  unsigned number;
  bool sets;
};

std::vector<std::string> namesOf(const std::vector<Item>& items) {
  std::vector<std::string> names(items.size());
  std::transform(items.begin(), items.end(), names.begin(),
                 [](const Item& item) { return item.name; });
  return names;
}

std::string joined(const std::vector<std::string>& names, const char* separator) {
  std::string result;
  for (const std::string& name : names) {
    result.append(result.empty() ? "" : separator).append(name);
  }
  return result;
}

void checkEnum(DebuggerEnumSetting& setting, const std::vector<Item>& items,
               const std::string& text) {
  FUZZ_CHECK(bytesOf(setting.getPermittedValues()) == joined(namesOf(items), ", "));
  const std::string word = keyword(text);
  const auto wanted = std::find_if(items.rbegin(), items.rend(), [&](const Item& item) {
    return word == item.name || word == std::to_string(item.number);
  });
  FUZZ_CHECK(offer(setting, text) == (wanted != items.rend()));
  if (wanted != items.rend()) {
    FUZZ_CHECK(bytesOf(setting.getValue()) == wanted->name);
    FUZZ_CHECK(setting.getValueAsUnsigned() == wanted->number);
  }
}

// The bits that a list of names makes.
std::optional<unsigned> bitsOf(const std::vector<Item>& items, bool acceptsAllAndNone,
                               const std::string& text) {
  unsigned bits = 0;
  for (const std::string& name : split(text, ", ")) {
    const auto item = std::find_if(items.rbegin(), items.rend(),
                                   [&](const Item& candidate) { return candidate.name == name; });
    if (item != items.rend()) {
      bits = item->sets ? bits | item->number : bits & ~item->number;
    } else if (acceptsAllAndNone && (name == "ALL" || name == "NONE")) {
      bits = name == "ALL" ? ~0U : 0;
    } else {
      return std::nullopt;
    }
  }
  return bits;
}

// The names of the items that the bits cover.
std::string canonicalText(const std::vector<Item>& items, unsigned bits) {
  std::vector<std::string> names;
  for (const Item& item : items) {
    const unsigned set = bits & item.number;
    if (item.sets && item.number == ~0U && set == ~0U) {
      return item.name;
    }
    if (!item.sets ? set == 0 : item.number == 0 ? bits == 0 : set == item.number) {
      names.push_back(item.name);
    }
  }
  return joined(names, ",");
}

// \param hasDefault whether the setting's identifier has a default with names in it.
void checkList(DebuggerListSetting& setting, const std::vector<Item>& items, bool acceptsAllAndNone,
               bool hasDefault, const std::string& text) {
  FUZZ_CHECK(bytesOf(setting.getPermittedValues()) == joined(namesOf(items), ", "));
  const std::optional<unsigned> bits = bitsOf(items, acceptsAllAndNone, text);
  const bool isEmpty = split(text, ", ").empty();
  const bool taken = offer(setting, text);
  FUZZ_CHECK(taken == (isEmpty ? hasDefault : bits.has_value()));
  if (!taken) {
    return;
  }
  if (isEmpty) {
    FUZZ_CHECK(setting.getOrigin() == DebuggerSetting::Default);
  } else {
    FUZZ_CHECK(setting.getOrigin() == DebuggerSetting::Changed);
    FUZZ_CHECK(setting.getValueAsUnsigned() == *bits);
  }
  const unsigned number = setting.getValueAsUnsigned();
  const std::string value = bytesOf(setting.getValue());
  FUZZ_CHECK(bitsOf(items, acceptsAllAndNone, value) == number);
  const std::string canonical = canonicalText(items, number);
  const bool readsBack =
      !split(canonical, ", ").empty() && bitsOf(items, acceptsAllAndNone, canonical) == number;
  if (readsBack) {
    FUZZ_CHECK(value == canonical);
  } else if (!isEmpty) {
    FUZZ_CHECK(value == joined(split(text, ", "), ","));
  }
  FUZZ_CHECK(offer(setting, value));
  FUZZ_CHECK(setting.getValueAsUnsigned() == number);
  FUZZ_CHECK(bytesOf(setting.getValue()) == value);
}

class Listener : public DebuggerSettings::Notification {
 public:
  void settingChanged(DebuggerSetting* setting) override {
    ++calls;
    last = setting;
  }
  unsigned calls = 0;
  DebuggerSetting* last = nullptr;
};

// The items of the registry's own tables, by the name of the setting.
const std::vector<Item>& registeredItems(const std::string& name) {
  static const std::vector<Item> languages = {
      {"NONE ", 0, true},    {"C", 1, true},    {"C++", 2, true}, {"CPP", 2, true},
      {"PL/I", 4, true},     {"PLI", 4, true},  {"RPG", 5, true}, {"COBOL", 6, true},
      {"FORTRAN", 11, true}, {"UPC", 15, true}, {"X10", 16, true}};
  static const std::vector<Item> stepped = {
      {"C", 2, true},       {"C++", 4, true},     {"CPP", 4, true},    {"PL/I", 16, true},
      {"PLI", 16, true},    {"RPG", 32, true},    {"COBOL", 64, true}, {"FORTRAN", 2048, true},
      {"UPC", 32768, true}, {"X10", 65536, true}, {"ALL", ~0U, true},  {"NONE", 0, true}};
  static const std::vector<Item> steps = {
      {"INCLUDE", 2, true}, {"NOINCLUDE", 2, false}, {"DEEP", 1, true}, {"SHALLOW", 1, false}};
  static const std::vector<Item> assertions = {
      {"EXCEPTION", 1, true}, {"NOEXCEPTION", 1, false}, {"POPUP", 2, true}, {"NOPOPUP", 2, false}};
  static const std::vector<Item> sources = {
      {"DATE", 1, true}, {"NODATE", 1, false}, {"CONTENT", 2, true}, {"NOCONTENT", 2, false}};
  static const std::vector<Item> filters = {
      {"ALL", 0, true}, {"ASSEMBLER", 0, true}, {"SOURCE", 1, true}, {"ALL_SOURCE", 2, true}};
  static const std::vector<Item> consoles = {
      {"REMOTE", 0, true}, {"GUI", 1, true}, {"LOCAL", 2, true}};
  static const std::vector<Item> forks = {
      {"PARENT", 0, true}, {"BOTH", 1, true}, {"BOTHRUN", 2, true}};
  static const std::vector<Item> execs = {{"STOP", 0, true}, {"RUN", 1, true}};
  static const std::vector<Item> none;
  return name == "LANGUAGE"        ? languages
         : name == "SOURCESTEP"    ? stepped
         : name == "STEP_DEBUG"    ? steps
         : name == "ASSERTION"     ? assertions
         : name == "SOURCE_CHECK"  ? sources
         : name == "SOURCE_FILTER" ? filters
         : name == "CONSOLE"       ? consoles
         : name == "FORK"          ? forks
         : name == "EXEC"          ? execs
                                   : none;
}

void checkRegistered(DebuggerSetting& setting, const std::string& text) {
  static_cast<void>(setting.setValue(setting.getDefault()));
  const std::string name = bytesOf(setting.getName());
  if (DebuggerStringSetting* const string = setting.asStringSetting(); string != nullptr) {
    const unsigned longest = name == "HRDM_KEY" ? 8 : DebuggerStringSetting::noLimit;
    checkText(*string, text, 0, longest);
  } else if (setting.asUnsignedSetting() != nullptr) {
    const std::string range = bytesOf(setting.getPermittedValues());
    checkNumber(setting, text, static_cast<unsigned>(std::stoul(range)),
                static_cast<unsigned>(std::stoul(range.substr(range.find('-') + 1))));
  } else if (DebuggerBooleanSetting* const boolean = setting.asBooleanSetting();
             boolean != nullptr) {
    checkBoolean(*boolean, text);
  } else if (DebuggerEnumSetting* const choice = setting.asEnumSetting(); choice != nullptr) {
    checkEnum(*choice, registeredItems(name), text);
  } else {
    DebuggerListSetting* const list = setting.asListSetting();
    FUZZ_CHECK(list != nullptr);
    checkList(*list, registeredItems(name), name == "SOURCESTEP" || name == "SOURCE_CHECK", true,
              text);
  }
}

// The same through the registry, which asks the setting's control first and tells of changes.
void checkThroughRegistry(DebuggerSetting& setting, const std::string& text) {
  DebuggerSettings& registry = *DebuggerSettings::instance();
  static_cast<void>(setting.setValue(setting.getDefault()));
  const State before(setting);
  Listener listener;
  registry.registerHandler(listener, true);
  const bool taken = registry.setSetting(&setting, utf8Text(text));
  registry.registerHandler(listener, false);
  const State after(setting);
  FUZZ_CHECK(listener.calls == (taken ? 1 : 0));
  FUZZ_CHECK(!taken || listener.last == &setting);
  FUZZ_CHECK(taken || after == before);
  const bool mayChange = (setting.getControl() & DebuggerSetting::Changeable) != 0;
  static_cast<void>(setting.setValue(setting.getDefault()));
  FUZZ_CHECK(taken == (mayChange && setting.setValue(utf8Text(text))));
  FUZZ_CHECK(!taken || State(setting).value == after.value);
}

// Names of items as the registry's tables hold them: not empty, wide, zero-terminated.
class Items {
 public:
  explicit Items(FuzzInput& input) {
    const unsigned count = input.choice(8);
    for (unsigned i = 0; i < count; ++i) {
      const unsigned number = input.choice(2) == 0 ? input.choice(16) : input.word();
      const bool sets = input.choice(2) == 0;
      const CharString name = wideText(input.text(';'));
      const wchar_t* const chars = name;
      names_.emplace_back(chars);
      items.push_back({bytesOf(names_.back()), number, sets});
      enumItems_.push_back({names_.back(), number});
      listItems_.push_back({names_.back(), number, sets});
    }
    enumItems_.push_back({nullptr, 0});
    listItems_.push_back({nullptr, 0, false});
  }

  [[nodiscard]] const DebuggerEnumSetting::EnumSettingItem* forEnum() const {
    return enumItems_.data();
  }
  [[nodiscard]] const DebuggerListSetting::ListSettingItem* forList() const {
    return listItems_.data();
  }

  std::vector<Item> items;

 private:
  std::deque<CharString> names_;  // stay where they are
  std::vector<DebuggerEnumSetting::EnumSettingItem> enumItems_;
  std::vector<DebuggerListSetting::ListSettingItem> listItems_;
};

void checkOwn(FuzzInput& input) {
  const EncodedString name(L"FUZZED");
  switch (input.choice(6)) {
    case 0: {
      const auto minimum = static_cast<int>(input.word());
      const auto maximum = static_cast<int>(input.word());
      DebuggerIntegerSetting setting(name, changeable, 1, noIdentifier, minimum, maximum);
      FUZZ_CHECK(setting.asIntegerSetting() == &setting && setting.asUnsignedSetting() == nullptr);
      checkNumber(setting, input.text(), minimum, maximum);
      checkNumber(setting, std::to_string(minimum), minimum, maximum);
      checkNumber(setting, std::to_string(maximum + std::int64_t{1}), minimum, maximum);
      break;
    }
    case 1: {
      const unsigned minimum = input.word();
      const unsigned maximum = input.word();
      DebuggerUnsignedSetting setting(name, changeable, 1, noIdentifier, minimum, maximum);
      checkNumber(setting, input.text(), minimum, maximum);
      checkNumber(setting, std::to_string(maximum), minimum, maximum);
      checkNumber(setting, std::to_string(minimum - std::int64_t{1}), minimum, maximum);
      break;
    }
    case 2: {
      const auto minimum = static_cast<unsigned short>(input.choice(8));
      const auto maximum = static_cast<unsigned short>(input.choice(16));
      DebuggerStringSetting setting(name, changeable, 1, noIdentifier, minimum, maximum);
      checkText(setting, input.text(), minimum, maximum);
      checkText(setting, input.rest(), minimum, maximum);
      break;
    }
    case 3: {
      const auto minimum = static_cast<unsigned short>(input.choice(8));
      DebuggerPathSetting setting(name, changeable, 1, noIdentifier, minimum,
                                  DebuggerStringSetting::noLimit);
      checkText(setting, input.text(), minimum, DebuggerStringSetting::noLimit);
      checkText(setting, input.rest(), minimum, DebuggerStringSetting::noLimit);
      break;
    }
    case 4: {
      const Items table(input);
      DebuggerEnumSetting setting(name, changeable, table.forEnum(), 1, noIdentifier);
      checkEnum(setting, table.items, input.text());
      checkEnum(setting, table.items, input.rest());
      break;
    }
    default: {
      const bool acceptsAllAndNone = input.choice(2) == 1;
      const Items table(input);
      DebuggerListSetting setting(name, changeable, table.forList(), 1, noIdentifier,
                                  acceptsAllAndNone ? 1 : 0);
      checkList(setting, table.items, acceptsAllAndNone, false, input.text());
      checkList(setting, table.items, acceptsAllAndNone, false, input.rest());
    }
  }
}

}  // namespace

void setUpFuzzing() {}

void fuzz(FuzzInput& input) {
  if (input.choice(3) == 1) {
    checkOwn(input);
    return;
  }
  const List<DebuggerSetting*>& settings = DebuggerSettings::instance()->getAllSettings();
  DebuggerSetting& setting = *settings[input.choice(settings.count())];
  const std::string text = input.rest();
  checkRegistered(setting, text);
  checkThroughRegistry(setting, text);
}
