#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "tests/support/Child.h"
#include "tests/support/TemporaryFolder.h"

/// \file
/// The launcher of the tests in a tree of its own. For tests that depend on it in the build.

/// A folder with the launcher in "bin" and a copy of the library in "lib".
class ProgramTree {
 public:
  ProgramTree();

  /// Without symbolic links.
  const std::string& path() const { return path_; }
  std::string file(const std::string& name) const { return path_ + "/" + name; }
  std::string launcher() const { return file("bin/launcher"); }

  /// Adds a copy of a module or program.
  void add(const std::string& source, const std::string& name) const {
    std::filesystem::copy_file(source, file(name));
  }

  /// Adds a script of the shell that can be executed.
  void addScript(const std::string& name, const std::string& script) const {
    writeFile(file(name), "#!/bin/sh\n" + script);
    std::filesystem::permissions(file(name), std::filesystem::perms::owner_all);
  }

 private:
  TemporaryFolder folder_;
  std::string path_;
};
