#include "Engine/internal/OwnProductData.h"
#include "Engine/utilities/DebuggerConfiguration.h"

namespace {

// NOLINTNEXTLINE(cppcoreguidelines-virtual-class-destructor): final, and never deleted.
class Configuration final : public DebuggerConfiguration {
 public:
  [[nodiscard]] const char* buildStamp() const override { return ownProductData().buildStamp; }
  [[nodiscard]] const char* sourceFilterDefault() const override { return "SOURCE"; }
};

}  // namespace

extern "C" CUL_EXPORT DebuggerConfiguration* configInstance();

DebuggerConfiguration* configInstance() {
  static Configuration configuration;
  return &configuration;
}
