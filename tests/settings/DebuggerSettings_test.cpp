#include "Engine/utilities/DebuggerSettings.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <utility>

#include <gmock/gmock.h>

#include "Engine/utilities/AssertionFail.h"
#include "Engine/utilities/AssertionMode.h"
#include "Engine/utilities/DebuggerBooleanSetting.h"
#include "Engine/utilities/DebuggerListSetting.h"
#include "Engine/utilities/DebuggerSettingsHKORV.h"

#include "tests/settings/EnvironmentRead.h"
#include "tests/settings/ExpectedSettings.h"
#include "tests/settings/SettingSupport.h"
#include "tests/support/Child.h"
#include "tests/support/TracedChild.h"
#include "tests/support/VirtualSlot.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

DebuggerSettings& registry() { return *DebuggerSettings::instance(); }

DebuggerSetting& setting(const wchar_t* name) {
  DebuggerSetting* const found = registry().getSetting(name);
  if (found == nullptr) {
    ADD_FAILURE() << "no setting " << plain(EncodedString(name));
    std::abort();
  }
  return *found;
}

std::vector<std::string> namesOf(const List<DebuggerSetting*>& settings) {
  std::vector<std::string> names;
  for (const DebuggerSetting* each : settings) {
    names.push_back(plain(each->getName()));
  }
  return names;
}

std::vector<std::string> listed(int typeMask, bool includeHidden) {
  return namesOf(*registry().getSettings(typeMask, includeHidden));
}

void expectGood(const ChildResult& result) {
  EXPECT_EQ(result.status, 0) << result.out << result.err;
}

// Appends its name to a record, then does something.
class Listener : public DebuggerSettings::Notification {
 public:
  Listener(std::string name, std::vector<std::string>& record)
      : name_(std::move(name)), record_(record) {}

  void settingChanged(DebuggerSetting* changed) override {
    record_.push_back(name_ + " " + plain(changed->getName()) + "=" + valueOf(*changed));
    if (then) {
      then();
    }
  }

  std::function<void()> then;

 private:
  std::string name_;
  std::vector<std::string>& record_;
};

// A registry that is not the process's own, with listeners a, b and c.
class DebuggerSettingsListeners : public testing::Test {
 protected:
  DebuggerSettingsListeners() {
    settings.initialize();
    for (Listener* listener : {&a, &b, &c}) {
      settings.registerHandler(*listener, true);
    }
    tab = settings.getSetting(L"POWER_STEP");
  }

  bool change(const char* value) { return settings.setSetting(tab, encoded(value)); }

  DebuggerSettings settings{DebuggerSettingsHKORV::slots};
  std::vector<std::string> record;
  Listener a{"a", record};
  Listener b{"b", record};
  Listener c{"c", record};
  DebuggerSetting* tab = nullptr;
};

}  // namespace

TEST(DebuggerSettings, KeepsItsVirtualOperationsInTheirOrderWithoutADestructor) {
  EXPECT_EQ(virtualSlot(&DebuggerSettings::registerHandler), 0U);
  EXPECT_EQ(virtualSlot(&DebuggerSettings::setSetting), 1U);
  EXPECT_EQ(virtualSlot(&DebuggerSettings::getNamedSetting), 2U);
  EXPECT_EQ(virtualSlot(&DebuggerSettings::allSettings), 3U);
  EXPECT_EQ(virtualSlot(&DebuggerSettings::getSettings), 4U);
  EXPECT_EQ(virtualSlot(&DebuggerSettings::getSetting), 5U);
  EXPECT_EQ(virtualSlot(&DebuggerSettings::defaultSetting), 6U);
  EXPECT_EQ(virtualSlot(&DebuggerSettings::getAllSettings), 7U);
  EXPECT_EQ(virtualSlot(&DebuggerSettingsHKORV::initialize), 8U);
}

