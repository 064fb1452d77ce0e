#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "programs/enginetrace/TimeLimit.h"

/// \file
/// What the user asks for.

enum class Form { text, json, traceEvent, html, summary };

enum class Colour { always, never, automatic };

struct Options {
  std::vector<std::string> paths;  ///< Of files and folders; "-" for standard input.

  std::vector<std::string> types;  ///< None: any.
  std::vector<std::string> notTypes;
  std::vector<std::string> threads;    ///< None: any.
  std::vector<std::string> functions;  ///< Patterns of fnmatch(). None: any.
  std::optional<std::string> pattern;  ///< A regular expression.
  bool ignoreCase = false;             ///< In the pattern.
  std::vector<std::string> processes;  ///< None: any.
  std::optional<TimeLimit> since;
  std::optional<TimeLimit> until;

  std::uint64_t before = 0;  ///< Lines before and behind each that is found.
  std::uint64_t after = 0;
  std::optional<std::uint64_t> head;
  std::optional<std::uint64_t> tail;

  Form form = Form::text;
  std::string page;  ///< The file for Form::html.
  Colour colour = Colour::automatic;
  bool hasDates = false;
  bool usesPager = false;
  bool follows = false;

  bool wantsHelp = false;
  bool wantsVersion = false;
};

/// Reads the command line.
/// \return nothing, after one line that says why, when it is wrong.
[[nodiscard]] std::optional<Options> parseOptions(int argc, const char* const* argv);

/// The usage and the options, in the user's language.
[[nodiscard]] std::string helpText();
