#include "Engine/utilities/DebuggerSettings.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstring>
#include <cwchar>
#include <thread>
#include <utility>

#include "Engine/internal/FixedLayout.h"
#include "Engine/internal/HoldRequests.h"
#include "Engine/internal/ProcessWide.h"
#include "Engine/internal/SettingRow.h"
#include "Engine/utilities/CharString.h"
#include "Engine/utilities/DebuggerBooleanSetting.h"
#include "Engine/utilities/DebuggerConfiguration.h"
#include "Engine/utilities/DebuggerPathSetting.h"
#include "Engine/utilities/DebuggerSettingsHKORV.h"
#include "Engine/utilities/DebuggerUnsignedSetting.h"

// The engine knows this layout: docs/contract.md.
CUL_FIXED_FIELD(DebuggerSettings, listeners_, 8);
CUL_FIXED_FIELD(DebuggerSettings, settings_, 40);

namespace {

using EnumItem = DebuggerEnumSetting::EnumSettingItem;
using ListItem = DebuggerListSetting::ListSettingItem;

constexpr ListItem languagesSteppedInto[] = {
    {L"C", 2, true},       {L"C++", 4, true},          {L"CPP", 4, true},
    {L"PL/I", 16, true},   {L"PLI", 16, true},         {L"RPG", 32, true},
    {L"COBOL", 64, true},  {L"FORTRAN", 2048, true},   {L"UPC", 32768, true},
    {L"X10", 65536, true}, {L"ALL", 0xFFFFFFFF, true}, {L"NONE", 0, true},
    {nullptr, 0, false}};

constexpr ListItem stepItems[] = {{L"INCLUDE", 2, true},
                                  {L"NOINCLUDE", 2, false},
                                  {L"DEEP", 1, true},
                                  {L"SHALLOW", 1, false},
                                  {nullptr, 0, false}};

constexpr ListItem assertionItems[] = {{L"EXCEPTION", 1, true},
                                       {L"NOEXCEPTION", 1, false},
                                       {L"POPUP", 2, true},
                                       {L"NOPOPUP", 2, false},
                                       {nullptr, 0, false}};

constexpr ListItem sourceCheckItems[] = {{L"DATE", 1, true},
                                         {L"NODATE", 1, false},
                                         {L"CONTENT", 2, true},
                                         {L"NOCONTENT", 2, false},
                                         {nullptr, 0, false}};

constexpr EnumItem sourceFilters[] = {
    {L"ALL", 0}, {L"ASSEMBLER", 0}, {L"SOURCE", 1}, {L"ALL_SOURCE", 2}, {nullptr, 0}};

// The first name ends with a blank, so that "NONE", which is stripped before it is compared, does
// not match it. The default is refused, and only "0" sets no language: kept for user interfaces,
// which show these names and values (docs/contract.md).
constexpr EnumItem languages[] = {{L"NONE ", 0},    {L"C", 1},    {L"C++", 2},  {L"CPP", 2},
                                  {L"PL/I", 4},     {L"PLI", 4},  {L"RPG", 5},  {L"COBOL", 6},
                                  {L"FORTRAN", 11}, {L"UPC", 15}, {L"X10", 16}, {nullptr, 0}};

constexpr EnumItem consoles[] = {{L"REMOTE", 0}, {L"GUI", 1}, {L"LOCAL", 2}, {nullptr, 0}};
constexpr EnumItem forkModes[] = {{L"PARENT", 0}, {L"BOTH", 1}, {L"BOTHRUN", 2}, {nullptr, 0}};
constexpr EnumItem execModes[] = {{L"STOP", 0}, {L"RUN", 1}, {nullptr, 0}};

constexpr const wchar_t* askConfiguration = nullptr;

}  // namespace

constexpr SettingRow assertionRow =
    listRow(L"ASSERTION", 17, 20, 1, L"NOEXCEPTION,NOPOPUP", assertionItems, false);

