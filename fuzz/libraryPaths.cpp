// How a program finds its own folder and sets up the path of the dynamic loader: any name it was
// called by, any "PATH", any links, against an oracle that reads paths with the standard library.

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <string>
#include <string_view>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "Engine/utilities/Descriptor.h"
#include "Engine/utilities/Launch.h"
#include "Engine/utilities/ManageLIBPATH.h"

#include "fuzz/Fuzz.h"

namespace {

using ManagedString = ManageLIBPATH::ManagedString;

std::string plain(const ManagedString& text) {
  return text == nullptr ? "" : static_cast<const char*>(text);
}

// What follows another path, in other words.
std::string behind(const std::string& directory, const std::string& path) {
  if (path.starts_with('/')) {
    return path;
  }
  return directory + '/' + (path.starts_with("./") ? path.substr(2) : path);
}

std::string withoutLast(const std::string& path) {
  const size_t at = path.rfind('/');
  return at == std::string::npos ? "" : at == 0 ? "/" : path.substr(0, at);
}

bool isProgram(const std::string& path) {
  struct stat status = {};
  return stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) &&
         access(path.c_str(), X_OK) == 0;
}

// Empty when there is none.
std::string expectedPath(const std::string& name, const std::string& searched) {
  const std::string directory = std::filesystem::current_path();
  if (name.starts_with('/')) {
    return name;
  }
  if (name.starts_with('.')) {
    const std::string path = behind(directory, name);
    return isProgram(path) ? path : "";
  }
  for (size_t at = 0; at <= searched.size();) {
    const size_t end = std::min(searched.find(':', at), searched.size());
    const std::string path = searched.substr(at, end - at) + '/' + name;
    if (isProgram(path)) {
      return behind(directory, path);
    }
    at = end + 1;
  }
  return "";
}

// Empty for more links than can be followed.
std::string expectedTarget(std::string path) {
  for (int links = 0;; ++links) {
    std::error_code failure;
    const std::string target = std::filesystem::read_symlink(path, failure);
    if (failure) {
      return path;
    }
    if (links == 40) {
      return "";
    }
    path.resize(target.starts_with('/') ? 0 : path.rfind('/') + 1);
    path += target;
  }
}

void checkSearch(const std::string& name, const std::string& searched) {
  const FuzzVariable path("PATH", searched);
  const std::string expected = expectedPath(name, searched);
  std::string found;
  try {
    found = plain(ManageLIBPATH::qualifiedExecutable(name.c_str()));
  } catch (int error) {
    FUZZ_CHECK(error == ENOENT);
  }
  FUZZ_CHECK(found == expected);
  const std::string folder = plain(ManageLIBPATH::executableLocation(name.c_str()));
  FUZZ_CHECK(folder == (expected.empty() ? "" : withoutLast(expectedTarget(expected))));
}

// The set-up is made once in a process, and not again in one that was started with it.
void setUp(const std::string& name, const std::string& former, bool isInherited) {
  constexpr const char* marker = "QVX_DBG_LD_LIBRARY_PATH";
  setenv("LD_LIBRARY_PATH", former.c_str(), 1);
  if (isInherited) {
    setenv(marker, "before", 1);
  }
  char* const folder = ManageLIBPATH::getLibPath(name.c_str());
  const std::string expected = plain(ManageLIBPATH::executableLocation(name.c_str()));
  FUZZ_CHECK(!expected.empty() && folder == expected);
  std::free(folder);
  const char* const now = std::getenv("LD_LIBRARY_PATH");
  FUZZ_CHECK(now != nullptr && now == (isInherited      ? former
                                       : former.empty() ? expected
                                                        : expected + ':' + former));
  FUZZ_CHECK(std::getenv(marker) == (isInherited ? "before" : former));
}

void checkSetUp(const std::string& name, const std::string& former, bool isInherited) {
  const bool isFound = !plain(ManageLIBPATH::executableLocation(name.c_str())).empty();
  const pid_t child = fork();
  FUZZ_CHECK(child >= 0);
  if (child == 0) {
    if (!isFound) {
      // Which ends the process, and is no finding.
      std::signal(SIGABRT, SIG_DFL);
      const rlimit none = {};
      setrlimit(RLIMIT_CORE, &none);
      close(STDERR_FILENO);
    }
    setUp(name, former, isInherited);
    _exit(0);
  }
  int status = 0;
  FUZZ_CHECK(uninterrupted([&] { return waitpid(child, &status, 0); }) == child);
  FUZZ_CHECK(isFound ? status == 0 : WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT);
}

void checkCleaning(const std::vector<std::string>& entries) {
  std::vector<const char*> environment;
  std::vector<std::string> expected;
  for (const std::string& entry : entries) {
    environment.push_back(entry.c_str());
    if (entry.find('=') < entry.size() - 1 && !entry.empty()) {
      expected.push_back(entry);
    }
  }
  environment.push_back(nullptr);
  char** const cleaned = cleanEnvironment(environment.data());
  size_t count = 0;
  for (; cleaned[count] != nullptr; ++count) {
    FUZZ_CHECK(count < expected.size() && cleaned[count] == expected[count]);
    std::free(cleaned[count]);
  }
  FUZZ_CHECK(count == expected.size());
  std::free(cleaned);
}

}  // namespace

void setUpFuzzing() {
  namespace fs = std::filesystem;
  const fs::path folder = fuzzFolder();
  fs::create_directories(folder / "bin/sub");
  for (const char* const name : {"bin/program", "bin/sub/program", "plain"}) {
    const int file = open((folder / name).c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0755);
    FUZZ_CHECK(file >= 0);
    close(file);
  }
  chmod((folder / "plain").c_str(), 0644);
  fs::create_symlink("program", folder / "bin/link");
  fs::create_symlink("../link", folder / "bin/sub/up");
  fs::create_symlink("bin/link", folder / "link");
  fs::create_symlink(folder / "bin/sub/program", folder / "absolute");
  fs::create_symlink("round", folder / "round");
  fs::create_symlink("nowhere", folder / "hanging");
  fs::current_path(folder);
}

// A line is the name, "PATH", an old library path, and the entries of an environment.
void fuzz(FuzzInput& input) {
  const unsigned kind = input.choice(32);
  const std::string name = upToZero(input.text());
  const std::string searched = upToZero(input.text());
  checkSearch(name, searched);
  checkSearch(fuzzFolder() + '/' + name, searched);
  checkSearch(name, searched + ':' + fuzzFolder() + "/bin:" + fuzzFolder());

  const ManagedString nothing(nullptr);
  FUZZ_CHECK(nothing == nullptr && plain(ManageLIBPATH::stripPath(nothing)).empty());
  const ManagedString text(name.c_str());
  FUZZ_CHECK(plain(ManageLIBPATH::stripPath(text)) == withoutLast(name));
  FUZZ_CHECK(plain(ManageLIBPATH::absPath(searched.c_str(), name.c_str())) ==
             behind(searched, name));
  try {
    FUZZ_CHECK(plain(ManageLIBPATH::resolveSymbolicLink(text)) == expectedTarget(name));
  } catch (int error) {
    FUZZ_CHECK(error == ELOOP && expectedTarget(name).empty());
  }
  if (kind >= 29) {
    checkSetUp(kind == 29 ? name : fuzzFolder() + "/bin/program", searched, kind == 30);
  }
  std::vector<std::string> entries;
  while (!input.isEmpty()) {
    entries.push_back(upToZero(input.text()));
  }
  checkCleaning(entries);
}
