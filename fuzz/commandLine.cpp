// The command line: argument vectors against a plain reading of the option table, the
// debugger's name against the folding of paths step by step, quoting and tokens back and
// forth. What is secret never shows in the trace.

#include <algorithm>
#include <array>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include "Engine/utilities/DebuggerParameters.h"
#include "Engine/utilities/TraceImplementation.h"
#include "Engine/utilities/UNIX/UNIXDebuggerParameters.h"

#include "fuzz/Fuzz.h"

namespace {

using Texts = std::vector<std::string>;

constexpr const char* secret = "Zebra7Quagga";
constexpr const char* toolName = "tool";

const std::string& nameOf(const DebuggerParameters::Option& option) {
  static const Texts& names = []() -> const Texts& {
    auto& made = *new Texts;
    for (const DebuggerParameters::Option& row : DebuggerParameters::options()) {
      made.push_back(bytesOf(EncodedString(row.name)));
    }
    return made;
  }();
  return names[static_cast<size_t>(&option - DebuggerParameters::options().data())];
}

std::string unquoted(const std::string& text) {
  std::string result;
  bool inside = false;
  for (size_t at = 0; at < text.size(); ++at) {
    if (text[at] == '"') {
      inside = !inside;
    } else if (text.compare(at, 2, "\\\"") == 0 || (inside && text.compare(at, 2, "\\\\") == 0)) {
      result += text[++at];
    } else {
      result += text[at];
    }
  }
  return result;
}

std::string token(const std::string& text) {
  if (text.find_first_of(" \"'\\*?<>|") == std::string::npos) {
    return text;
  }
  std::string result = "\"";
  for (const char c : text) {
    result += (c == '"' || c == '\\') ? std::string{'\\', c} : std::string{c};
  }
  return result + '"';
}

// What an argument vector means, read by the table of options.
struct Reading {
  std::vector<std::pair<std::string, std::string>> options;
  std::string debuggee;
  std::string arguments;
  Texts invalid;
  std::string key;
  size_t used = 0;  // arguments in front of what is gathered
  bool attached = false;
  bool ended = false;
  bool quiet = false;
  bool help = false;
  bool daemon = false;
  bool wanted = false;
  bool forced = false;
  bool gathersInvalid = false;

  explicit Reading(const Texts& given) {
    size_t at = 0;
    while (at < given.size() && !ended) {
      const std::string arg = unquoted(given[at]);
      if (attached && !arg.starts_with('-')) {
        break;
      }
      at += take(arg, at + 1 < given.size() ? unquoted(given[at + 1]) : std::string());
    }
    used = at;
    std::string gathered;
    for (size_t rest = at; rest < given.size(); ++rest) {
      gathered.append(rest == at ? "" : " ").append(token(given[rest]));
    }
    gathersInvalid = attached && !gathered.empty();
    if (gathersInvalid) {
      invalid.push_back(gathered);
    } else if (!attached) {
      arguments = gathered;
    }
  }

 private:
  bool attachTo(const std::string& id) {
    if (!id.empty()) {
      attached = true;
      debuggee = id;
    }
    return !id.empty();
  }

  unsigned take(const std::string& arg, const std::string& next) {
    if (!arg.starts_with('-')) {
      debuggee = arg;
      ended = true;
      return 1;
    }
    if (arg == "--") {
      ended = true;
      options.emplace_back(arg, "");
      return 1;
    }
    if (!attached && arg.starts_with("-a") && arg.size() > 2) {
      attachTo(arg.substr(2));
      options.emplace_back("-qpid", arg.substr(2));
      return 1;
    }
    for (const DebuggerParameters::Option& option : DebuggerParameters::options()) {
      const std::string& name = nameOf(option);
      const auto matched = static_cast<size_t>(
          std::mismatch(arg.begin(), arg.end(), name.begin(), name.end()).first - arg.begin());
      const char separator = option.valueWithEquals ? '=' : ' ';
      if ((option.programs & 1) == 0 || matched < option.minimum ||
          (matched < arg.size() && arg[matched] != separator)) {
        continue;
      }
      const bool takesNext =
          matched == arg.size() && option.valueWithEquals && !next.empty() && next.front() != '-';
      const std::string value = matched < arg.size() ? arg.substr(matched + 1)
                                : takesNext          ? next
                                                     : std::string();
      options.emplace_back(name, value);
      if (!use(option.type, value)) {
        invalid.push_back(takesNext ? std::string(arg).append(" ").append(next) : arg);
      }
      return takesNext ? 2 : 1;
    }
    invalid.push_back(arg);
    return 1;
  }