TEST_F(DebuggerSettingsListeners, AreToldThroughTheirFirstVirtualOperation) {
  EXPECT_EQ(virtualSlot(&DebuggerSettings::Notification::settingChanged), 0U);
}

TEST_F(DebuggerSettingsListeners, AreToldFromTheLastRegisteredToTheFirst) {
  EXPECT_TRUE(change("yes"));
  EXPECT_THAT(record, ElementsAre("c POWER_STEP=1", "b POWER_STEP=1", "a POWER_STEP=1"));
}

TEST_F(DebuggerSettingsListeners, AreToldAlsoWhenTheValueStaysTheSame) {
  EXPECT_TRUE(change("no"));
  EXPECT_EQ(record.size(), 3U);
}

TEST_F(DebuggerSettingsListeners, AreNotToldOfRefusedValues) {
  EXPECT_FALSE(change("x"));
  EXPECT_FALSE(settings.setSetting(nullptr, encoded("yes")));
  EXPECT_FALSE(settings.setSetting(settings.getSetting(L"TAB"), encoded("4")));
  EXPECT_THAT(record, IsEmpty());
}

TEST_F(DebuggerSettingsListeners, AreNotToldOfASettingsOwnSetValue) {
  EXPECT_TRUE(set(*tab, "yes"));
  EXPECT_THAT(record, IsEmpty());
}

TEST_F(DebuggerSettingsListeners, AreRegisteredOnce) {
  settings.registerHandler(a, true);
  change("1");
  EXPECT_EQ(record.size(), 3U);
  record.clear();
  settings.registerHandler(a, false);
  settings.registerHandler(a, false);
  change("0");
  EXPECT_THAT(record, ElementsAre("c POWER_STEP=0", "b POWER_STEP=0"));
}

TEST_F(DebuggerSettingsListeners, ComeToTheEndWhenTheyAreRegisteredAgain) {
  settings.registerHandler(a, false);
  settings.registerHandler(a, true);
  change("1");
  EXPECT_THAT(record, ElementsAre("a POWER_STEP=1", "c POWER_STEP=1", "b POWER_STEP=1"));
}

TEST_F(DebuggerSettingsListeners, MayUnregisterThemselves) {
  for (Listener* listener : {&a, &b, &c}) {
    listener->then = [this, listener] { settings.registerHandler(*listener, false); };
  }
  change("1");
  EXPECT_THAT(record, ElementsAre("c POWER_STEP=1", "b POWER_STEP=1", "a POWER_STEP=1"));
  change("1");
  EXPECT_EQ(record.size(), 3U);
}

TEST_F(DebuggerSettingsListeners, MayUnregisterOthersThatAreThenNotTold) {
  c.then = [this] { settings.registerHandler(a, false); };
  change("1");
  EXPECT_THAT(record, ElementsAre("c POWER_STEP=1", "b POWER_STEP=1"));
}

TEST_F(DebuggerSettingsListeners, MayUnregisterThoseThatHaveBeenTold) {
  a.then = [this] { settings.registerHandler(c, false); };
  b.then = a.then;
  change("1");
  EXPECT_THAT(record, ElementsAre("c POWER_STEP=1", "b POWER_STEP=1", "a POWER_STEP=1"));
}

TEST_F(DebuggerSettingsListeners, MayUnregisterAndDestroyAnother) {
  auto doomed = std::make_unique<Listener>("doomed", record);
  settings.registerHandler(b, false);
  settings.registerHandler(*doomed, true);
  settings.registerHandler(b, true);
  b.then = [&] {
    settings.registerHandler(*doomed, false);
    doomed.reset();
  };
  change("1");
  EXPECT_THAT(record, ElementsAre("b POWER_STEP=1", "c POWER_STEP=1", "a POWER_STEP=1"));
}

TEST_F(DebuggerSettingsListeners, MayUnregisterEverybody) {
  c.then = [this] {
    for (Listener* listener : {&a, &b, &c}) {
      settings.registerHandler(*listener, false);
    }
  };
  EXPECT_TRUE(change("1"));
  EXPECT_THAT(record, ElementsAre("c POWER_STEP=1"));
}

