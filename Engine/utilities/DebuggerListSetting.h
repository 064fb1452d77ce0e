#pragma once

#include <string_view>

#include "Engine/utilities/DebuggerNumericSetting.h"
#include "Engine/utilities/Export.h"
#include "Engine/utilities/OwningList.h"

/// A setting whose value is a list of items that add up to a set of bits, the number.
///
/// A text is a list of item names in their exact case, separated by "," and blanks. They are
/// taken in turn, beginning with no bit set: an item sets or clears the bits of its mask. Of
/// several items with one name the last one of the table is meant. Where no item is called
/// so, a setting that accepts them takes "ALL" for all bits and "NONE" for no bit. Any other
/// name refuses the whole text. A text without names stands for the default.
///
/// The value is made anew from the bits: the names, in the order of the table and joined by
/// ",", of the items that set and have all their bits set (with a mask of 0: no bit at all
/// is set), and of those that clear and have all their bits clear. An item that sets all 32
/// bits stands for the whole list when they are set. It can happen that the items cannot
/// express the bits, as after an "ALL" that is no item; the names then stay as they were
/// given. Either way the value reads back to the same bits.
class CUL_EXPORT DebuggerListSetting : public DebuggerNumericSetting {
 public:
  /// A name and what it does to the bits of the value.
  struct ListSettingItem {
    const wchar_t* name;  ///< Null behind the last item of an array.
    unsigned mask;        ///< The bits that are set or cleared.
    bool sets;            ///< Whether the item sets the bits of its mask or clears them.
  };

  /// \param name,control,group,identifier as for DebuggerSetting.
  /// \param items             copied; a null one counts as no items.
  /// \param acceptsAllAndNone whether "ALL" and "NONE" are accepted; 0: no.
  DebuggerListSetting(const EncodedString& name, SettingControl control,
                      const ListSettingItem* items, int group, int identifier,
                      int acceptsAllAndNone);

  /// The names in the order of the table, joined by ", ".
  [[nodiscard]] EncodedString getPermittedValues() const override;
  [[nodiscard]] DebuggerListSetting* asListSetting() override;
  bool setValue(const EncodedString& text) override;

 private:
  [[nodiscard]] bool apply(std::string_view token, unsigned& bits) const;
  [[nodiscard]] bool parse(std::string_view text, unsigned& bits) const;
  [[nodiscard]] bool isCovered(unsigned index, unsigned bits) const;
  [[nodiscard]] EncodedString canonicalText(unsigned bits) const;

  OwningList<EncodedString> names_;
  ::List<unsigned> masks_;
  ::List<bool> setFlags_;
  bool acceptsAllAndNone_;
};
