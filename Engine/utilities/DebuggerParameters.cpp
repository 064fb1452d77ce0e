#include "Engine/utilities/DebuggerParameters.h"

#include <algorithm>
#include <initializer_list>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Engine/internal/ProcessWide.h"
#include "Engine/internal/Texts.h"
#include "Engine/utilities/ASCII.h"
#include "Engine/utilities/AssertionFail.h"
#include "Engine/utilities/CharString.h"
#include "Engine/utilities/TraceFlags.h"
#include "Engine/utilities/UNIX/UNIXDebuggerParameters.h"
#include "Engine/utilities/checkParameter.h"

namespace {

using P = DebuggerParameters;

constexpr int withItsCase = 1;
constexpr wchar_t optionSign = L'-';
constexpr unsigned char keySeparator = ' ';
constexpr const wchar_t* endName = L"--";
constexpr const wchar_t* pidName = L"-qpid";
constexpr const wchar_t* attachPrefix = L"-a";
constexpr const char* dumpSignature = "void DebuggerParameters::diagnosticDump() const";
constexpr const char* noText = "none";
constexpr std::string_view asterisks = "********";

// The order decides which option an abbreviation selects. The minima of 1 are there so
// that what no earlier row claims falls to those rows.
constexpr P::Option optionTable[] = {
    {endName, 0x02, false, false, 2, P::parmEnd},
    {L"-?", 0x7f, false, false, 2, P::parmHelp},
    {attachPrefix, 0x02, false, false, 2, P::parmPid},
    {L"-help", 0x7f, false, false, 2, P::parmHelp},
    {L"-i", 0x02, false, true, 2, P::parmI},
    {L"-p-", 0x7f, false, true, 3, P::parmP},
    {L"-qcache", 0x01, true, false, 4, P::parmCache},
    {L"-qconsole", 0x02, true, false, 4, P::parmConsole},
    {L"-qdaemon", 0x01, true, false, 5, P::parmDaemon},
    {L"-qdepth", 0x7f, true, false, 5, P::parmDepth},
    {L"-qdisplay", 0x06, true, false, 3, P::parmDisplay},
    {L"-qdxpllevel", 0x7f, true, false, 11, P::parmDxplLevel},
    {L"-qdxpldump", 0x7f, true, false, 10, P::parmDxplDump},
    {L"-qExecBy", 0x7f, true, false, 8, P::parmExecBy},
    {L"-qhost", 0x7f, true, false, 3, P::parmHost},
    {L"-qlang", 0x7f, true, false, 6, P::parmLang},
    {pidName, 0x7f, true, false, 5, P::parmPid},
    {L"-qquiet", 0x7f, false, false, 3, P::parmQuiet},
    {L"-qrunTo", 0x06, true, false, 7, P::parmRunTo},
    {L"-qteamuser", 0x7f, true, true, 6, P::parmTeamUser},
    {L"-qtrace", 0x7f, true, false, 7, P::parmTrace},
    {L"-startupKey", 0x7f, true, true, 3, P::parmStartupKey},
    {L"-s", 0x7f, false, true, 2, P::parmS},
    {L"-qsci", 0x02, false, false, 5, P::parmSci},
    {L"-qserial", 0x02, true, false, 8, P::parmSerial},
    {L"-qdebugloc", 0x02, true, false, 3, P::parmDebugLoc},
    {L"-qhport", 0x01, true, false, 4, P::parmHPort},
    {L"-qhrdmport", 0x01, true, false, 10, P::parmHrdmPort},
    {L"-qhrdmhost", 0x01, true, false, 10, P::parmHrdmHost},
    {L"-qhrdmkey", 0x01, true, false, 9, P::parmHrdmKey},
    {L"-qsecure", 0x01, true, false, 8, P::parmSecure},
    {L"-qkeystoreloc", 0x01, true, false, 13, P::parmKeystoreLoc},
    {L"-qkeystorepass", 0x01, true, false, 14, P::parmKeystorePass},
    {L"-qCheckAllCerts", 0x01, true, false, 15, P::parmCheckAllCerts},
    {L"-qsocketfd", 0x01, true, false, 1, P::parmSocketFd},
    {L"-qprobepid", 0x01, true, false, 1, P::parmProbePid},
    {L"-qdownloadzip", 0x01, true, false, 1, P::parmDownloadZip},
    {L"-qhprotocol", 0x01, true, false, 1, P::parmHProtocol},
    {L"-qFallbackUnencrypted", 0x01, true, false, 21, P::parmFallbackUnencrypted},
};

// The options with a secret. Whoever mistypes one of them still begins it like this, or slips
// once, and puts one of these before the secret.
struct SecretOption {
  std::string_view name;
  std::string_view beginning;
};

constexpr SecretOption secretOptions[] = {{"qkeystorepass", "qkeystorep"}, {"qhrdmkey", "qhrdmk"}};
constexpr std::string_view secretSeparators = "= :;,";

constinit ProcessWide<DebuggerParameters> theParameters;

DebuggerParameters* makeOnce(int argc, char** argv) {
  return &theParameters.get([&] { return new UNIXDebuggerParameters(argc, argv); });
}

// The vector itself is copied: its elements are pointers of another type.
template <class Byte>
DebuggerParameters* makeOnceFrom(int argc, Byte** argv) {
  if (argv == nullptr) {
    return makeOnce(0, nullptr);
  }
  std::vector<char*> texts;
  texts.reserve(static_cast<size_t>(std::max(argc, 0)));
  for (int i = 0; i < argc; ++i) {
    texts.push_back(reinterpret_cast<char*>(argv[i]));
  }
  return makeOnce(argc, texts.data());
}

bool isAnyOf(CharString& text, std::initializer_list<const wchar_t*> words) {
  return std::any_of(words.begin(), words.end(), [&text](const wchar_t* word) {
    return checkParameter(text, word, 1, withItsCase, nullptr);
  });
}

// Whether `word` is `name` but for one letter that is missing, too many or another one, or for two
// neighbours that have changed places.
bool isOneSlipFrom(std::string_view name, std::string_view word) {
  const auto parting = std::mismatch(name.begin(), name.end(), word.begin(), word.end());
  const std::string_view wanted(parting.first, name.end());
  const std::string_view typed(parting.second, word.end());
  const auto behind = [](std::string_view text, size_t n) {
    return text.substr(std::min(n, text.size()));
  };
  return behind(wanted, 1) == typed || wanted == behind(typed, 1) ||
         behind(wanted, 1) == behind(typed, 1) ||
         (wanted.size() > 1 && typed.size() > 1 && wanted[0] == typed[1] && wanted[1] == typed[0] &&
          behind(wanted, 2) == behind(typed, 2));
}

// How much of `word`, the lower-case name of an option, is its name where it stands for `option`;
// nothing where it does not. What follows the whole name without a separator may be the secret.
std::optional<size_t> nameLengthIn(std::string_view word, const SecretOption& option) {
  // Also without the "q" in front.
  for (const size_t omitted : {size_t{0}, size_t{1}}) {
    const std::string_view name = option.name.substr(omitted);
    if (word.starts_with(name)) {
      return name.size();
    }
    if (word.starts_with(option.beginning.substr(omitted)) || isOneSlipFrom(name, word)) {
      return word.size();
    }
  }
  return std::nullopt;
}

// The name of an option with a secret in a text.
struct SecretName {
  size_t end;       // Behind the word that begins with the name.
  size_t secretAt;  // Where the secret begins; the end of the text when there is none.
};

std::optional<SecretName> secretNameIn(std::string_view text) {
  std::string lowered(text);
  std::transform(lowered.begin(), lowered.end(), lowered.begin(), [](char c) {
    return static_cast<char>(ASCII::toLower(static_cast<unsigned char>(c)));
  });
  const std::string_view all = lowered;
  for (size_t sign = all.find('-'); sign != std::string_view::npos;
       sign = all.find('-', sign + 1)) {
    const size_t start = sign + 1;
    const size_t end = std::min(all.find_first_of(secretSeparators, start), all.size());
    for (const SecretOption& option : secretOptions) {
      if (const auto length = nameLengthIn(all.substr(start, end - start), option)) {
        const bool isApart = end < all.size() && start + *length == end;
        return SecretName{end, isApart ? end + 1 : start + *length};
      }
    }
  }
  return std::nullopt;
}

// Whether `text` ends where the secret of an option would begin.
bool lacksSecret(std::string_view text) {
  const std::optional<SecretName> name = secretNameIn(text);
  return name && name->end + 1 >= text.size();
}

// `text` without the secret of an option, which is taken to reach to its end.
std::string withoutSecret(std::string_view text) {
  const std::optional<SecretName> name = secretNameIn(text);
  return name && name->secretAt < text.size()
             ? std::string(text.substr(0, name->secretAt)).append(asterisks)
             : std::string(text);
}

// Whether an option lacks its secret, as after a slip of the user's. It may then be any of the
// texts that could not be used, or be taken for the debuggee's name.
bool isSecretLost(const DebuggerParameters& parameters) {
  const DebuggerArgList& options = parameters.debuggerArguments();
  for (unsigned int i = 1; i <= options.count(); ++i) {
    if (options.value(i).length() == 0 && lacksSecret(options.name(i).view())) {
      return true;
    }
  }
  const List<EncodedString*>& invalid = parameters.invalidArguments();
  return std::any_of(invalid.begin(), invalid.end(),
                     [](const EncodedString* text) { return lacksSecret(text->view()); });
}

void dumpText(const char* label, std::string_view text) {
  const std::string shown = text.empty() ? noText : withoutSecret(text);
  CUL_TRACE(TraceType::active, dumpSignature, 0, "%s>%s<", label, shown.c_str());
}

void dumpLine(const char* line) { CUL_TRACE(TraceType::active, dumpSignature, 0, "%s", line); }

}  // namespace