TEST_F(DebuggerSettingsListeners, MayRegisterOthersThatAreToldFromTheNextChangeOn) {
  std::vector<std::unique_ptr<Listener>> more;
  more.reserve(100);
  for (int i = 0; i < 100; ++i) {
    more.push_back(std::make_unique<Listener>("more", record));
  }
  b.then = [&] {
    for (const auto& listener : more) {
      settings.registerHandler(*listener, true);
    }
  };
  change("1");
  EXPECT_THAT(record, ElementsAre("c POWER_STEP=1", "b POWER_STEP=1", "a POWER_STEP=1"));
  change("1");
  EXPECT_EQ(record.size(), 106U);
}

TEST_F(DebuggerSettingsListeners, MayChangeSettings) {
  b.then = [this] {
    b.then = nullptr;
    settings.setSetting(settings.getSetting(L"EXEC"), encoded("run"));
  };
  change("1");
  EXPECT_THAT(record, ElementsAre("c POWER_STEP=1", "b POWER_STEP=1", "c EXEC=RUN", "b EXEC=RUN",
                                  "a EXEC=RUN", "a POWER_STEP=1"));
}

CUL_CHILD(SettingsControl) {
  EXPECT_FALSE(registry().setSetting(&setting(L"TAB"), encoded("4")));
  EXPECT_FALSE(registry().setSetting(&setting(L"TAB"), encoded("8")));
  EXPECT_EQ(valueOf(setting(L"TAB")), "8");
  EXPECT_FALSE(registry().setSetting(&setting(L"DEBUG_FRAME"), encoded("no")));
  EXPECT_FALSE(registry().setSetting(nullptr, encoded("4")));
  for (DebuggerSetting* each : registry().getAllSettings()) {
    const EncodedString value =
        each->getType() == DebuggerSetting::List || each->getType() == DebuggerSetting::Unsigned
            ? each->getValue()
            : encoded("1");
    DebuggerBooleanSetting probe(each->getName(), each->getControl(), 0, 0);
    const bool isChangeable = (each->getControl() & 64) != 0;
    EXPECT_EQ(registry().setSetting(&probe, encoded("1")), isChangeable);
    EXPECT_EQ(registry().setSetting(each, value), isChangeable) << plain(each->getName());
    EXPECT_EQ(each->getOrigin() == DebuggerSetting::Changed, isChangeable);
  }
  DebuggerSetting& timeout = setting(L"PROBE_TIMEOUT");
  EXPECT_TRUE(registry().setSetting(&timeout, encoded("30000")));
  EXPECT_FALSE(registry().setSetting(&timeout, encoded("30001")));
  EXPECT_EQ(valueOf(timeout), "30000");
}

TEST(DebuggerSettings, ChangesOnlyWhatMayBeChanged) { expectGood(runChild("SettingsControl")); }

CUL_CHILD(SettingsLookUp) {
  EXPECT_EQ(registry().getSetting(nullptr), nullptr);
  EXPECT_EQ(registry().getSetting(L""), nullptr);
  EXPECT_EQ(registry().getSetting(L"tab"), nullptr);
  EXPECT_EQ(registry().getSetting(L"TAB "), nullptr);
  EXPECT_EQ(registry().getSetting(L"TA"), nullptr);
  EXPECT_EQ(registry().getSetting(L"TABGRI"), nullptr);
  EXPECT_EQ(registry().getSetting(L"\x263A"), nullptr);
  EXPECT_EQ(registry().getSetting(L"TAB"), registry().getAllSettings()[42]);
  EXPECT_EQ(plain(registry().getNamedSetting(L"UIPORT")), "8001");
  EXPECT_EQ(&registry().getNamedSetting(L"UIPORT"), &setting(L"UIPORT").getValue());
  const EncodedString& none = registry().getNamedSetting(L"uiport");
  EXPECT_EQ(none.length(), 0U);
  EXPECT_EQ(&none, &registry().getNamedSetting(nullptr));
  EXPECT_EQ(&none, &registry().getNamedSetting(L"NO_SUCH_SETTING"));
  EXPECT_NE(&none, &registry().getNamedSetting(L"ADDR"));
}

