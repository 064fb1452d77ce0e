#pragma once

#include <memory>
#include <span>

#include "Engine/utilities/DebuggerSetting.h"
#include "Engine/utilities/Export.h"
#include "Engine/utilities/List.h"

/// \file
/// The process-wide table of all settings of the debugger.
///
/// It makes every setting (each taking its first value from the environment or from the
/// table of defaults), finds them by name, lists them by type for a user interface, changes
/// them at run time and tells listeners of each change. It owns its settings, never removes
/// one and lives until the process ends; the process's own is a DebuggerSettingsHKORV.
///
/// It has no lock: the first instance() belongs on the main thread before a second thread
/// exists, and changes, listeners and lists on one controlling thread. Once it is built, any
/// thread may find settings and read their numbers.

struct SettingRow;

// NOLINTNEXTLINE(cppcoreguidelines-virtual-class-destructor): the virtual slots are fixed.
class CUL_EXPORT DebuggerSettings {
 public:
  /// Someone who is told of changes. A listener may register and unregister listeners,
  /// itself included, and change settings while it is being told.
  class CUL_EXPORT Notification {
   public:
    /// `setting` has been given a value by setSetting(), which may be the one it had.
    virtual void settingChanged(DebuggerSetting* setting) = 0;
    virtual ~Notification() = default;
  };

  /// The process's settings, made and filled by the first call. Settings that are being made
  /// find the registry here already, with the slots filled so far. Asks the configuration
  /// module for a default (see DebuggerConfiguration).
  /// \throws std::bad_alloc when there is no memory for all of them: the next call makes them
  ///         anew, and deletes those that were made.
  static DebuggerSettings* instance();

  /// The same object with the settings that it has so far, perhaps none: the call makes none
  /// and asks no module. For those who cannot know whether the program has come to
  /// instance() yet. Any thread.
  static DebuggerSettings* present();

  /// No listeners and a table of `slots` slots, all empty.
  explicit DebuggerSettings(unsigned slots);
  DebuggerSettings(const DebuggerSettings&) = delete;
  DebuggerSettings& operator=(const DebuggerSettings&) = delete;
  /// Deletes the settings. Not virtual: a registry is destroyed as what it was made.
  ~DebuggerSettings();

  /// Makes the common settings, then those of the platform. Identifiers for which there is
  /// no slot are left out.
  void initialize();

  /// Adds or removes a listener, which stays its owner's and has to be removed before it goes.
  /// \param listener called on the thread that changes a setting.
  /// \param add true: appends the listener unless it is registered; false: removes it if it is.
  virtual void registerHandler(Notification& listener, bool add);

  /// Changes a setting at run time and tells the listeners, from the last registered to the
  /// first. A listener removed meanwhile is not told any more, one added is not told yet.
  /// \return false, with nothing changed, when `setting` is null, may not be changed
  ///         (DebuggerSetting::Changeable) or refuses the value.
  virtual bool setSetting(DebuggerSetting* setting, const EncodedString& value);

  /// The value of the setting of that name; a shared empty text when there is none. Valid
  /// until the setting changes.
  [[nodiscard]] virtual const EncodedString& getNamedSetting(const wchar_t* name) const;

  /// The same as getAllSettings().
  [[nodiscard]] virtual const List<DebuggerSetting*>& allSettings() const;

  /// The listable settings of some types, from the last slot to the first.
  /// \param typeMask      a set of DebuggerSetting::SettingType bits.
  /// \param includeHidden whether DebuggerSetting::Hidden settings are wanted, too.
  [[nodiscard]] virtual std::unique_ptr<List<DebuggerSetting*>> getSettings(
      int typeMask, bool includeHidden) const;

  /// The first setting of that name, in slot order; the case counts. Null when there is
  /// none, and for a null name.
  [[nodiscard]] virtual DebuggerSetting* getSetting(const wchar_t* name) const;

  /// The default text of an identifier, empty for an unknown one. It lives as long as the
  /// process.
  [[nodiscard]] virtual const wchar_t* defaultSetting(unsigned identifier) const;

  /// All settings in slot order. The list is made by the first call and kept: settings made
  /// later are not in it.
  [[nodiscard]] virtual const List<DebuggerSetting*>& getAllSettings() const;

  /// Puts the calling thread to sleep for as many seconds as "DEBUG_DELAY" says, so that a
  /// developer can attach to the engine; not at all for 0 and for 300 or more.
  void debugDelay() const;

 protected:
  /// Makes the settings of a table, each in the slot of its identifier.
  void add(std::span<const SettingRow> rows);

  /// Makes the settings that every platform has.
  void initializeCommonSettings();
  /// Makes the settings that only this platform has.
  void initializePlatformSettings();

 private:
  // The setting in a slot; null for an empty slot and for one that does not exist.
  [[nodiscard]] DebuggerSetting* slot(unsigned index) const noexcept;

  [[gnu::visibility("hidden")]] void enterName(const wchar_t* name, unsigned slot) noexcept;

  // A hash table with open addressing that has room to spare for all settings there are.
  static constexpr unsigned places = 256;

  List<Notification*> listeners_;  // not owned
  // Owned. Raw, and no OwningList: the engine knows the field (docs/contract.md), slots are empty
  // at first, and they are read and written atomically.
  List<DebuggerSetting*> settings_;
  mutable std::unique_ptr<List<DebuggerSetting*>> allSettings_;
  unsigned char slotsByName_[places] = {};  // 1-based slots, in the place of the name's hash or
                                            // behind it; 0: none.
};
