#include <cstdlib>

#include "Engine/utilities/DebuggerConfiguration.h"

// A configuration module of another build: its stamp comes from the environment. Without one
// it has none. It gives another object at each call, and can be told to give none at all.

namespace {

// NOLINTNEXTLINE(cppcoreguidelines-virtual-class-destructor): final, and never deleted.
class Configuration final : public DebuggerConfiguration {
 public:
  [[nodiscard]] const char* buildStamp() const override { return std::getenv("MODULE_STAMP"); }
  [[nodiscard]] const char* sourceFilterDefault() const override { return "OTHER"; }
};

}  // namespace

extern "C" CUL_EXPORT DebuggerConfiguration* configInstance();

DebuggerConfiguration* configInstance() {
  static Configuration configurations[2];
  static unsigned calls = 0;
  return std::getenv("MODULE_HAS_NO_OBJECT") != nullptr ? nullptr : &configurations[calls++ % 2];
}