TEST(DebuggerSettings, FindsSettingsByTheirExactNames) { expectGood(runChild("SettingsLookUp")); }

namespace {

std::wstring wideNameOf(const DebuggerSetting& setting) {
  const std::string name = plain(setting.getName());
  return {name.begin(), name.end()};
}

// Looks for each name of the process's registry, and for what is nearly one.
void lookUpAllNames(const DebuggerSettings& settings) {
  const auto expected = [&settings](const std::wstring& name) -> DebuggerSetting* {
    DebuggerSetting* const* const end = settings.getAllSettings().end();
    DebuggerSetting* const* const found =
        std::find_if(settings.getAllSettings().begin(), end,
                     [&name](DebuggerSetting* s) { return wideNameOf(*s) == name; });
    return found == end ? nullptr : *found;
  };
  for (const DebuggerSetting* const known : registry().getAllSettings()) {
    const std::wstring name = wideNameOf(*known);
    EXPECT_EQ(settings.getSetting(name.c_str()), expected(name));
    for (size_t i = 0; i < name.size(); ++i) {
      EXPECT_EQ(settings.getSetting(name.substr(0, i).c_str()), expected(name.substr(0, i)));
      EXPECT_EQ(settings.getSetting(name.substr(i + 1).c_str()), expected(name.substr(i + 1)));
      for (const int other : {name[i] + 1, name[i] + 0x20, name[i] + 0x80, name[i] + 0x100,
                              name[i] + 0x10000, int{name[i]} - INT_MAX - 1, -1}) {
        std::wstring changed = name;
        changed[i] = static_cast<wchar_t>(other);
        EXPECT_EQ(settings.getSetting(changed.c_str()), expected(changed));
      }
      // Of the same characters in another order.
      std::wstring turned = name;
      std::swap(turned[i], turned[name.size() / 3]);
      EXPECT_EQ(settings.getSetting(turned.c_str()), expected(turned));
    }
    EXPECT_EQ(settings.getSetting((name + L"A").c_str()), nullptr);
    EXPECT_EQ(settings.getSetting((name + name).c_str()), nullptr);
  }
}

}  // namespace

CUL_CHILD(SettingsLookedUpByAllNames) {
  for (const DebuggerSetting* const setting : registry().getAllSettings()) {
    EXPECT_EQ(registry().getSetting(wideNameOf(*setting).c_str()), setting);
  }
  lookUpAllNames(registry());
  DebuggerSettings hostless(55);
  hostless.initialize();
  lookUpAllNames(hostless);
  DebuggerSettings small(20);
  for (int i = 0; i < 20; ++i) {
    small.initialize();
  }
  lookUpAllNames(small);
  const DebuggerSettings empty(55);
  lookUpAllNames(empty);
}

TEST(DebuggerSettings, FindsNothingByWhatIsNearlyAName) {
  expectGood(runChild("SettingsLookedUpByAllNames"));
}

namespace {

// From the last slot down.
std::vector<std::string> expectedToBeListed(int types, bool includeHidden) {
  std::vector<std::string> names;
  for (unsigned slot = DebuggerSettingsHKORV::slots; slot-- > 0;) {
    const ExpectedSetting& setting = expectedSetting(slot);
    if ((static_cast<int>(setting.kind) & types) != 0 && (setting.control & 3) != 0 &&
        (includeHidden || (setting.control & 4) == 0)) {
      names.push_back(setting.name);
    }
  }
  return names;
}

}  // namespace

