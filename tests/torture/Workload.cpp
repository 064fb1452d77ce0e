#include "tests/torture/Workload.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <filesystem>
#include <stdexcept>
#include <stdlib.h>
#include <unistd.h>

#include "tests/support/TemporaryFolder.h"

namespace {

std::string theFolder;
int theMaster = -1;
int theTerminal = -1;

}  // namespace

std::vector<Workload> allWorkloads() {
  std::vector<Workload> all;
  for (const auto& some : {stringWorkloads(), memoryWorkloads(), fileWorkloads(), threadWorkloads(),
                           traceWorkloads(), settingWorkloads(), processWorkloads()}) {
    all.insert(all.end(), some.begin(), some.end());
  }
  return all;
}

void prepareForWork(const std::string& folder) {
  namespace fs = std::filesystem;
  theFolder = fs::canonical(folder).string();
  writeFile(theFolder + "/properties", "name=torture\nnumber=42\n# comment\nother = value\n");
  fs::create_symlink(theFolder + "/properties", theFolder + "/link");
  fs::create_symlink(theFolder + "/loop", theFolder + "/loop");
  fs::create_directories(theFolder + "/tree/folder");
  fs::create_directory_symlink(theFolder + "/tree", theFolder + "/tree/folder/again");
  writeFile(theFolder + "/tree/top", "");
  writeFile(theFolder + "/tree/folder/deep", "");
  // Found by its name from now on, wherever the loader looks.
  if (dlopen(CUL_TEST_LIBRARIES "/libwobndbg.so", RTLD_NOW) == nullptr) {
    throw std::runtime_error("no catalog");
  }
  theMaster = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
  if (theMaster < 0 || grantpt(theMaster) != 0 || unlockpt(theMaster) != 0) {
    throw std::runtime_error("no terminal");
  }
  theTerminal = open(ptsname(theMaster), O_RDWR | O_NOCTTY | O_CLOEXEC);
}

const std::string& workFolder() { return theFolder; }

int workTerminal() { return theTerminal; }
