// A program that starts others, and says what it knows of its place and its configuration.
// It finds the library in the folder "lib" beside its own, wherever it is copied to, or where
// the library is installed.

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "Engine/utilities/DebuggerConfiguration.h"
#include "Engine/utilities/EncodedString.h"
#include "Engine/utilities/InstallPath.h"
#include "Engine/utilities/Launch.h"
#include "Engine/utilities/ManageLIBPATH.h"

namespace {

const char* valueOf(const char* variable) {
  const char* const value = std::getenv(variable);
  return value == nullptr ? "unset" : value;
}

void printLibraryPath(const char* argv0) {
  char* const folder = ManageLIBPATH::getLibPath(argv0);
  std::printf("%s\n%s\n%s\n", folder, valueOf("LD_LIBRARY_PATH"),
              valueOf("QVX_DBG_LD_LIBRARY_PATH"));
  std::free(folder);
}

void callModule(const char* argv0, const char* name, const char* entry) {
  using Function = int (*)(int);
  const auto function = reinterpret_cast<Function>(loadSharedLib(argv0, name, "member", entry));
  std::printf("%d\n", function(1));
}

void printInstallPath() {
  const char* const path = InstallPath::instance()->path();
  std::printf("%s\n", path);
}

void printConfiguration() {
  const DebuggerConfiguration* const configuration = DebuggerConfiguration::instance();
  std::printf("%s\n%s\n", configuration->buildStamp(), configuration->sourceFilterDefault());
  std::printf("%s\n", configuration == DebuggerConfiguration::instance() ? "same" : "another");
}

// Everything works before main, too.
struct Early {
  Early() {
    if (std::getenv("LAUNCHER_STARTS_EARLY") != nullptr) {
      printInstallPath();
      printConfiguration();
    }
  }
};

const Early early;

}  // namespace

int main(int argc, char** argv) {
  const std::string_view what = argc < 2 ? "" : argv[1];
  if (what == "path") {
    printLibraryPath(argv[0]);
  } else if (what == "execute" && argc > 2) {
    loadAndExecute(argv[2], argc, argv);
  } else if (what == "load" && argc > 3) {
    callModule(argv[0], argv[2], argv[3]);
  } else if (what == "install") {
    printInstallPath();
  } else if (what == "configuration") {
    printConfiguration();
  } else {
    return 2;
  }
  return 0;
}