  bool use(DebuggerParameters::ParmType type, const std::string& value) {
    const auto begins = [&value](const auto&... words) {
      return !value.empty() && (std::string(words).starts_with(value) || ...);
    };
    switch (type) {
      case DebuggerParameters::parmHelp:
        help = true;
        return true;
      case DebuggerParameters::parmQuiet:
        quiet = true;
        return true;
      case DebuggerParameters::parmS:
      case DebuggerParameters::parmSci:
        ended = true;
        return true;
      case DebuggerParameters::parmPid:
        return attachTo(value);
      case DebuggerParameters::parmDaemon:
        if (begins("yes", "YES", "Yes")) {
          daemon = true;
        } else if (begins("no", "NO", "No")) {
          daemon = false;
        } else {
          return false;
        }
        return true;
      case DebuggerParameters::parmDownloadZip:
        wanted = value != "no";
        forced = forced || value == "force";
        return true;
      case DebuggerParameters::parmStartupKey:
        key = value;
        return true;
      default:
        return true;
    }
  }
};

// The value of a type is the last one of the first name that was given.
void checkValue(const DebuggerParameters& parameters, const Reading& expected,
                DebuggerParameters::ParmType type) {
  std::string value;
  for (const DebuggerParameters::Option& row : DebuggerParameters::options()) {
    const auto last =
        row.type != type
            ? expected.options.rend()
            : std::find_if(expected.options.rbegin(), expected.options.rend(),
                           [&row](const auto& pair) { return pair.first == nameOf(row); });
    if (last != expected.options.rend()) {
      value = last->second;
      break;
    }
  }
  FUZZ_CHECK(bytesOf(parameters.parm(type)) == value);
  const auto rows = DebuggerParameters::options();
  const auto first =
      std::find_if(rows.begin(), rows.end(), [type](const auto& row) { return row.type == type; });
  FUZZ_CHECK(bytesOf(DebuggerParameters::parmName(type)) == nameOf(*first));
}

void checkOptions(const DebuggerArgList& options, const Reading& expected) {
  FUZZ_CHECK(options.count() == expected.options.size());
  for (unsigned i = 1; i <= options.count(); ++i) {
    FUZZ_CHECK(bytesOf(options.name(i)) == expected.options[i - 1].first);
    FUZZ_CHECK(bytesOf(options.value(i)) == expected.options[i - 1].second);
  }
}

// A copy loses all pairs of the last name, and then all others.
void checkRemoval(const DebuggerArgList& options) {
  DebuggerArgList copy = options;
  if (!copy.isEmpty()) {
    const EncodedString name = copy.name(copy.count());
    FUZZ_CHECK(copy.valueByName(name) == copy.value(copy.count()));
    FUZZ_CHECK(copy.removeArg(name) && !copy.removeArg(name));
    FUZZ_CHECK(copy.indexByName(name) == 0 && copy.valueByName(name).length() == 0);
    for (unsigned i = 1; i <= copy.count(); ++i) {
      FUZZ_CHECK(!(copy.name(i) == name) && options.indexByName(copy.name(i)) != 0);
    }
  }
  copy.deleteAll();
  FUZZ_CHECK(copy.isEmpty());
}

void checkReading(const DebuggerParameters& parameters, const Reading& expected) {
  checkOptions(parameters.debuggerArguments(), expected);
  checkRemoval(parameters.debuggerArguments());
  FUZZ_CHECK(parameters.argumentsUsed() == static_cast<int>(expected.used) + 1);
  const List<EncodedString*>& invalid = parameters.invalidArguments();
  FUZZ_CHECK(invalid.count() == expected.invalid.size());
  for (unsigned i = 0; i < invalid.count(); ++i) {
    FUZZ_CHECK(bytesOf(*invalid[i]) == expected.invalid[i]);
  }
  FUZZ_CHECK(bytesOf(parameters.debuggeeName()) == expected.debuggee);
  FUZZ_CHECK(bytesOf(parameters.debuggeeArguments()) == expected.arguments);
  FUZZ_CHECK(bytesOf(parameters.attach()) == (expected.attached ? expected.debuggee : ""));
  FUZZ_CHECK(parameters.quiet() == expected.quiet);
  FUZZ_CHECK(parameters.helpRequested() == expected.help);
  FUZZ_CHECK(parameters.daemon() == expected.daemon);
  FUZZ_CHECK(parameters.downloadWanted() == expected.wanted);
  FUZZ_CHECK(parameters.downloadForced() == expected.forced);
  const size_t blank = std::min(expected.key.find(' '), expected.key.size());
  const std::string key = expected.key.substr(0, blank);
  std::string argument = blank < expected.key.size() ? expected.key.substr(blank + 1) : "";
  argument = key.empty() ? "" : key == "CLIP" && argument.empty() ? "JETCLIP" : argument;
  FUZZ_CHECK(bytesOf(parameters.startupKey()) == key);
  FUZZ_CHECK(bytesOf(parameters.startupKeyArg()) == argument);
  // Of the options given, and of one more.
  const auto rows = DebuggerParameters::options();
  checkValue(parameters, expected, rows[expected.debuggee.size() % rows.size()].type);
  for (const DebuggerParameters::Option& row : rows) {
    if (std::any_of(expected.options.begin(), expected.options.end(),
                    [&row](const auto& pair) { return pair.first == nameOf(row); })) {
      checkValue(parameters, expected, row.type);
    }
  }
}

// The same arguments, given one by one: they come without quotes, and what follows the options is
// taken in piece by piece.
void checkOneByOne(const Texts& given, const Reading& expected) {
  std::array<char*, 1> nothing = {};
  UNIXDebuggerParameters parameters(0, nothing.data());
  const auto textAt = [&](size_t at) {
    return at < given.size() ? wideText(unquoted(given[at])) : CharString();
  };
  std::string arguments;
  size_t invalid = expected.invalid.size();
  for (size_t at = 0; at < given.size();) {
    at += parameters.addDebuggerArg(textAt(at), textAt(at + 1));
  }
  if (expected.attached) {
    invalid += given.size() - expected.used - (expected.gathersInvalid ? 1 : 0);
  } else {
    for (size_t at = expected.used; at < given.size(); ++at) {
      arguments.append(arguments.empty() ? "" : " ").append(token(unquoted(given[at])));
    }
  }
  checkOptions(parameters.debuggerArguments(), expected);
  FUZZ_CHECK(parameters.invalidArguments().count() == invalid);
  FUZZ_CHECK(bytesOf(parameters.debuggeeName()) == expected.debuggee);
  FUZZ_CHECK(bytesOf(parameters.debuggeeArguments()) == arguments);
}

// The folding of a path, one cut after the other; empty when it climbs above the root.
std::string folded(std::string path) {
  while (true) {
    for (size_t at = path.find("/./"); at != std::string::npos; at = path.find("/./")) {
      path.erase(at, 2);
    }
    if (const size_t at = path.find("//"); at != std::string::npos) {
      path.erase(at, 1);
      continue;
    }
    const size_t at = path.find("/../");
    if (at == std::string::npos) {
      return path;
    }
    if (at == 0) {
      return {};
    }
    const size_t before = path.rfind('/', at - 1);
    path.erase(before == std::string::npos ? 0 : before + 1,
               at + 4 - (before == std::string::npos ? 0 : before + 1));
  }
}

std::string workingDirectory() {
  std::array<char, PATH_MAX> buffer = {};
  FUZZ_CHECK(getcwd(buffer.data(), buffer.size()) != nullptr);
  const std::string result = buffer.data();
  return result == "/" ? "" : result;
}

bool isLink(const std::string& path) {
  struct stat status = {};
  return lstat(path.c_str(), &status) == 0 && S_ISLNK(status.st_mode);
}

void checkName(UNIXDebuggerParameters& parameters, const std::string& name) {
  const std::string before = bytesOf(parameters.debuggerName());
  const bool isAbsolute = name.starts_with('/');
  const bool isRelative = name.starts_with("./") || name.starts_with("../");
  const std::string path = isAbsolute ? name : workingDirectory() + '/' + name;
  FUZZ_CHECK(bytesOf(parameters.resolveRelative(utf8Text(name))) == path);
  if (isLink(path)) {
    return;  // May be a loop, which ends the process.
  }
  parameters.setDebuggerName(utf8Text(name));
  const std::string after = bytesOf(parameters.debuggerName());
  if (name.empty()) {
    FUZZ_CHECK(after == before);
  } else if (isAbsolute || isRelative) {
    FUZZ_CHECK(after == folded(path));
  } else {
    FUZZ_CHECK(after == (name == toolName ? folded(fuzzFolder() + '/' + toolName) : ""));
  }
}

void checkTokens(const std::string& bytes, const std::string& delimiters) {
  const CharString text = wideText(bytes);
  const std::string whole = bytesOf(text);
  FUZZ_CHECK(bytesOf(text.makeToken()) == token(whole));
  FUZZ_CHECK(bytesOf(DebuggerParameters::unquote(text)) == unquoted(whole));
  FUZZ_CHECK(DebuggerParameters::unquote(text.makeQuotedToken()) == text);

  const CharString quote(L"\"");
  CharString line = text.makeQuotedToken() + CharString(L" next");
  FUZZ_CHECK(line.firstQuotedToken(L" ") == quote + text + quote);
  FUZZ_CHECK(line == L" next");

  const CharString set = wideText(delimiters);
  const std::string setBytes = bytesOf(CharString(static_cast<const wchar_t*>(set)));
  for (const bool quoted : {false, true}) {
    CharString left = text;
    while (left.length() != 0) {
      const unsigned before = left.length();
      const CharString part = quoted ? left.firstQuotedToken(set) : left.firstToken(set);
      FUZZ_CHECK(part.length() + left.length() <= before);
      FUZZ_CHECK(left.length() < before);
      FUZZ_CHECK(text.endsWith(left) || left.length() == 0);
      FUZZ_CHECK(left.length() == 0 || set.indexOf(left[1U]) != 0);
    }
  }

  for (unsigned start = 0; start <= text.length() + 1; start += text.length() / 8 + 1) {
    unsigned position = start;
    const CharString run = text.scanString(position, set);
    FUZZ_CHECK(position <= text.length() + 1);
    FUZZ_CHECK(run.length() <= text.length());
    position = start;
    static_cast<void>(text.scanUnsigned(position));
    FUZZ_CHECK(position >= 1 && position <= text.length() + 1);
    position = start;
    static_cast<void>(text.scanHex(position));
    FUZZ_CHECK(position >= 1 && position <= text.length() + 1);
  }

  if (whole.find('\0') == std::string::npos) {
    long expected = 17;
    long value = 17;
    char behind = 0;
    const bool isNumber = std::sscanf(whole.c_str(), "%ld%c", &expected, &behind) == 1;
    FUZZ_CHECK(text.asValue(value) == isNumber);
    FUZZ_CHECK(value == expected);
    long back = 0;
    FUZZ_CHECK(CharString::makeFromNumeric(value).asValue(back) && back == value);
  }
}

// What diagnosticDump() writes into a trace of its own.
std::string dumped(const DebuggerParameters& parameters) {
  static const MemoryFile file;
  const CharString configuration = wideText(file.path() + ",PMD");
  TraceImplementation* const trace = TraceImplementation::instance(configuration);
  FUZZ_CHECK(trace->isActive());
  parameters.diagnosticDump();
  delete trace;
  return file.bytes();
}

}  // namespace

