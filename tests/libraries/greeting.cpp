#include <unistd.h>

/// A module that tells when it is loaded.

namespace {

__attribute__((constructor)) void greet() {
  constexpr char greeting[] = "module loaded\n";
  static_cast<void>(!write(STDOUT_FILENO, greeting, sizeof greeting - 1));
}

}  // namespace
