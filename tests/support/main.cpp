#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <string>
#include <string_view>
#include <unistd.h>
#include <vector>

#include <gmock/gmock.h>

#include "tests/support/ChildMain.h"

namespace {

// The caller's settings and locale must not reach the tests. A child case keeps what its
// test has set.
void forgetTheCallersSettings() {
  std::vector<std::string> names;
  for (char** variable = environ; *variable != nullptr; ++variable) {
    const std::string_view text = *variable;
    for (const std::string_view prefix : {"QVX_", "WZ4_", "GDIA_", "LC_", "LANG", "TZ="}) {
      if (text.starts_with(prefix)) {
        names.emplace_back(text.substr(0, text.find('=')));
      }
    }
  }
  for (const std::string& name : names) {
    unsetenv(name.c_str());
  }
  // A shell has what it runs in the background ignore them.
  signal(SIGINT, SIG_DFL);
  signal(SIGQUIT, SIG_DFL);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc >= 3 && strcmp(argv[1], childOption) == 0) {
    const std::vector<std::string> arguments(argv + 3, argv + argc);
    const std::string name = argv[2];
    int none = 1;
    testing::InitGoogleMock(&none, argv);
    return runChildCase(name, arguments);
  }
  forgetTheCallersSettings();
  testing::InitGoogleMock(&argc, argv);
  return RUN_ALL_TESTS();
}
