#include <algorithm>
#include <iterator>
#include <memory>

#include "Engine/utilities/CharString.h"
#include "Engine/utilities/DebuggerArgList.h"
#include "Engine/utilities/DebuggerBooleanSetting.h"
#include "Engine/utilities/DebuggerConfiguration.h"
#include "Engine/utilities/DebuggerEnumSetting.h"
#include "Engine/utilities/DebuggerIntegerSetting.h"
#include "Engine/utilities/DebuggerListSetting.h"
#include "Engine/utilities/DebuggerParameters.h"
#include "Engine/utilities/DebuggerPathSetting.h"
#include "Engine/utilities/DebuggerSettings.h"
#include "Engine/utilities/DebuggerSettingsHKORV.h"
#include "Engine/utilities/DebuggerStringSetting.h"
#include "Engine/utilities/DebuggerUnsignedSetting.h"
#include "Engine/utilities/FileName.h"
#include "Engine/utilities/SettingNames.h"
#include "Engine/utilities/UNIX/UNIXDebuggerParameters.h"

#include "tests/torture/Workload.h"

namespace {

using Setting = DebuggerSetting;

EncodedString utf8(const char* text) { return {text, EncodedString::utf8}; }

constexpr int assertion = 3;  // A slot with a default that every type can be asked about.

void expectKind(Setting& setting, Setting::SettingType type) {
  CUL_EXPECT_THAT((setting.asStringSetting() != nullptr) ==
                  (type == Setting::String || type == Setting::Path));
  CUL_EXPECT_THAT((setting.asPathSetting() != nullptr) == (type == Setting::Path));
  CUL_EXPECT_THAT((setting.asNumericSetting() == nullptr) ==
                  (type == Setting::String || type == Setting::Path));
  CUL_EXPECT_THAT((setting.asIntegerSetting() != nullptr) == (type == Setting::Integer));
  CUL_EXPECT_THAT((setting.asUnsignedSetting() != nullptr) == (type == Setting::Unsigned));
  CUL_EXPECT_THAT((setting.asBooleanSetting() != nullptr) == (type == Setting::Boolean));
  CUL_EXPECT_THAT((setting.asEnumSetting() != nullptr) == (type == Setting::Enum));
  CUL_EXPECT_THAT((setting.asListSetting() != nullptr) == (type == Setting::List));
  static_cast<void>(setting.getPermittedValues());
  static_cast<void>(setting.getEnvValue());
  static_cast<void>(setting.getDefault());
}

// A refused value, and one that cannot be stored, leave the former one.
void setEach(Setting& setting, const char* value, const char* refused) {
  CUL_EXPECT_THAT(setting.setValue(utf8(value)));
  const EncodedString kept = setting.getValue();
  CUL_EXPECT_THAT(!setting.setValue(utf8(refused)) && setting.getValue() == kept);
}

void useStringSettings() {
  DebuggerStringSetting text(utf8("TEXT"), Setting::Listable, 20, assertion, 1, 100);
  setEach(text, "a text of more than sixty-four bytes, which needs the heap to be kept at all", "");
  expectKind(text, Setting::String);
  const std::unique_ptr<Setting> owned =
      std::make_unique<DebuggerStringSetting>(utf8("TEXT"), Setting::Listable, 20, assertion, 1, 9);
  CUL_EXPECT_THAT(owned->getName().view() == "TEXT");
}

void usePathSettings() {
  DebuggerPathSetting paths(utf8("PATHS"), Setting::Listable, 20, assertion, 0, 100);
  CUL_EXPECT_THAT(paths.setValue(utf8("/usr/lib:/bin")) && paths.getPaths().count() == 2);
  expectKind(paths, Setting::Path);
  const std::unique_ptr<Setting> owned =
      std::make_unique<DebuggerPathSetting>(utf8("PATHS"), Setting::Listable, 20, assertion, 0, 99);
  CUL_EXPECT_THAT(owned->setValue(utf8("/usr")));
}

void useIntegerSettings() {
  DebuggerIntegerSetting number(utf8("NUMBER"), Setting::Listable, 20, assertion, -5, 5);
  setEach(number, "-3", "6");
  expectKind(number, Setting::Integer);
  CUL_EXPECT_THAT(number.getValueAsInt() == -3 && number.getValueAsBool());
  CUL_EXPECT_THAT(number.getValueAsUnsigned() == static_cast<unsigned>(-3));
  const std::unique_ptr<Setting> owned =
      std::make_unique<DebuggerIntegerSetting>(utf8("N"), Setting::Listable, 20, assertion, 0, 9);
}

void useUnsignedSettings() {
  DebuggerUnsignedSetting number(utf8("NUMBER"), Setting::Listable, 20, assertion, 1, 5);
  setEach(number, "3", "6");
  expectKind(number, Setting::Unsigned);
  const std::unique_ptr<Setting> owned =
      std::make_unique<DebuggerUnsignedSetting>(utf8("N"), Setting::Listable, 20, assertion, 0, 9);
}

void useBooleanSettings() {
  DebuggerBooleanSetting flag(utf8("FLAG"), Setting::Listable, 20, assertion);
  setEach(flag, "YES", "perhaps");
  expectKind(flag, Setting::Boolean);
  const std::unique_ptr<Setting> owned =
      std::make_unique<DebuggerBooleanSetting>(utf8("FLAG"), Setting::Listable, 20, assertion);
}

void useEnumSettings() {
  static constexpr DebuggerEnumSetting::EnumSettingItem items[] = {
      {L"ONE", 1}, {L"TWO", 2}, {nullptr, 0}};
  DebuggerEnumSetting choice(utf8("CHOICE"), Setting::Listable, items, 20, assertion);
  setEach(choice, "TWO", "THREE");
  expectKind(choice, Setting::Enum);
  const std::unique_ptr<Setting> owned =
      std::make_unique<DebuggerEnumSetting>(utf8("C"), Setting::Listable, items, 20, assertion);
}

void useListSettings() {
  static constexpr DebuggerListSetting::ListSettingItem items[] = {
      {L"ONE", 1, true}, {L"TWO", 2, true}, {L"NOTONE", 1, false}, {nullptr, 0, false}};
  DebuggerListSetting list(utf8("LIST"), Setting::Listable, items, 20, assertion, 1);
  setEach(list, "ONE TWO", "THREE");
  expectKind(list, Setting::List);
  const std::unique_ptr<Setting> owned =
      std::make_unique<DebuggerListSetting>(utf8("L"), Setting::Listable, items, 20, assertion, 0);
}

class Listener : public DebuggerSettings::Notification {
 public:
  void settingChanged(DebuggerSetting*) override { ++changes; }
  int changes = 0;
};

void useTheRegistry() {
  DebuggerSettings& settings = *DebuggerSettings::instance();
  CUL_EXPECT_THAT(DebuggerSettings::present() == &settings);
  DebuggerSetting* const setting = settings.getSetting(L"ASSERTION");
  CUL_EXPECT_THAT(setting != nullptr && settings.getSetting(L"NO SUCH") == nullptr);
  CUL_EXPECT_THAT(settings.getNamedSetting(L"ASSERTION").length() != 0);
  Listener listener;
  struct Registered {
    DebuggerSettings& settings;
    Listener& listener;
    ~Registered() { settings.registerHandler(listener, false); }
  } const registered{settings, listener};
  settings.registerHandler(listener, true);
  CUL_EXPECT_THAT(!settings.setSetting(setting, utf8("EXCEPTION")));
  CUL_EXPECT_THAT(settings.setSetting(settings.getSetting(L"ARRAY_REPCHANGE"), utf8("TRUE")));
  CUL_EXPECT_THAT(listener.changes == 1);
  CUL_EXPECT_THAT(settings.allSettings().count() != 0 && settings.getAllSettings().count() != 0);
  CUL_EXPECT_THAT(settings.getSettings(Setting::Boolean, true)->count() != 0);
  static_cast<void>(settings.defaultSetting(0));
  settings.debugDelay();
}

void makeRegistries() {
  DebuggerSettingsHKORV host;
  host.initialize();
  CUL_EXPECT_THAT(host.getSettings(-1, true)->count() > 30);
  DebuggerSettings common(DebuggerSettingsHKORV::slots);
  common.initialize();
  CUL_EXPECT_THAT(common.getSettings(-1, true)->count() > 20);
}

void fabricateNames() {
  EncodedString name;
  fabricateName(name, L"TORTURE");
  CUL_EXPECT_THAT(name.view() == "qvxTORTURE1");
  fabricateName(name, utf8("TORTURE"));
  CUL_EXPECT_THAT(getEnvnamePrefix().length() != 0);
  CUL_EXPECT_THAT(name.length() != 0 && getFilenamePrefix().view() == "qvx");
}

void useArgumentLists() {
  DebuggerArgList arguments;
  for (int i = 0; i < 20; ++i) {
    arguments.addArg(utf8("name") + EncodedString::number(i), utf8("value"));
  }
  CUL_EXPECT_THAT(arguments.indexByName(utf8("name7")) == 8);
  CUL_EXPECT_THAT(arguments.valueByName(utf8("name7")).view() == "value");
  DebuggerArgList copy(arguments);
  CUL_EXPECT_THAT(copy.removeArg(utf8("name7")) && copy.count() == 19);
  copy = arguments;
  CUL_EXPECT_THAT(copy.count() == 20);
  copy.deleteAll();
  CUL_EXPECT_THAT(copy.isEmpty());
}

char name[] = "debugger";
char lang[] = "-qlang=de_DE";
char trace[] = "-qtrace=ERROR";
char attach[] = "-a1";
char yes[] = "-qquiet";
char wrong[] = "-nosuchoption";
char key[] = "-startupkey=key";
char debuggee[] = "program";
char argument[] = "an \"argument\"";
char* arguments[] = {name, lang, trace, yes, key, wrong, debuggee, argument, nullptr};
constexpr int argumentCount = 8;

void readTheCommandLine() {
  UNIXDebuggerParameters parameters(argumentCount, arguments);
  CUL_EXPECT_THAT(parameters.debuggeeName().view() == "program");
  CUL_EXPECT_THAT(parameters.invalidArguments().count() != 0);
  CUL_EXPECT_THAT(parameters.parm(DebuggerParameters::parmLang).view() == "de_DE");
  CUL_EXPECT_THAT(DebuggerParameters::parmName(DebuggerParameters::parmLang).length() != 0);
  CUL_EXPECT_THAT(!DebuggerParameters::options().empty());
  static_cast<void>(parameters.isDebuggerArg(CharString(L"-qlang=de_DE")));
  CUL_EXPECT_THAT(parameters.addDebuggerArg(CharString(L"-host"), CharString(L"here")) <= 2);
  static_cast<void>(parameters.attach());
  static_cast<void>(parameters.startupKey());
  static_cast<void>(parameters.startupKeyArg());
  parameters.diagnosticDump();
  CharString text(L"yes");
  CUL_EXPECT_THAT(DebuggerParameters::yesNo(text) == 1);
  CUL_EXPECT_THAT(DebuggerParameters::unquote(CharString(L"\"a b\"")) == L"a b");
  parameters.setDebuggerName(utf8("sh"));
  CUL_EXPECT_THAT(parameters.resolveRelative(utf8("a/../b")).length() != 0);
}

void attachToAProcess() {
  char* const attaching[] = {name, attach, wrong, nullptr};
  char* copies[4] = {};
  std::copy(std::begin(attaching), std::end(attaching), copies);
  const std::unique_ptr<DebuggerParameters> parameters =
      std::make_unique<UNIXDebuggerParameters>(3, copies);
  CUL_EXPECT_THAT(parameters->attach().view() == "1");
}

// The first call keeps what it makes.
void keepTheCommandLine() {
  const DebuggerParameters* const made = DebuggerParameters::instance(argumentCount, arguments);
  CUL_EXPECT_THAT(made != nullptr && DebuggerParameters::instancePointer() == made);
  CUL_EXPECT_THAT(DebuggerParameters::instance() == made);
}

template <class Letter>
void keepACommandLine() {
  void* const list = arguments;
  const DebuggerParameters* const made =
      DebuggerParameters::instance(argumentCount, static_cast<Letter**>(list));
  CUL_EXPECT_THAT(made != nullptr && made == DebuggerParameters::instancePointer());
}

void loadTheConfiguration() {
  CUL_EXPECT_THAT(DebuggerConfiguration::instance()->sourceFilterDefault() != nullptr);
}

// Without its configuration module the process aborts.
constexpr MayTell noModule = {"ended 99", "malloc dlmopen"};

const Workload workloads[] = {
    {"string settings", useStringSettings},
    {"path settings", usePathSettings},
    {"integer settings", useIntegerSettings},
    {"unsigned settings", useUnsignedSettings},
    {"boolean settings", useBooleanSettings},
    {"enumerations", useEnumSettings},
    {"list settings", useListSettings},
    {"registry", useTheRegistry, -1, {noModule}},
    {"registries", makeRegistries, -1, {noModule}},
    {"names of settings", fabricateNames},
    {"argument lists", useArgumentLists},
    {"command line", readTheCommandLine, -1, {{"other: parameters...", "iconv"}}},
    {"attaching", attachToAProcess, -1, {{"other: parameters->attach()...", "iconv"}}},
    {"the command line", keepTheCommandLine},
    {"signed command line", keepACommandLine<signed char>},
    {"unsigned command line", keepACommandLine<unsigned char>},
    {"constant command line", keepACommandLine<const char>},
    {"configuration", loadTheConfiguration, -1, {noModule}},
};

}  // namespace

std::span<const Workload> settingWorkloads() { return workloads; }