namespace {

constexpr SettingRow commonSettings[] = {
    stringRow(L"FILE_CACHE", 65, 16, 21, L""),
    stringRow(L"ADDR", 17, 1, 0, L""),
    pathRow(L"PATH", 67, 2, 5, L"", 0, 65535),
    stringRow(L"KORVDUMP", 17, 3, 6, L""),
    stringRow(L"TRACE", 17, 4, 7, L""),
    stringRow(L"SIGSTOP", 17, 20, 36, L""),
    listRow(L"SOURCESTEP", 67, 5, 40, L"COBOL,PLI,X10,FORTRAN,RPG", languagesSteppedInto, true),
    listRow(L"STEP_DEBUG", 67, 8, 41, L"INCLUDE,SHALLOW", stepItems, false),
    assertionRow,
    listRow(L"SOURCE_CHECK", 17, 9, 39, L"NODATE,NOCONTENT", sourceCheckItems, true),
    booleanRow(L"AUTOMATED_TEST_MODE", 71, 20, 2, L"FALSE"),
    booleanRow(L"ASYNC_MODE", 21, 10, 9, L"FALSE"),
    booleanRow(L"ARRAY_REPCHANGE", 67, 11, 8, L"FALSE"),
    booleanRow(L"DEFERRED_LOCALS", 71, 20, 15, L"TRUE"),
    booleanRow(L"DEFERRED_MONITORS", 71, 20, 16, L"TRUE"),
    booleanRow(L"HIDE_TXMN_PHANTOM_SIG_TRAP", 71, 20, 17, L"TRUE"),
    booleanRow(L"DISASM_NOHEX", 17, 14, 18, L"FALSE"),
    booleanRow(L"HIDE_RUNTIME_THREADS", 67, 15, 23, L"TRUE"),
    booleanRow(L"HIDE_SYSTEM_THREADS", 21, 20, 24, L"TRUE"),
    booleanRow(L"KERNEL_OVERRIDE", 21, 20, 25, L"FALSE"),
    booleanRow(L"METADEBUG", 21, 20, 27, L"TRUE"),
    booleanRow(L"NOSTEP_OVERRIDE", 21, 20, 28, L"FALSE"),
    booleanRow(L"POWER_STEP", 67, 22, 31, L"FALSE"),
    booleanRow(L"PRELOAD_DEBUGGEE", 17, 23, 32, L"FALSE"),
    booleanRow(L"COBOL_OO", 67, 12, 11, L"FALSE"),
    unsignedRow(L"AUTOMONITOR_AFTER", 67, 18, 3, L"1", 0, 65535),
    unsignedRow(L"AUTOMONITOR_BEFORE", 67, 19, 4, L"2", 0, 65535),
    unsignedRow(L"DEBUG_DELAY", 71, 20, 13, L"0", 0, 65535),
    unsignedRow(L"DEBUG_INFO_KEEP", 67, 21, 14, L"10", 0, 65535),
    unsignedRow(L"PLATFORM_ID", 21, 20, 30, L"0", 0, 65535),
    unsignedRow(L"UIPORT", 21, 20, 44, L"8001", 256, 65535),
    unsignedRow(L"TAB", 17, 25, 42, L"8", 1, 8),
    unsignedRow(L"TABGRID", 17, 26, 43, L"8", 2, 20),
    unsignedRow(L"REPLY_TIMEOUT", 21, 20, 33, L"50", 10, 65535),
    unsignedRow(L"NOTIFY_TIMEOUT", 21, 20, 29, L"100", 10, 65535),
    enumRow(L"SOURCE_FILTER", 67, 7, 38, askConfiguration, sourceFilters),
    enumRow(L"LANGUAGE", 65, 6, 19, L"NONE", languages),
    booleanRow(L"DEBUG_ARANGE", 4, 20, 45, L"TRUE"),
    booleanRow(L"DEBUG_FRAME", 4, 20, 46, L"TRUE"),
    booleanRow(L"MULTIBKPT", 67, 33, 37, L"FALSE"),
    unsignedRow(L"MEMORY_CACHE_TIMEOUT", 67, 34, 26, L"50", 0, 65535)};

constexpr SettingRow platformSettings[] = {
    pathRow(L"RUNTIME_MODULES", 67, 32, 34, L"", 0, 65535),
    unsignedRow(L"SHOWSELF_TIMEOUT", 67, 27, 35, L"10", 0, 65535),
    enumRow(L"CONSOLE", 99, 28, 12, L"REMOTE", consoles),
    enumRow(L"FORK", 67, 29, 22, L"BOTH", forkModes),
    enumRow(L"EXEC", 67, 30, 20, L"STOP", execModes),
    booleanRow(L"TXMN_STEP", 67, 13, 10, L"TRUE")};

constexpr unsigned debugDelaySlot = 13;
constexpr unsigned longestDebugDelay = 299;

const wchar_t* sourceFilterDefault() {
  static constinit ProcessWide<const CharString> text;
  return text.get([] {
    const char* const utf8 = DebuggerConfiguration::instance()->sourceFilterDefault();
    auto wide = std::make_unique<CharString>();
    wide->loadFrom(utf8, static_cast<unsigned>(std::strlen(utf8)), EncodedString::utf8);
    return wide.release();
  });
}

DebuggerSetting::SettingControl controlOf(const SettingRow& row) {
  return static_cast<DebuggerSetting::SettingControl>(row.control);
}

template <class Setting>
std::unique_ptr<DebuggerSetting> makeText(const SettingRow& row) {
  const auto minLength = static_cast<unsigned short>(row.minimum);
  const auto maxLength = static_cast<unsigned short>(row.maximum);
  return std::make_unique<Setting>(row.name, controlOf(row), row.group, row.identifier, minLength,
                                   maxLength);
}

// Tells the names there are well enough apart.
unsigned hashOf(const wchar_t* name, std::size_t length) noexcept {
  if (length == 0) {
    return 0;
  }
  const auto value = [name](std::size_t index) { return static_cast<unsigned>(name[index]); };
  return static_cast<unsigned>(length) * 5 + value(0) * 29 + value(length / 2) * 11 +
         value(length - 1) * 3;
}

// Names of settings are ASCII.
bool isName(const EncodedString& name, const wchar_t* text, std::size_t length) noexcept {
  const char* const bytes = name;
  return name.length() == length &&
         std::equal(text, text + length, bytes, [](wchar_t c, char byte) {
           return c == wchar_t{static_cast<unsigned char>(byte)};
         });
}

DebuggerSettingsHKORV& settingsOfTheProcess() {
  static constinit ProcessWide<DebuggerSettingsHKORV> registry;
  return registry.get([] { return new DebuggerSettingsHKORV; });
}

}  // namespace

