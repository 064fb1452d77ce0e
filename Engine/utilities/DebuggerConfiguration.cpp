#include "Engine/utilities/DebuggerConfiguration.h"

#include <cstdlib>
#include <string_view>

#include "Engine/internal/ProcessWide.h"
#include "Engine/internal/StandardError.h"
#include "Engine/utilities/ProductData.h"
#include "Engine/utilities/SharedEntry.h"

namespace {

using Entry = DebuggerConfiguration* (*)();

DebuggerConfiguration* load() {
  const char* error = nullptr;
  // The error text is on standard error already.
  void* const entry = loadSharedEntry("wobnConfig", "libConfig.a", "configInstance", &error);
  if (entry == nullptr) {
    std::abort();
  }
  DebuggerConfiguration* const configuration = reinterpret_cast<Entry>(entry)();
  if (configuration == nullptr) {
    printError("libwobnConfig.so: configInstance gives no configuration object\n");
    std::abort();
  }
  const char* const theirs = configuration->buildStamp();
  const char* const ours = productData().buildStamp;
  if (theirs == nullptr || std::string_view(theirs) != ours) {
    printError("libwobnConfig.so: its build stamp %s is not %s, that of the library\n",
               theirs == nullptr ? "(none)" : theirs, ours);
    std::abort();
  }
  return configuration;
}

// The object is the module's, and never deleted.
struct Loaded {
  DebuggerConfiguration* const configuration = load();
};

}  // namespace

DebuggerConfiguration* DebuggerConfiguration::instance() {
  static constinit ProcessWide<const Loaded> loaded;
  return loaded.get([] { return new Loaded; }).configuration;
}