CUL_CHILD(SettingsListed) {
  for (const int types : {1, 2, 4, 8, 16, 32, 64, 64 | 32, 127, -1, 0, 128}) {
    EXPECT_EQ(listed(types, false), expectedToBeListed(types, false)) << types;
    EXPECT_EQ(listed(types, true), expectedToBeListed(types, true)) << types;
  }
  EXPECT_THAT(listed(64 | 32, false), ElementsAre("STEP_DEBUG", "SOURCESTEP", "SOURCE_CHECK",
                                                  "RUNTIME_MODULES", "PATH", "ASSERTION"));
  // All but the two that have neither of the bits.
  EXPECT_EQ(listed(127, true).size(), expectedSettings.size() - 2);
}

TEST(DebuggerSettings, ListsByTypeAndControl) { expectGood(runChild("SettingsListed")); }

CUL_CHILD(SettingsAll) {
  const List<DebuggerSetting*>& all = registry().getAllSettings();
  EXPECT_EQ(&all, &registry().getAllSettings());
  EXPECT_EQ(namesOf(all), namesOf(registry().allSettings()));
  ASSERT_EQ(all.count(), expectedSettings.size());
  for (unsigned i = 0; i < all.count(); ++i) {
    EXPECT_EQ(all[i]->getIdentifier(), static_cast<int>(i));
  }
}

TEST(DebuggerSettings, ListsAllOnceInSlotOrder) { expectGood(runChild("SettingsAll")); }

TEST(DebuggerSettings, StartsWithEmptySlots) {
  DebuggerSettings settings(55);
  EXPECT_EQ(settings.getSetting(L"TAB"), nullptr);
  EXPECT_EQ(settings.getSettings(-1, true)->count(), 0U);
  EXPECT_EQ(settings.getAllSettings().count(), 0U);
  settings.initialize();
  EXPECT_NE(settings.getSetting(L"TAB"), nullptr);
  // Built once and kept.
  EXPECT_EQ(settings.getAllSettings().count(), 0U);
}

TEST(DebuggerSettings, SkipsTheSlotsThatItHasNoSettingFor) {
  DebuggerSettings settings(55);
  settings.initialize();
  EXPECT_EQ(settings.getAllSettings().count(), 47U);
  EXPECT_EQ(settings.getSetting(L"HXT_PORT"), nullptr);
}

TEST(DebuggerSettings, LeavesOutWhatHasNoSlot) {
  for (const unsigned slots : {0U, 1U, 13U, 46U}) {
    DebuggerSettings settings(slots);
    settings.initialize();
    EXPECT_EQ(settings.getAllSettings().count(), slots);
    settings.debugDelay();
  }
}

TEST(DebuggerSettings, ReplacesItsSettingsWhenItIsInitializedAgain) {
  DebuggerSettings settings(55);
  settings.initialize();
  settings.initialize();
  EXPECT_EQ(settings.getAllSettings().count(), 47U);
}

TEST(DebuggerSettings, HasItsOwnDefaultsWithoutARemoteHost) {
  const DebuggerSettings settings(55);
  const auto defaultOf = [&](unsigned identifier) {
    return plain(EncodedString(settings.defaultSetting(identifier)));
  };
  EXPECT_EQ(defaultOf(26), "50");
  EXPECT_EQ(defaultOf(34), "");
  EXPECT_EQ(defaultOf(38), "SOURCE");
  EXPECT_EQ(defaultOf(40), "COBOL,PLI,X10,FORTRAN,RPG");
  for (unsigned identifier = 47; identifier < 55; ++identifier) {
    EXPECT_EQ(defaultOf(identifier), "");
  }
}

