#include "programs/enginetrace/Options.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <charconv>
#include <cstddef>
#include <iterator>
#include <string_view>

#include "programs/common/Printable.h"
#include "programs/enginetrace/Messages.h"
#include "programs/enginetrace/Pattern.h"

namespace {

using Words = std::vector<std::string>;

// In the order of the table.
enum Id : std::size_t {
  types,
  notTypes,
  errors,
  thread,
  function,
  grep,
  ignoreCase,
  process,
  since,
  until,
  after,
  before,
  around,
  head,
  tail,
  follow,
  date,
  colour,
  pager,
  json,
  traceEvent,
  html,
  summary,
  help,
  version,
};

struct Row {
  const char* names;
  const char* value;  // as the help calls it; null for an option that takes none
  Message description;
};

constexpr Row table[] = {
    {"--type", "TYPE,...", Message::onlyTypes},
    {"--not", "TYPE,...", Message::notTypes},
    {"--errors", nullptr, Message::onlyErrors},
    {"--thread", "NAME", Message::onlyThread},
    {"--function", "GLOB", Message::onlyFunctions},
    {"--grep", "REGEX", Message::onlyFound},
    {"-i,--ignore-case", nullptr, Message::ignoreCase},
    {"--process", "PROCESS,...", Message::onlyProcesses},
    {"--since", "TIME", Message::since},
    {"--until", "TIME", Message::until},
    {"-A,--after-context", "N", Message::linesAfter},
    {"-B,--before-context", "N", Message::linesBefore},
    {"-C,--context", "N", Message::linesAround},
    {"--head", "N", Message::head},
    {"--tail", "N", Message::tail},
    {"-f,--follow", nullptr, Message::follow},
    {"--date", nullptr, Message::dates},
    {"--color", "WHEN", Message::colour},
    {"--pager", nullptr, Message::pager},
    {"--json", nullptr, Message::json},
    {"--trace-event", nullptr, Message::traceEvent},
    {"--html", "FILE", Message::html},
    {"--summary", nullptr, Message::summary},
    {"-h,--help", nullptr, Message::help},
    {"--version", nullptr, Message::version},
};
static_assert(std::size(table) == version + 1);

// What is wrong was told.
struct Refused {};

template <class... Arguments>
[[noreturn]] void refuse(Message message, const Arguments&... arguments) {
  complain(message, printable(arguments).c_str()...);
  throw Refused();
}

// The words of the command line, told apart.
class CommandLine {
 public:
  // Options end at "--"; all behind it are paths.
  CommandLine(int argc, const char* const* argv) {
    const Words words(argv + std::min(argc, 1), argv + argc);
    const auto end = std::find(words.begin(), words.end(), "--");
    addOptions();
    parse({words.begin(), end});
    for (const std::string& word : app_.remaining()) {
      if (word.size() > 1 && word.front() == '-') {
        refuse(Message::invalidOption, word);
      }
      paths_.push_back(word);
    }
    if (end != words.end()) {
      paths_.insert(paths_.end(), end + 1, words.end());
    }
  }

  [[nodiscard]] const Words& paths() const { return paths_; }
  [[nodiscard]] bool has(Id id) const { return options_[id]->count() > 0; }
  [[nodiscard]] const Words& valuesOf(Id id) const { return options_[id]->results(); }

  // Of an option that was given and takes one value: the last one counts.
  [[nodiscard]] const std::string& valueOf(Id id) const { return valuesOf(id).back(); }

  [[nodiscard]] std::string nameOf(Id id) const { return options_[id]->get_name(); }

  [[noreturn]] void refuseValueOf(Id id) const {
    refuse(Message::invalidValue, nameOf(id), valueOf(id));
  }

 private:
  void addOptions() {
    app_.set_help_flag();
    app_.allow_extras();
    for (const Row& row : table) {
      if (row.value == nullptr) {
        options_.push_back(app_.add_flag(row.names)->disable_flag_override());
      } else {
        options_.push_back(app_.add_option(row.names)->take_all()->allow_extra_args(false));
      }
    }
    for (const Id id : {types, notTypes, process}) {
      options_[id]->delimiter(',');
    }
  }

  // The option that a word is the name of, alone or in front of its value.
  [[nodiscard]] const CLI::Option* optionOf(const std::string& word) const {
    return app_.get_option_no_throw(word.substr(0, word.find('=')));
  }

  // The value of "--grep=" is empty, and not the next word.
  [[nodiscard]] Words withEmptyValues(const Words& words) const {
    Words result;
    bool isValue = false;
    for (const std::string& word : words) {
      const CLI::Option* const option = isValue ? nullptr : optionOf(word);
      const bool takesValue = option != nullptr && option->get_items_expected_min() > 0;
      const std::size_t sign = word.find('=');
      if (option != nullptr && !takesValue && sign != std::string::npos) {
        refuse(Message::noValue, word.substr(0, sign));
      }
      if (takesValue && sign + 1 == word.size()) {
        result.insert(result.end(), {word.substr(0, sign), ""});
      } else {
        result.push_back(word);
      }
      isValue = takesValue && sign == std::string::npos;
    }
    return result;
  }

  void parse(Words words) {
    words = withEmptyValues(words);
    std::reverse(words.begin(), words.end());
    try {
      app_.parse(words);
    } catch (const CLI::ParseError& error) {
      // "--head: 1 required TEXT missing" or "json was given a disallowed flag override".
      const std::string what = error.what();
      const std::size_t end = what.find_first_of(": ");
      if (end != std::string::npos && what[end] == ':') {
        refuse(Message::valueMissing, what.substr(0, end));
      }
      refuse(Message::noValue, "--" + what.substr(0, end));
    }
  }