std::unique_ptr<DebuggerSetting> makeString(const SettingRow& row) {
  return makeText<DebuggerStringSetting>(row);
}

std::unique_ptr<DebuggerSetting> makePath(const SettingRow& row) {
  return makeText<DebuggerPathSetting>(row);
}

std::unique_ptr<DebuggerSetting> makeUnsigned(const SettingRow& row) {
  return std::make_unique<DebuggerUnsignedSetting>(row.name, controlOf(row), row.group,
                                                   row.identifier, row.minimum, row.maximum);
}

std::unique_ptr<DebuggerSetting> makeBoolean(const SettingRow& row) {
  return std::make_unique<DebuggerBooleanSetting>(row.name, controlOf(row), row.group,
                                                  row.identifier);
}

std::unique_ptr<DebuggerSetting> makeEnum(const SettingRow& row) {
  return std::make_unique<DebuggerEnumSetting>(row.name, controlOf(row), row.enumItems, row.group,
                                               row.identifier);
}

std::unique_ptr<DebuggerSetting> makeList(const SettingRow& row) {
  return std::make_unique<DebuggerListSetting>(row.name, controlOf(row), row.listItems, row.group,
                                               row.identifier, row.acceptsAllAndNone ? 1 : 0);
}

DebuggerSettings* DebuggerSettings::instance() {
  // Whatever the settings call while they are made may come here again, and finds what is
  // there already.
  static std::atomic<bool> isBegun = false;
  DebuggerSettingsHKORV& registry = settingsOfTheProcess();
  if (!isBegun.load(std::memory_order_acquire)) {
    HoldRequests hold;
    if (!isBegun.exchange(true)) {
      registry.initialize();
    }
  }
  return &registry;
}

DebuggerSettings* DebuggerSettings::present() { return &settingsOfTheProcess(); }

DebuggerSettings::DebuggerSettings(unsigned slots) : settings_(slots) {
  for (unsigned i = 0; i < slots; ++i) {
    settings_.add(nullptr);
  }
}

DebuggerSettings::~DebuggerSettings() {
  for (const DebuggerSetting* setting : settings_) {
    delete setting;
  }
}

void DebuggerSettings::initialize() {
  initializeCommonSettings();
  initializePlatformSettings();
}

void DebuggerSettings::initializeCommonSettings() { add(commonSettings); }

void DebuggerSettings::initializePlatformSettings() { add(platformSettings); }

void DebuggerSettings::add(std::span<const SettingRow> rows) {
  for (const SettingRow& row : rows) {
    const auto identifier = static_cast<unsigned>(row.identifier);
    if (identifier < settings_.count()) {
      const std::unique_ptr<DebuggerSetting> previous(slot(identifier));
      __atomic_store_n(&settings_[identifier], row.make(row).release(), __ATOMIC_RELEASE);
      enterName(row.name, identifier);
    }
  }
}