TEST(DebuggerSettings, HasAnEmptyDefaultForUnknownIdentifiers) {
  const DebuggerSettings base(55);
  const DebuggerSettingsHKORV hkorv;
  for (const unsigned identifier : {DebuggerSettingsHKORV::slots, DebuggerSettingsHKORV::slots + 1,
                                    1000U, 0x7FFFFFFFU, 0xFFFFFFFFU}) {
    EXPECT_EQ(plain(EncodedString(base.defaultSetting(identifier))), "");
    EXPECT_EQ(plain(EncodedString(hkorv.defaultSetting(identifier))), "");
  }
}

TEST(DebuggerSettingsHKORV, HasDefaultsOfItsOwn) {
  const DebuggerSettingsHKORV settings;
  const auto defaultOf = [&](unsigned identifier) {
    return plain(EncodedString(settings.defaultSetting(identifier)));
  };
  EXPECT_EQ(defaultOf(26), "10000");
  EXPECT_EQ(defaultOf(34), "");
  EXPECT_EQ(defaultOf(40), "ALL");
  EXPECT_EQ(defaultOf(47), "8002");
  EXPECT_EQ(defaultOf(48), "0");
  EXPECT_EQ(defaultOf(49), "");
  EXPECT_EQ(defaultOf(50), "");
  EXPECT_EQ(defaultOf(51), "0");
  EXPECT_EQ(defaultOf(52), "");
  EXPECT_EQ(defaultOf(53), "2000");
  EXPECT_EQ(defaultOf(54), "0");
  EXPECT_EQ(defaultOf(44), "8001");
}

TEST(DebuggerSettingsHKORV, MakesAllSettings) {
  DebuggerSettingsHKORV settings;
  EXPECT_EQ(settings.getSetting(L"TAB"), nullptr);
  settings.initialize();
  EXPECT_EQ(settings.getAllSettings().count(), expectedSettings.size());
  EXPECT_NE(settings.getSetting(L"TAB"), &setting(L"TAB"));
}

TEST(DebuggerSettings, HasOneInstanceOfTheHostSystem) {
  EXPECT_EQ(DebuggerSettings::instance(), DebuggerSettings::instance());
  EXPECT_NE(dynamic_cast<DebuggerSettingsHKORV*>(DebuggerSettings::instance()), nullptr);
}

CUL_CHILD(SettingsOverrides) {
  const DebuggerSetting& timeout = setting(L"REPLY_TIMEOUT");
  std::printf("%s", valueOf(timeout).c_str());
}

TEST(DebuggerSettings, TakesAVariableThatPassesTheChecks) {
  const auto timeoutWith = [](const char* text) {
    ChildOptions options;
    options.environment = {{"QVX_DBG_REPLY_TIMEOUT", text}};
    return runChild("SettingsOverrides", options).out;
  };
  EXPECT_EQ(timeoutWith("5"), "50");
  EXPECT_EQ(timeoutWith("9"), "50");
  EXPECT_EQ(timeoutWith("10"), "10");
  EXPECT_EQ(timeoutWith(" 77 "), "77");
  EXPECT_EQ(timeoutWith("seven"), "50");
  EXPECT_EQ(timeoutWith(""), "50");
  EXPECT_EQ(runChild("SettingsOverrides").out, "50");
}

CUL_STAND_IN(int, nanosleep, (const timespec* duration, timespec* left), CUL_NOTHING, duration,
             left)

namespace {

constinit long secondsSlept = 0;

int pretendToSleep(const timespec* duration, timespec* /*left*/) {
  secondsSlept += duration->tv_sec;
  return 0;
}

// Is interrupted half-way once.
int sleepInTwoParts(const timespec* duration, timespec* left) {
  if (secondsSlept == 0) {
    secondsSlept = duration->tv_sec / 2;
    *left = {duration->tv_sec - secondsSlept, 0};
    errno = EINTR;
    return -1;
  }
  return pretendToSleep(duration, left);
}

long secondsOfDelay(DebuggerSettings& settings, const char* delay,
                    int (*instead)(const timespec*, timespec*) = pretendToSleep) {
  EXPECT_TRUE(settings.setSetting(settings.getSetting(L"DEBUG_DELAY"), encoded(delay)));
  secondsSlept = 0;
  const Instead sleep(nanosleepStandIn, instead);
  settings.debugDelay();
  return secondsSlept;
}

}  // namespace

