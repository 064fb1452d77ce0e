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
#include "Engine/internal/SettingTables.h"
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

int groupOf(const SettingRow& row) { return static_cast<int>(row.group); }

int identifierOf(const SettingRow& row) { return static_cast<int>(row.slot); }

template <class Setting>
std::unique_ptr<DebuggerSetting> makeText(const SettingRow& row) {
  const auto minLength = static_cast<unsigned short>(row.limits.minimum);
  const auto maxLength = static_cast<unsigned short>(row.limits.maximum);
  return std::make_unique<Setting>(row.name, controlOf(row), groupOf(row), identifierOf(row),
                                   minLength, maxLength);
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

// NOLINTNEXTLINE(cppcoreguidelines-virtual-class-destructor): it is final.
class TheRegistry final : public DebuggerSettingsHKORV {};

DebuggerSettingsHKORV& settingsOfTheProcess() {
  static constinit ProcessWide<TheRegistry> registry;
  return registry.get([] { return new TheRegistry; });
}

}  // namespace

std::unique_ptr<DebuggerSetting> makeString(const SettingRow& row) {
  return makeText<DebuggerStringSetting>(row);
}

std::unique_ptr<DebuggerSetting> makePath(const SettingRow& row) {
  return makeText<DebuggerPathSetting>(row);
}

std::unique_ptr<DebuggerSetting> makeUnsigned(const SettingRow& row) {
  return std::make_unique<DebuggerUnsignedSetting>(row.name, controlOf(row), groupOf(row),
                                                   identifierOf(row), row.limits.minimum,
                                                   row.limits.maximum);
}

std::unique_ptr<DebuggerSetting> makeBoolean(const SettingRow& row) {
  return std::make_unique<DebuggerBooleanSetting>(row.name, controlOf(row), groupOf(row),
                                                  identifierOf(row));
}

std::unique_ptr<DebuggerSetting> makeEnum(const SettingRow& row) {
  return std::make_unique<DebuggerEnumSetting>(row.name, controlOf(row), row.enumItems,
                                               groupOf(row), identifierOf(row));
}

std::unique_ptr<DebuggerSetting> makeList(const SettingRow& row) {
  return std::make_unique<DebuggerListSetting>(row.name, controlOf(row), row.listItems,
                                               groupOf(row), identifierOf(row),
                                               row.acceptsAllAndNone ? 1 : 0);
}

DebuggerSettings* DebuggerSettings::instance() {
  // Whatever the settings call while they are made may come here again, and finds what is
  // there already.
  static std::atomic<bool> isBegun = false;
  DebuggerSettingsHKORV& registry = settingsOfTheProcess();
  if (!isBegun.load(std::memory_order_acquire)) {
    HoldRequests hold;
    if (!isBegun.exchange(true)) {
      try {
        registry.initialize();
      } catch (...) {
        isBegun = false;
        throw;
      }
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

void DebuggerSettings::initializeCommonSettings() { add(SettingTables::common); }

void DebuggerSettings::initializePlatformSettings() { add(SettingTables::platform); }

void DebuggerSettings::add(std::span<const SettingRow> rows) {
  for (const SettingRow& row : rows) {
    const auto identifier = static_cast<unsigned>(row.slot);
    if (identifier < settings_.count()) {
      std::unique_ptr<DebuggerSetting> made = row.make(row);
      made->isSecret_ = row.isSecret;
      const std::unique_ptr<DebuggerSetting> previous(slot(identifier));
      __atomic_store_n(&settings_[identifier], made.release(), __ATOMIC_RELEASE);
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
  static_assert(DebuggerSettingsHKORV::slots < places / 2, "the hash table needs room to spare");
  unsigned hash = hashOf(name, std::wcslen(name));
  // Settings may be made a second time, in the same slots.
  while (slotsByName_[hash % places] != 0 && slotsByName_[hash % places] != slot + 1) {
    ++hash;
  }
  __atomic_store_n(&slotsByName_[hash % places], static_cast<unsigned char>(slot + 1),
                   __ATOMIC_RELEASE);
}

const wchar_t* DebuggerSettings::defaultSetting(unsigned identifier) const {
  if (const SettingRow* const row = rowOfAnyHost(identifier); row != nullptr) {
    return row->defaultText == SettingTables::askConfiguration ? sourceFilterDefault()
                                                               : row->defaultText;
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
  DebuggerSetting* const setting = slot(static_cast<unsigned>(SettingTables::debugDelay));
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
