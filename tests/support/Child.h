#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

/// \file
/// Runs what depends on the process (environment, singletons, signals, exit status,
/// descriptors) in a process of its own.
///
/// A case is defined beside its test and run by name in a fresh execution of the test
/// program; expectations that fail inside it make the child end with status 1 and print
/// themselves on its standard output:
/// \code
///   CUL_CHILD(AssertionWithModeZero) {
///     AssertionFail(0, "file", "function", 7, "expression");
///   }
///   TEST(AssertionFail, ReturnsWhenTheModeIsZero) {
///     const ChildResult r = runChild("AssertionWithModeZero");
///     EXPECT_EQ(r.status, 0) << r.out << r.err;
///   }
/// \endcode
/// A child sees PATH, the options of the sanitizers and of coverage, and what the test
/// sets; nothing else of the environment.

struct ChildOptions {
  /// Variables to set, on top of the minimal environment.
  std::map<std::string, std::string> environment = {};
  /// What the child reads from its standard input.
  std::string input = {};
  /// Working directory; empty: the parent's.
  std::string directory = {};
  /// Passed to the child case, see childArguments().
  std::vector<std::string> arguments = {};
  /// A child that lives longer is killed, and the test fails.
  unsigned limitInSeconds = 120;
};

struct ChildResult {
  int status = -1;  ///< Exit status, or 128 + the signal that killed it.
  std::string out;
  std::string err;
};

/// Runs the child case `name`.
ChildResult runChild(const std::string& name, const ChildOptions& options = {});

/// Runs a program found by its path; `command[0]` is the program.
ChildResult runProgram(const std::vector<std::string>& command, const ChildOptions& options = {});

/// The arguments given to the running child case.
const std::vector<std::string>& childArguments();

/// Used by CUL_CHILD.
struct ChildCase {
  ChildCase(const char* name, void (*body)());
};

#define CUL_CHILD(name)                                             \
  static void childBody_##name();                                   \
  static const ChildCase childCase_##name(#name, childBody_##name); \
  static void childBody_##name()
