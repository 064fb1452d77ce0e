#include "Engine/utilities/DebuggerListSetting.h"

#include <algorithm>
#include <memory>
#include <string>

#include "Engine/internal/FixedLayout.h"
#include "Engine/internal/SettingTexts.h"
#include "Engine/internal/Texts.h"

// The engine knows this layout: docs/contract.md.
CUL_FIXED_FIELD(DebuggerListSetting, names_, 88);
CUL_FIXED_FIELD(DebuggerListSetting, masks_, 120);
CUL_FIXED_FIELD(DebuggerListSetting, setFlags_, 152);
CUL_FIXED_FIELD(DebuggerListSetting, acceptsAllAndNone_, 184);
CUL_FIXED_SIZE(DebuggerListSetting::ListSettingItem, 16);
CUL_FIXED_FIELD(DebuggerListSetting::ListSettingItem, name, 0);
CUL_FIXED_FIELD(DebuggerListSetting::ListSettingItem, mask, 8);
CUL_FIXED_FIELD(DebuggerListSetting::ListSettingItem, sets, 12);

namespace {

constexpr unsigned allBits = 0xFFFFFFFF;

// Takes the next token off the front of `text`; empty when there is none.
std::string_view nextToken(std::string_view& text) {
  const auto isSeparator = [](char c) { return c == ',' || c == ' '; };
  const auto* const first = std::find_if_not(text.begin(), text.end(), isSeparator);
  const auto* const last = std::find_if(first, text.end(), isSeparator);
  const std::string_view token(first, static_cast<std::size_t>(last - first));
  text.remove_prefix(static_cast<std::size_t>(first - text.begin()));
  text.remove_prefix(token.size());
  return token;
}

bool hasTokens(std::string_view text) { return !nextToken(text).empty(); }

// The tokens joined by ",".
EncodedString tokensOf(std::string_view text) {
  std::string result;
  for (std::string_view token = nextToken(text); !token.empty(); token = nextToken(text)) {
    result.append(result.empty() ? "" : ",").append(token);
  }
  return encodedText(result);
}

}  // namespace

DebuggerListSetting::DebuggerListSetting(const EncodedString& name, SettingControl control,
                                         const ListSettingItem* items, int group, int identifier,
                                         int acceptsAllAndNone)
    : DebuggerNumericSetting(name, control, group, identifier, List),
      acceptsAllAndNone_(acceptsAllAndNone != 0) {
  for (; items != nullptr && items->name != nullptr; ++items) {
    names_.add(std::make_unique<EncodedString>(items->name));
    masks_.add(items->mask);
    setFlags_.add(items->sets);
  }
  takeFirstValue();
}

EncodedString DebuggerListSetting::getPermittedValues() const { return joined(names_); }

DebuggerListSetting* DebuggerListSetting::asListSetting() { return this; }

bool DebuggerListSetting::setValue(const EncodedString& text) {
  const std::string_view given = text.view();
  if (!hasTokens(given)) {
    // A default without tokens stands for nothing, least of all for itself.
    return hasTokens(getDefault().view()) && takeDefault();
  }
  unsigned bits = 0;
  if (!parse(given, bits)) {
    return false;
  }
  const EncodedString canonical = canonicalText(bits);
  unsigned bitsReadBack = 0;
  const bool readsBack =
      hasTokens(canonical.view()) && parse(canonical.view(), bitsReadBack) && bitsReadBack == bits;
  store(readsBack ? canonical : tokensOf(given), bits);
  return true;
}

// Changes the bits as one token says; false for an unknown one.
bool DebuggerListSetting::apply(std::string_view token, unsigned& bits) const {
  for (unsigned i = names_.count(); i-- > 0;) {
    if (token == names_[i].view()) {
      bits = setFlags_[i] ? bits | masks_[i] : bits & ~masks_[i];
      return true;
    }
  }
  if (!acceptsAllAndNone_ || (token != "ALL" && token != "NONE")) {
    return false;
  }
  bits = token == "ALL" ? allBits : 0;
  return true;
}

bool DebuggerListSetting::parse(std::string_view text, unsigned& bits) const {
  for (std::string_view token = nextToken(text); !token.empty(); token = nextToken(text)) {
    if (!apply(token, bits)) {
      return false;
    }
  }
  return true;
}

bool DebuggerListSetting::isCovered(unsigned index, unsigned bits) const {
  const unsigned mask = masks_[index];
  if (!setFlags_[index]) {
    return (bits & mask) == 0;
  }
  return mask == 0 ? bits == 0 : (bits & mask) == mask;
}

EncodedString DebuggerListSetting::canonicalText(unsigned bits) const {
  std::string result;
  for (unsigned i = 0; i < names_.count(); ++i) {
    if (!isCovered(i, bits)) {
      continue;
    }
    if (setFlags_[i] && masks_[i] == allBits) {
      return names_[i];
    }
    result.append(result.empty() ? "" : ",").append(names_[i].view());
  }
  return encodedText(result);
}