TEST(DebuggerSettings, DelaysForOneTo299Seconds) {
  DebuggerSettings settings(55);
  settings.initialize();
  EXPECT_EQ(secondsOfDelay(settings, "0"), 0);
  EXPECT_EQ(secondsOfDelay(settings, "1"), 1);
  EXPECT_EQ(secondsOfDelay(settings, "2"), 2);
  EXPECT_EQ(secondsOfDelay(settings, "298"), 298);
  EXPECT_EQ(secondsOfDelay(settings, "299"), 299);
  EXPECT_EQ(secondsOfDelay(settings, "300"), 0);
  EXPECT_EQ(secondsOfDelay(settings, "301"), 0);
  EXPECT_EQ(secondsOfDelay(settings, "65535"), 0);
}

TEST(DebuggerSettings, DelaysForTheWholeTimeThoughSignalsInterrupt) {
  DebuggerSettings settings(55);
  settings.initialize();
  EXPECT_EQ(secondsOfDelay(settings, "10", sleepInTwoParts), 10);
}

TEST(DebuggerSettings, DelaysNotAtAllWithoutTheSetting) {
  const DebuggerSettings settings(55);
  secondsSlept = 0;
  const Instead sleep(nanosleepStandIn, pretendToSleep);
  settings.debugDelay();
  EXPECT_EQ(secondsSlept, 0);
}

CUL_CHILD(SettingsRealDelay) {
  const auto start = std::chrono::steady_clock::now();
  registry().debugDelay();
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(999));
}

TEST(DebuggerSettings, ReallySleeps) {
  ChildOptions options;
  options.environment = {{"QVX_DBG_DEBUG_DELAY", "1"}};
  expectGood(runChild("SettingsRealDelay", options));
}

namespace {

// What a static constructor saw when a child case wanted it to.
const std::string& seenBeforeMain() {
  static const std::string seen = getenv("CUL_SETTINGS_BEFORE_MAIN") != nullptr
                                      ? plain(registry().getNamedSetting(L"UIPORT"))
                                      : "";
  return seen;
}

const bool lookedBeforeMain = seenBeforeMain().empty();

}  // namespace

CUL_CHILD(SettingsBeforeMain) {
  EXPECT_FALSE(lookedBeforeMain);
  EXPECT_EQ(seenBeforeMain(), "8005");
  // After exit, too.
  std::atexit([] { std::printf("exit %s\n", valueOf(setting(L"UIPORT")).c_str()); });
}

TEST(DebuggerSettings, CanBeUsedBeforeMainAndAfterExit) {
  ChildOptions options;
  options.environment = {{"CUL_SETTINGS_BEFORE_MAIN", "1"}, {"QVX_DBG_UIPORT", "8005"}};
  const ChildResult r = runChild("SettingsBeforeMain", options);
  expectGood(r);
  EXPECT_THAT(r.out, HasSubstr("exit 8005\n"));
}

namespace {

unsigned timesAsked = 0;

// While the second setting of the table is made.
void askForTheRegistry(const char* name) {
  if (std::strcmp(name, "QVX_DBG_ADDR") == 0) {
    ++timesAsked;
    EXPECT_EQ(&registry(), DebuggerSettings::present());
    EXPECT_NE(registry().getSetting(L"FILE_CACHE"), nullptr);
    EXPECT_EQ(registry().getSetting(L"ADDR"), nullptr);
    EXPECT_EQ(registry().getSetting(L"PROBE_TIMEOUT"), nullptr);
  }
}

}  // namespace

