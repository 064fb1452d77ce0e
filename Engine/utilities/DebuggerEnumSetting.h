#pragma once

#include "Engine/utilities/DebuggerNumericSetting.h"
#include "Engine/utilities/Export.h"
#include "Engine/utilities/OwningList.h"

/// A setting whose value is one of several items, each a name that stands for a number.
///
/// An item is given by its name, in any case, or by its number in decimal form, with blanks
/// around it; the value is the item's name. Of several items that match, the last one of
/// the table is taken. An item whose name has a lower-case letter, or a blank at either
/// end, can be given by its number only.
class CUL_EXPORT DebuggerEnumSetting : public DebuggerNumericSetting {
 public:
  /// A name and the number that it stands for.
  struct EnumSettingItem {
    const wchar_t* name;  ///< Null behind the last item of an array.
    unsigned number;      ///< The number of the value.
  };

  /// \param name,control,group,identifier as for DebuggerSetting.
  /// \param items copied; a null one counts as no items.
  DebuggerEnumSetting(const EncodedString& name, SettingControl control,
                      const EnumSettingItem* items, int group, int identifier);

  /// The names in the order of the table, joined by ", ".
  [[nodiscard]] EncodedString getPermittedValues() const override;
  [[nodiscard]] DebuggerEnumSetting* asEnumSetting() override;
  bool setValue(const EncodedString& text) override;

 private:
  OwningList<EncodedString> names_;
  ::List<unsigned> numbers_;
};
