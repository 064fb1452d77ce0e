#include "tests/support/ProgramTree.h"

ProgramTree::ProgramTree() : path_(std::filesystem::canonical(folder_.path()).string()) {
  std::filesystem::create_directory(file("bin"));
  std::filesystem::create_directory(file("lib"));
  std::filesystem::copy_file(CUL_TEST_LAUNCHER, launcher());
  std::filesystem::copy_file(CUL_LIBRARY, file("lib/libcul.so.1"));
}
