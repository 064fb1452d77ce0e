#include "Engine/utilities/DebuggerConfiguration.h"

#include <atomic>
#include <cstdlib>
#include <string_view>

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

}  // namespace

DebuggerConfiguration* DebuggerConfiguration::instance() {
  // Not deleted by who comes second: it is the module's.
  static constinit std::atomic<DebuggerConfiguration*> configuration = nullptr;
  DebuggerConfiguration* known = configuration.load(std::memory_order_acquire);
  if (known == nullptr) {
    DebuggerConfiguration* const loaded = load();
    if (configuration.compare_exchange_strong(known, loaded, std::memory_order_acq_rel)) {
      return loaded;
    }
  }
  return known;
}
