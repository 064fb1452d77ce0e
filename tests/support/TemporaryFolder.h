#pragma once

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdlib.h>
#include <string>
#include <system_error>
#include <utility>

/// \file
/// Files and folders of tests, benchmarks and fuzzers.

/// A folder of its owner's own, gone with the object.
class TemporaryFolder {
 public:
  /// \throws std::system_error when there can be none.
  TemporaryFolder() {
    std::string pattern = (std::filesystem::temp_directory_path() / "cul.XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) {
      throw std::system_error(errno, std::generic_category(), "mkdtemp");
    }
    path_ = pattern;
  }
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;
  ~TemporaryFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }

  const std::string& path() const { return path_; }
  std::string file(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

/// The whole of a file; empty when it cannot be read.
inline std::string contentsOf(const std::string& file) {
  const std::ifstream stream(file, std::ios::binary);
  std::ostringstream contents;
  contents << stream.rdbuf();
  return std::move(contents).str();
}

/// Makes or replaces a file.
inline void writeFile(const std::string& file, const std::string& contents) {
  std::ofstream stream(file, std::ios::binary);
  stream << contents;
}