DebuggerParameters* DebuggerParameters::instance(int argc, char** argv) {
  return makeOnce(argc, argv);
}

DebuggerParameters* DebuggerParameters::instance(int argc, char const** argv) {
  return makeOnce(argc, const_cast<char**>(argv));
}

DebuggerParameters* DebuggerParameters::instance(int argc, signed char** argv) {
  return makeOnceFrom(argc, argv);
}

DebuggerParameters* DebuggerParameters::instance(int argc, unsigned char** argv) {
  return makeOnceFrom(argc, argv);
}

DebuggerParameters* DebuggerParameters::instance() {
  DebuggerParameters* const made = instancePointer();
  AssertionFail(made != nullptr ? 1 : 0, "Engine/utilities/DebuggerParameters",
                "static DebuggerParameters* DebuggerParameters::instance()", __LINE__,
                "made != nullptr");
  return made;
}

DebuggerParameters* DebuggerParameters::instancePointer() noexcept {
  return theParameters.present();
}

DebuggerParameters::~DebuggerParameters() = default;

std::span<const DebuggerParameters::Option> DebuggerParameters::options() noexcept {
  return optionTable;
}

EncodedString DebuggerParameters::parmName(ParmType type) {
  for (const Option& option : optionTable) {
    if (option.type == type) {
      return {option.name};
    }
  }
  return {};
}