  CLI::App app_;
  std::vector<CLI::Option*> options_;
  Words paths_;
};

std::optional<std::uint64_t> numberOf(const CommandLine& line, Id id) {
  if (!line.has(id)) {
    return std::nullopt;
  }
  const std::string& text = line.valueOf(id);
  std::uint64_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size()) {
    line.refuseValueOf(id);
  }
  return number;
}

std::optional<TimeLimit> timeOf(const CommandLine& line, Id id) {
  if (!line.has(id)) {
    return std::nullopt;
  }
  const std::optional<TimeLimit> time = TimeLimit::parse(line.valueOf(id));
  if (!time) {
    line.refuseValueOf(id);
  }
  return time;
}

// Trace types are in capitals.
Words typesOf(const CommandLine& line, Id id) {
  Words result = line.valuesOf(id);
  for (std::string& type : result) {
    std::transform(type.begin(), type.end(), type.begin(), [](char c) {
      return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
    });
  }
  return result;
}

Colour colourOf(const CommandLine& line) {
  const std::string when = line.has(colour) ? line.valueOf(colour) : "auto";
  if (when == "always") {
    return Colour::always;
  }
  if (when == "never") {
    return Colour::never;
  }
  if (when != "auto") {
    line.refuseValueOf(colour);
  }
  return Colour::automatic;
}

void refuseTogether(const CommandLine& line, std::initializer_list<Id> ids) {
  const Id* first = nullptr;
  for (const Id& id : ids) {
    if (line.has(id)) {
      if (first != nullptr) {
        refuse(Message::notTogether, line.nameOf(*first), line.nameOf(id));
      }
      first = &id;
    }
  }
}

Form formOf(const CommandLine& line) {
  refuseTogether(line, {json, traceEvent, html, summary});
  // These end with what is known at the end only, and a pager goes on reading by itself.
  for (const Id id : {traceEvent, html, summary, pager}) {
    refuseTogether(line, {follow, id});
  }
  return line.has(json)         ? Form::json
         : line.has(traceEvent) ? Form::traceEvent
         : line.has(html)       ? Form::html
         : line.has(summary)    ? Form::summary
                                : Form::text;
}

// A page must not take the place of a trace, when somebody has forgotten its name.
std::string pageOf(const CommandLine& line) {
  if (!line.has(html)) {
    return "";
  }
  const std::string& name = line.valueOf(html);
  if (name.empty()) {
    line.refuseValueOf(html);
  }
  if (name.ends_with(".trc")) {
    refuse(Message::isATrace, name);
  }
  return name;
}

void checkPatterns(const CommandLine& line) {
  for (const std::string& glob : line.valuesOf(function)) {
    if (const std::string error = Pattern::glob(glob).error(); !error.empty()) {
      refuse(Message::invalidPattern, line.nameOf(function), glob, error);
    }
  }
  if (line.has(grep)) {
    const std::string& regex = line.valueOf(grep);
    if (const std::string error = Pattern(regex, line.has(ignoreCase)).error(); !error.empty()) {
      refuse(Message::invalidPattern, line.nameOf(grep), regex, error);
    }
  }
}

void readFilters(const CommandLine& line, Options& options) {
  options.types = typesOf(line, types);
  if (line.has(errors)) {
    options.types.insert(options.types.end(), {"ERROR", "WARNING"});
  }
  options.notTypes = typesOf(line, notTypes);
  options.threads = line.valuesOf(thread);
  checkPatterns(line);
  options.functions = line.valuesOf(function);
  if (line.has(grep)) {
    options.pattern = line.valueOf(grep);
  }
  options.ignoreCase = line.has(ignoreCase);
  options.processes = line.valuesOf(process);
  options.since = timeOf(line, since);
  options.until = timeOf(line, until);
}

void readAmounts(const CommandLine& line, Options& options) {
  const std::uint64_t both = numberOf(line, around).value_or(0);
  options.after = numberOf(line, after).value_or(both);
  options.before = numberOf(line, before).value_or(both);
  refuseTogether(line, {head, tail});
  options.head = numberOf(line, head);
  options.tail = numberOf(line, tail);
}

Options optionsOf(const CommandLine& line) {
  Options options;
  options.wantsHelp = line.has(help);
  options.wantsVersion = line.has(version);
  if (options.wantsHelp || options.wantsVersion) {
    return options;
  }
  readFilters(line, options);
  readAmounts(line, options);
  options.form = formOf(line);
  options.page = pageOf(line);
  options.colour = colourOf(line);
  options.hasDates = line.has(date);
  options.usesPager = line.has(pager);
  options.follows = line.has(follow);
  options.paths = line.paths();
  if (options.paths.empty()) {
    refuse(Message::noFile);
  }
  return options;
}

// "-i, --ignore-case" or "    --html FILE"
std::string formOf(const Row& row) {
  const std::string names = row.names;
  std::string result =
      names.starts_with("--") ? "    " + names : names.substr(0, 3) + " " + names.substr(3);
  return row.value != nullptr ? result + " " + row.value : result;
}

}  // namespace

std::optional<Options> parseOptions(int argc, const char* const* argv) {
  try {
    return optionsOf(CommandLine(argc, argv));
  } catch (const Refused&) {
    return std::nullopt;
  }
}

std::string helpText() {
  std::size_t width = 0;
  for (const Row& row : table) {
    width = std::max(width, formOf(row).size());
  }
  std::string text = messageText(Message::usage) + "\n" + messageText(Message::whatItDoes) +
                     "\n\n" + messageText(Message::options) + "\n";
  for (const Row& row : table) {
    std::string form = formOf(row);
    form.resize(width, ' ');
    text += "  " + form + "  " + messageText(row.description) + "\n";
  }
  return text;
}