void DebuggerSettings::registerHandler(Notification& listener, bool add) {
  if (!add) {
    listeners_.remove(&listener);
  } else if (listeners_.indexOf(&listener) == 0) {
    listeners_.add(&listener);
  }
}

bool DebuggerSettings::setSetting(DebuggerSetting* setting, const EncodedString& value) {
  if (setting == nullptr || (setting->getControl() & DebuggerSetting::Changeable) == 0 ||
      !setting->setValue(value)) {
    return false;
  }
  // A listener that is told may change the list.
  List<Notification*> told;
  told.append(listeners_.begin(), listeners_.count());
  for (unsigned i = told.count(); i-- > 0;) {
    if (listeners_.indexOf(told[i]) != 0) {
      told[i]->settingChanged(setting);
    }
  }
  return true;
}

const EncodedString& DebuggerSettings::getNamedSetting(const wchar_t* name) const {
  static constinit ProcessWide<const EncodedString> none;
  const DebuggerSetting* const setting = getSetting(name);
  return setting == nullptr ? none.get([] { return new EncodedString; }) : setting->getValue();
}

const List<DebuggerSetting*>& DebuggerSettings::allSettings() const { return getAllSettings(); }

std::unique_ptr<List<DebuggerSetting*>> DebuggerSettings::getSettings(int typeMask,
                                                                      bool includeHidden) const {
  auto result = std::make_unique<List<DebuggerSetting*>>();
  for (unsigned i = settings_.count(); i-- > 0;) {
    DebuggerSetting* const setting = slot(i);
    if (setting != nullptr && (setting->getType() & typeMask) != 0 &&
        (setting->getControl() & DebuggerSetting::Listable) != 0 &&
        (includeHidden || (setting->getControl() & DebuggerSetting::Hidden) == 0)) {
      result->add(setting);
    }
  }
  return result;
}

DebuggerSetting* DebuggerSettings::getSetting(const wchar_t* name) const {
  if (name == nullptr) {
    return nullptr;
  }
  const std::size_t length = std::wcslen(name);
  for (unsigned hash = hashOf(name, length);; ++hash) {
    const unsigned found = __atomic_load_n(&slotsByName_[hash % places], __ATOMIC_ACQUIRE);
    if (found == 0) {
      return nullptr;
    }
    DebuggerSetting* const setting = slot(found - 1);
    if (setting != nullptr && isName(setting->getName(), name, length)) {
      return setting;
    }
  }
}

void DebuggerSettings::enterName(const wchar_t* name, unsigned slot) noexcept {
  unsigned hash = hashOf(name, std::wcslen(name));
  // Settings may be made a second time, in the same slots.
  while (slotsByName_[hash % places] != 0 && slotsByName_[hash % places] != slot + 1) {
    ++hash;
  }
  __atomic_store_n(&slotsByName_[hash % places], static_cast<unsigned char>(slot + 1),
                   __ATOMIC_RELEASE);
}

const wchar_t* DebuggerSettings::defaultSetting(unsigned identifier) const {
  for (const std::span<const SettingRow> table : {std::span<const SettingRow>(commonSettings),
                                                  std::span<const SettingRow>(platformSettings)}) {
    for (const SettingRow& row : table) {
      if (static_cast<unsigned>(row.identifier) == identifier) {
        return row.defaultText == askConfiguration ? sourceFilterDefault() : row.defaultText;
      }
    }
  }
  return L"";
}

const List<DebuggerSetting*>& DebuggerSettings::getAllSettings() const {
  if (allSettings_ == nullptr) {
    auto all = std::make_unique<List<DebuggerSetting*>>(settings_.count());
    for (unsigned i = 0; i < settings_.count(); ++i) {
      if (DebuggerSetting* const setting = slot(i); setting != nullptr) {
        all->add(setting);
      }
    }
    allSettings_ = std::move(all);
  }
  return *allSettings_;
}

void DebuggerSettings::debugDelay() const {
  DebuggerSetting* const setting = slot(debugDelaySlot);
  const DebuggerNumericSetting* const delay =
      setting == nullptr ? nullptr : setting->asNumericSetting();
  const unsigned seconds = delay == nullptr ? 0 : delay->getValueAsUnsigned();
  if (seconds != 0 && seconds <= longestDebugDelay) {
    std::this_thread::sleep_for(std::chrono::seconds(seconds));
  }
}

DebuggerSetting* DebuggerSettings::slot(unsigned index) const noexcept {
  return index < settings_.count() ? __atomic_load_n(&settings_[index], __ATOMIC_ACQUIRE) : nullptr;
}