CUL_CHILD(SettingsAskedForWhileTheyAreBuilt) {
  EXPECT_EQ(DebuggerSettings::present()->getSettings(-1, true)->count(), 0U);
  {
    const Instead asking(getenvStandIn, announceAndRead<askForTheRegistry>);
    EXPECT_EQ(registry().getAllSettings().count(), expectedSettings.size());
  }
  EXPECT_GE(timesAsked, 1U);
}

TEST(DebuggerSettings, IsThereWithTheSettingsMadeSoFarWhileItIsBuilt) {
  expectGood(runChild("SettingsAskedForWhileTheyAreBuilt"));
}

namespace {

unsigned assertionsFailed = 0;

// Only where the settings themselves read; the code page is read by a converter that is being
// made and that calls nobody who asserts.
void failAnAssertion(const char* name) {
  if (std::strncmp(name, "QVX_DBG_", 8) == 0 && std::strcmp(name, "QVX_DBG_CODEPAGE") != 0) {
    ++assertionsFailed;
    AssertionFail(0, "file", "function", assertionsFailed, name);
  }
}

}  // namespace

// Assertions fail before and after "ASSERTION" is made, and ask for it.
CUL_CHILD(SettingsWithFailingAssertions) {
  {
    const Instead failing(getenvStandIn, announceAndRead<failAnAssertion>);
    EXPECT_EQ(DebuggerSettings::instance()->getAllSettings().count(), expectedSettings.size());
  }
  EXPECT_GE(assertionsFailed, expectedSettings.size());
  EXPECT_EQ(assertionMode(), 2);
}

TEST(DebuggerSettings, SurvivesAssertionsThatFailWhileItIsBuilt) {
  ChildOptions options;
  options.environment = {{"QVX_DBG_ASSERTION", "POPUP"}};
  const TracedChildResult r = runTracedChild("SettingsWithFailingAssertions", options);
  expectGood(r.child);
  EXPECT_THAT(r.trace, HasSubstr(": QVX_DBG_FILE_CACHE\n"));
  EXPECT_THAT(r.trace, HasSubstr(": QVX_DBG_PROBE_TIMEOUT\n"));
  // The user's choice holds also before the setting is there.
  EXPECT_THAT(r.child.err, HasSubstr(": QVX_DBG_FILE_CACHE\n"));
  EXPECT_THAT(r.child.err, HasSubstr(": QVX_DBG_SOURCE_CHECK\n"));
  EXPECT_THAT(r.child.err, HasSubstr(": QVX_DBG_PROBE_TIMEOUT\n"));
}

CUL_CHILD(AssertionThatFailsWhileTheModeIsFound) {
  {
    const Instead failing(getenvStandIn, announceAndRead<failAnAssertion>);
    EXPECT_EQ(assertionMode(), 2);
  }
  EXPECT_GE(assertionsFailed, 1U);
}

TEST(AssertionMode, IsZeroForAnAssertionThatFailsWhileItIsFound) {
  ChildOptions options;
  options.environment = {{"QVX_DBG_ASSERTION", "POPUP"}};
  const TracedChildResult r = runTracedChild("AssertionThatFailsWhileTheModeIsFound", options);
  expectGood(r.child);
  EXPECT_THAT(r.trace, HasSubstr(": QVX_DBG_ASSERTION\n"));
  EXPECT_EQ(r.child.err, "");
}

TEST(DebuggerSettings, HasNumbersThatAnyThreadMayReadWhileTheyChange) {
  DebuggerSetting& step = setting(L"STEP_DEBUG");
  std::atomic<bool> done = false;
  std::atomic<unsigned> reads = 0;
  std::thread reader([&] {
    while (!done) {
      const unsigned number =
          registry().getSetting(L"STEP_DEBUG")->asNumericSetting()->getValueAsUnsigned();
      EXPECT_LE(number, 3U);
      ++reads;
    }
  });
  while (reads < 1000) {
    EXPECT_TRUE(set(step, "DEEP"));
    EXPECT_TRUE(set(step, "INCLUDE,DEEP"));
  }
  done = true;
  reader.join();
}
