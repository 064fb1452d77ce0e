#pragma once

#include "Engine/utilities/DebuggerStringSetting.h"
#include "Engine/utilities/Export.h"
#include "Engine/utilities/OwningList.h"

class FileName;

/// A setting whose value is a list of paths separated by ":".
class CUL_EXPORT DebuggerPathSetting : public DebuggerStringSetting {
 public:
  /// As for DebuggerStringSetting; the lengths are those of the whole value.
  DebuggerPathSetting(const EncodedString& name, SettingControl control, int group, int identifier,
                      unsigned short minLength, unsigned short maxLength);
  ~DebuggerPathSetting() override;

  [[nodiscard]] DebuggerPathSetting* asPathSetting() override;
  bool setValue(const EncodedString& text) override;

  /// The paths of the value in their order, without empty ones (see FileName::parsePaths()).
  /// They belong to the setting and are replaced by the next setValue().
  [[nodiscard]] const ::List<FileName*>& getPaths() const noexcept;

 private:
  void buildPaths();

  OwningList<FileName> paths_;
};