void setUpFuzzing() {
  const std::string tool = fuzzFolder() + '/' + toolName;
  std::ofstream(tool) << "";
  FUZZ_CHECK(chmod(tool.c_str(), 0755) == 0);
  setenv("PATH", fuzzFolder().c_str(), 1);
  // From now on nothing makes a trace unasked.
  delete TraceImplementation::instance(L"");
}

void fuzz(FuzzInput& input) {
  const unsigned kind = input.choice(4);
  if (kind == 1) {
    const std::string delimiters = input.text();
    checkTokens(input.rest(), delimiters);
    return;
  }
  Texts given;
  while (!input.isEmpty()) {
    given.push_back(input.text('\0'));
  }
  if (kind == 2) {
    std::array<char*, 1> nothing = {};
    UNIXDebuggerParameters parameters(0, nothing.data());
    // The root folder's name ends with a separator.
    FUZZ_CHECK(chdir(given.size() % 2 == 0 ? "/" : fuzzFolder().c_str()) == 0);
    for (const std::string& name : given) {
      checkName(parameters, name);
    }
    return;
  }
  // The input may have come upon the secret itself.
  const bool hasSecret =
      kind == 3 && std::none_of(given.begin(), given.end(), [](const std::string& argument) {
        return argument.find("Zeb") != std::string::npos;
      });
  if (hasSecret) {
    // Some as one argument, some as two.
    constexpr std::array beginnings = {
        "-qkeystorepass=", "-qhrdmkey=", "-qkeystorepas=", "-QHRDMKEY=", "-keystorepass=",
        "-qkeystroepass=", "-qhrdmkey",  "-qkeystorepas",  "-hrdmkey"};
    const size_t hash = std::hash<std::string>()(given.empty() ? "" : given.front());
    const auto place = given.begin() + static_cast<std::ptrdiff_t>(hash % (given.size() + 1));
    const std::string beginning = beginnings[hash / 16 % beginnings.size()];
    if (beginning.back() == '=') {
      given.insert(place, beginning + secret);
    } else {
      given.insert(place, {beginning, secret});
    }
  }
  Texts vector = given;
  std::string program = "/opt/debugger";
  std::vector<char*> argv = {program.data()};
  for (std::string& argument : vector) {
    argv.push_back(argument.data());
  }
  const auto count = static_cast<int>(argv.size());
  argv.push_back(nullptr);
  const UNIXDebuggerParameters parameters(count, argv.data());
  FUZZ_CHECK(vector == given);
  FUZZ_CHECK(bytesOf(parameters.debuggerName()) == "/opt/debugger");
  // Arguments come in the native code page.
  for (std::string& argument : given) {
    argument = bytesOf(EncodedString(argument.c_str(), EncodedString::native));
  }
  const Reading expected(given);
  checkReading(parameters, expected);
  checkOneByOne(given, expected);
  FUZZ_CHECK(DebuggerParameters::parmName(DebuggerParameters::ParmType{}).length() == 0);
  parameters.diagnosticDump();  // There is no trace.
  if (hasSecret) {
    const std::string dump = dumped(parameters);
    FUZZ_CHECK(dump.find("Invalid Args:") != std::string::npos);
    FUZZ_CHECK(dump.find(secret) == std::string::npos);
  }
}
