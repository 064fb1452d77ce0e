#pragma once

#include <cstring>
#include <nl_types.h>
#include <optional>
#include <string>

#include <gtest/gtest.h>

#include "tests/support/Child.h"
#include "tests/support/TemporaryFolder.h"

/// A message source as the system's own `gencat` and catgets() have it.
class SystemCatalog {
 public:
  explicit SystemCatalog(const std::string& source) {
    const std::string file = folder_.file("messages.msg");
    const std::string catalog = folder_.file("messages.cat");
    writeFile(file, source);
    const ChildResult r =
        runProgram({"/usr/bin/gencat", catalog, file}, {.environment = {{"LC_ALL", "C.UTF-8"}}});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err, "");
    descriptor_ = catopen(catalog.c_str(), 0);
    EXPECT_NE(descriptor_, noDescriptor()) << std::strerror(errno);
  }
  SystemCatalog(const SystemCatalog&) = delete;
  SystemCatalog& operator=(const SystemCatalog&) = delete;
  ~SystemCatalog() {
    if (descriptor_ != noDescriptor()) {
      catclose(descriptor_);
    }
  }

  /// Nothing when there is no such message.
  [[nodiscard]] std::optional<std::string> find(int set, int number) const {
    constexpr const char* none = "\x01 none";
    const char* const text = catgets(descriptor_, set, number, none);
    return text == none ? std::nullopt : std::optional<std::string>(text);
  }

 private:
  // NOLINTNEXTLINE(performance-no-int-to-ptr): as the standard has it.
  static nl_catd noDescriptor() { return reinterpret_cast<nl_catd>(-1); }

  TemporaryFolder folder_;
  nl_catd descriptor_ = noDescriptor();
};
