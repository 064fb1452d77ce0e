#pragma once

#include "Engine/utilities/EncodedString.h"
#include "Engine/utilities/Export.h"

/// \file
/// A debugger setting: a named, typed value that the user gives in the environment and a
/// client changes at run time.
///
/// A setting takes its first value when it is made: that of the environment variable
/// "QVX_DBG_" + name when the setting's checks pass it, else the default that the registry
/// (DebuggerSettings) has for its identifier. When both are refused the value is empty and
/// its number 0. From then on only setValue() changes it, which either takes a text over or
/// refuses it and changes nothing; no text, whatever its bytes, makes anything throw.
///
/// The value is kept in its canonical text form. Texts are UTF-8 and blanks are the
/// character " "; letters are compared without regard to case only where a class says so.
///
/// Settings are made, by the registry, and changed by one controlling thread; numbers
/// (DebuggerNumericSetting) may be read from any.

class DebuggerBooleanSetting;
class DebuggerEnumSetting;
class DebuggerIntegerSetting;
class DebuggerListSetting;
class DebuggerNumericSetting;
class DebuggerPathSetting;
class DebuggerSettings;
class DebuggerStringSetting;
class DebuggerUnsignedSetting;

class CUL_EXPORT DebuggerSetting {
 public:
  /// The kinds of setting, one bit each.
  enum SettingType : int {
    String = 1,
    Boolean = 2,
    Integer = 4,
    Unsigned = 8,
    Enum = 16,
    List = 32,
    Path = 64
  };

  /// A set of bits that the registry interprets.
  enum SettingControl : int {
    Listable1 = 1,
    Listable2 = 2,
    Listable = Listable1 | Listable2,  ///< Two bits, of which any one makes the setting listable.
    Hidden = 4,                        ///< Listed only for those who ask for hidden settings.
    Carried16 = 16,                    ///< Means something to clients only.
    Carried32 = 32,                    ///< Means something to clients only.
    Changeable = 64                    ///< May be changed at run time.
  };

  /// Where the present value comes from.
  enum Origin : int {
    Nowhere,      ///< The first value was refused; the value is empty.
    Default,      ///< From the registry's table of defaults.
    Environment,  ///< From the setting's environment variable.
    Changed       ///< From a later setValue().
  };

  virtual ~DebuggerSetting() = default;
  DebuggerSetting(const DebuggerSetting&) = delete;
  DebuggerSetting& operator=(const DebuggerSetting&) = delete;

  /// The texts that setValue() takes, as a user interface shows them; empty where that
  /// cannot be listed.
  [[nodiscard]] virtual EncodedString getPermittedValues() const;

  /// The present value of the setting's environment variable without leading and trailing
  /// blanks; empty when it is not set.
  [[nodiscard]] virtual EncodedString getEnvValue() const;

  /// \name Conversions
  /// The object itself when it is of that class, else null.
  /// @{
  [[nodiscard]] virtual DebuggerStringSetting* asStringSetting();
  [[nodiscard]] virtual DebuggerPathSetting* asPathSetting();
  [[nodiscard]] virtual DebuggerNumericSetting* asNumericSetting();
  [[nodiscard]] virtual DebuggerIntegerSetting* asIntegerSetting();
  [[nodiscard]] virtual DebuggerUnsignedSetting* asUnsignedSetting();
  [[nodiscard]] virtual DebuggerBooleanSetting* asBooleanSetting();
  [[nodiscard]] virtual DebuggerEnumSetting* asEnumSetting();
  [[nodiscard]] virtual DebuggerListSetting* asListSetting();
  /// @}

  /// Takes a new value over, by the rules of the class; tells nobody, for that see
  /// DebuggerSettings::setSetting().
  /// \return false for a text that is refused, with nothing changed.
  virtual bool setValue(const EncodedString& text) = 0;

  /// The default text that the process's registry has for the identifier.
  [[nodiscard]] EncodedString getDefault() const;

  /// The setting's name, as in "REPLY_TIMEOUT".
  [[nodiscard]] const EncodedString& getName() const noexcept { return name_; }
  /// The value in its canonical text form.
  [[nodiscard]] const EncodedString& getValue() const noexcept { return value_; }
  /// A number by which clients group settings.
  [[nodiscard]] int getGroup() const noexcept { return group_; }
  /// The setting's slot in the registry, and the key of its default.
  [[nodiscard]] int getIdentifier() const noexcept { return identifier_; }
  /// The kind of the setting, one bit.
  [[nodiscard]] SettingType getType() const noexcept { return type_; }
  /// What the setting allows, a set of SettingControl bits.
  [[nodiscard]] SettingControl getControl() const noexcept { return control_; }
  /// Where the present value comes from.
  [[nodiscard]] Origin getOrigin() const noexcept { return origin_; }

  /// Whether the setting was made while its environment variable held a text, other than
  /// blanks, that was refused.
  [[nodiscard]] bool isEnvValueRefused() const noexcept { return envValueRefused_; }

  /// Whether the value is a key or a password, which is shown to nobody. The registry says it of
  /// its settings.
  [[nodiscard]] bool isSecret() const noexcept { return isSecret_; }

 protected:
  /// The base of a setting, with an empty value.
  /// \param name       what follows "QVX_DBG_" in the name of the environment variable.
  /// \param control    what the setting allows, see SettingControl.
  /// \param group      means something to clients only.
  /// \param identifier the slot in the registry; the registry has a default only for its own.
  /// \param type       the kind of the setting.
  DebuggerSetting(const EncodedString& name, SettingControl control, int group, int identifier,
                  SettingType type);

  /// Offers the environment's text to setValue(), then, unless that is taken, the default.
  /// For the constructors, once the fields of their class are set: setValue() is that of the
  /// class under construction.
  void takeFirstValue();

  /// Offers the default to setValue().
  /// \return whether it was taken.
  bool takeDefault();

  /// Stores an accepted value.
  void store(const EncodedString& canonical);

 private:
  EncodedString name_;
  EncodedString value_;
  int group_;
  int identifier_;
  SettingType type_;
  SettingControl control_;
  Origin origin_ = Nowhere;
  bool envValueRefused_ = false;
  bool isSecret_ = false;

  friend class DebuggerSettings;
};
