#include "Engine/utilities/DebuggerPathSetting.h"

#include <memory>

#include "Engine/internal/FixedLayout.h"
#include "Engine/utilities/FileName.h"
#include "Engine/utilities/OwningList.h"

// The engine knows this layout: docs/contract.md.
CUL_FIXED_FIELD(DebuggerPathSetting, paths_, 88);

DebuggerPathSetting::DebuggerPathSetting(const EncodedString& name, SettingControl control,
                                         int group, int identifier, unsigned short minLength,
                                         unsigned short maxLength)
    : DebuggerStringSetting(name, control, group, identifier, minLength, maxLength, Path) {
  buildPaths();
}

DebuggerPathSetting::~DebuggerPathSetting() = default;

DebuggerPathSetting* DebuggerPathSetting::asPathSetting() { return this; }

bool DebuggerPathSetting::setValue(const EncodedString& text) {
  if (!DebuggerStringSetting::setValue(text)) {
    return false;
  }
  buildPaths();
  return true;
}

const ::List<FileName*>& DebuggerPathSetting::getPaths() const noexcept { return paths_.list(); }

void DebuggerPathSetting::buildPaths() {
  paths_.removeAll();
  const OwningList<EncodedString> entries(FileName::parsePaths(getValue()));
  paths_.reserve(entries.count());
  for (const EncodedString* entry : entries.list()) {
    paths_.add(std::make_unique<FileName>(*entry));
  }
}