EncodedString DebuggerParameters::parm(ParmType type) const {
  for (const Option& option : optionTable) {
    if (option.type == type) {
      if (const unsigned int position = debuggerArguments_.indexByName(option.name);
          position != 0) {
        return debuggerArguments_.value(position);
      }
    }
  }
  return {};
}

bool DebuggerParameters::isDebuggerArg(const CharString& arg) const {
  return arg.length() != 0 && !endOfDebuggerArguments_ && arg[1U] == optionSign;
}

unsigned int DebuggerParameters::addDebuggerArg(const CharString& arg, const CharString& next) {
  if (!isDebuggerArg(arg)) {
    addOtherArg(arg);
    return 1;
  }
  if (arg == endName) {
    endOfDebuggerArguments_ = true;
    debuggerArguments_.addArg(endName, {});
    return 1;
  }
  if (const CharString prefix(attachPrefix);
      !attach_ && arg.length() > prefix.length() && arg.startsWith(prefix)) {
    const CharString processId(arg, prefix.length() + 1);
    attachTo(processId);
    debuggerArguments_.addArg(pidName, processId);
    return 1;
  }
  CharString value = arg;
  for (const Option& option : optionTable) {
    if (option.isRecognised() && checkParameter(value, option.name, option.minimum, withItsCase,
                                                option.valueWithEquals ? L"=" : L" ")) {
      return addOption(option, arg, value, next);
    }
  }
  addInvalidArgument(arg);
  return 1;
}

// `value` is what the match left: the value behind the name, or all of `arg` when there is none.
unsigned int DebuggerParameters::addOption(const Option& option, const CharString& arg,
                                           CharString& value, const CharString& next) {
  unsigned int used = 1;
  if (value.length() == arg.length()) {
    value.clear();
    if (option.valueWithEquals && next.length() != 0 && next[1U] != optionSign) {
      value = next;
      used = 2;
    }
  }
  debuggerArguments_.addArg(option.name, value);
  if (!use(option.type, value)) {
    addInvalidArgument(used == 1 ? arg : arg + CharString(L" ") + next);
  }
  return used;
}

// False when the value is bad.
bool DebuggerParameters::use(ParmType type, CharString& value) {
  switch (type) {
    case parmEnd:
    case parmS:
    case parmSci:
      endOfDebuggerArguments_ = true;
      return true;
    case parmHelp:
      helpRequested_ = true;
      return true;
    case parmQuiet:
      quiet_ = true;
      return true;
    case parmPid:
      return attachTo(value);
    case parmDaemon: {
      const int answer = yesNo(value);
      if (answer < 2) {
        daemon_ = answer == 1;
      }
      return answer < 2;
    }
    case parmDownloadZip:
      downloadWanted_ = !(value == L"no");
      downloadForced_ = downloadForced_ || value == L"force";
      return true;
    case parmStartupKey:
      startupKey_ = value;
      return true;
    default:
      return true;  // Read by other modules with parm().
  }
}

bool DebuggerParameters::attachTo(const CharString& processId) {
  if (processId.length() == 0) {
    return false;
  }
  attach_ = true;
  debuggeeName_ = processId;
  return true;
}

void DebuggerParameters::addOtherArg(const CharString& arg) {
  if (attach_) {
    addInvalidArgument(arg);
  } else if (!endOfDebuggerArguments_) {
    debuggeeName_ = arg;
  } else {
    if (debuggeeArguments_.length() != 0) {
      debuggeeArguments_ += CharString(L" ");
    }
    debuggeeArguments_ += arg.makeToken();
  }
  endOfDebuggerArguments_ = true;
}

void DebuggerParameters::addInvalidArgument(const EncodedString& text) {
  invalidArguments_.add(std::make_unique<EncodedString>(text));
}

EncodedString DebuggerParameters::attach() const {
  return attach_ ? debuggeeName_ : EncodedString();
}

EncodedString DebuggerParameters::startupKey() const { return startupKey_.allBefore(keySeparator); }

EncodedString DebuggerParameters::startupKeyArg() const {
  const EncodedString key = startupKey();
  if (key.length() == 0) {
    return {};
  }
  EncodedString argument = startupKey_.allAfter(keySeparator);
  if (argument.length() == 0 && key.view() == "CLIP") {
    argument = L"JETCLIP";
  }
  return argument;
}

int DebuggerParameters::yesNo(CharString& text) {
  if (isAnyOf(text, {L"yes", L"YES", L"Yes"})) {
    return 1;
  }
  return isAnyOf(text, {L"no", L"NO", L"No"}) ? 0 : 2;
}

CharString DebuggerParameters::unquote(const CharString& text) {
  const std::wstring_view in(text, text.length());
  std::wstring out;
  out.reserve(in.size());
  bool inside = false;
  for (size_t i = 0; i < in.size(); ++i) {
    const wchar_t following = i + 1 < in.size() ? in[i + 1] : L'\0';
    if (in[i] == L'"') {
      inside = !inside;
    } else if (in[i] == L'\\' && (following == L'"' || (inside && following == L'\\'))) {
      out += following;
      ++i;
    } else {
      out += in[i];
    }
  }
  return {out.data(), static_cast<unsigned>(out.size())};
}

void DebuggerParameters::diagnosticDump() const {
  if (!isTraced(TraceType::active)) {
    return;
  }
  const bool isLost = isSecretLost(*this);
  dumpText("Debugger Program Name: ", debuggerName_.view());
  dumpLine("Debugger Args:");
  if (debuggerArguments_.isEmpty()) {
    dumpText("\t", {});
  }
  for (unsigned int i = 1; i <= debuggerArguments_.count(); ++i) {
    const std::string_view name = debuggerArguments_.name(i).view();
    const std::string label = '\t' + std::string(name) + ": ";
    dumpText(label.c_str(), lacksSecret(name) ? asterisks : debuggerArguments_.value(i).view());
  }
  dumpLine("--\tend --");
  dumpText("Start up Key: ", startupKey().view());
  dumpText("Start up Key Arg: ", startupKeyArg().view());
  const bool isNameSecret = isLost && !attach_ && debuggeeName_.length() != 0;
  dumpText("Debuggee Name: ", isNameSecret ? asterisks : debuggeeName_.view());
  dumpText("Debuggee Args: ", debuggeeArguments_.view());
  dumpLine("Invalid Args:");
  if (invalidArguments_.count() == 0) {
    dumpText("\t", {});
  }
  for (const EncodedString* text : invalidArguments_.list()) {
    const bool isSecret = isLost && !lacksSecret(text->view());
    dumpText("\t", isSecret ? asterisks : text->view());
  }
}
