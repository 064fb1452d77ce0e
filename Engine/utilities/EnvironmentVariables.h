#pragma once

#include <string_view>

/// \file
/// All environment variables that the library reads, but those of the settings, which are called
/// as SettingNames.h says.
///
/// Whoever reads one by its name writes `environmentVariable("NAME")`, which does not compile
/// when the table has no such row. The listing of the settings by enginehost, its manual page and
/// script/run are held against the table by a test. What a program reads besides, for itself alone,
/// is in its manual page.

/// A row of the table.
struct EnvironmentVariable {
  /// Where else its users are told of a variable, a set of bits.
  enum Place : unsigned {
    nowhere = 0,
    manual = 1,  ///< In the section ENVIRONMENT of the manual page enginehost(1).
    run = 2      ///< In script/run, which looks where the trace went.
  };

  std::string_view name;  ///< Ends with a zero byte.
  unsigned places;        ///< A set of Place bits.
};

/// The table. Those of one prefix are offered in this order to who mistypes one.
inline constexpr EnvironmentVariable environmentVariables[] = {
    // The role of the process, which chooses the trace's variable, and a part of the name of the
    // trace's file.
    {"GDIA_ID", EnvironmentVariable::run},
    // The trace of a process with the role root, middle or leaf, see TraceImplementation.h.
    {"QVX_DBG_TRACE_ROOT", EnvironmentVariable::run},
    {"QVX_DBG_TRACE_MIDDLE", EnvironmentVariable::run},
    {"QVX_DBG_TRACE_LEAF", EnvironmentVariable::run},
    // The trace of other processes. A setting has this name, too.
    {"QVX_DBG_TRACE", EnvironmentVariable::manual | EnvironmentVariable::run},
    // The trace where the others say nothing.
    {"WZ4_DBG_TRACE", EnvironmentVariable::run},
    // The hosts that trace.
    {"QVX_DBG_TRACEHOST", EnvironmentVariable::nowhere},
    // The native code page, see UTF8Converter.h; else it is the locale's.
    {"QVX_DBG_CODEPAGE", EnvironmentVariable::manual},
    // What a launcher found in LD_LIBRARY_PATH, see ManageLIBPATH.h.
    {"QVX_DBG_LD_LIBRARY_PATH", EnvironmentVariable::nowhere},
    // Where modules are looked for; launchers put a folder in front.
    {"LD_LIBRARY_PATH", EnvironmentVariable::nowhere},
    // 1: a traceback begins one frame nearer, see TraceStack.h.
    {"QVX_DBG_FRAME_ADD_DISABLE", EnvironmentVariable::nowhere},
    // Where programs are looked for.
    {"PATH", EnvironmentVariable::manual},
    // The language of messages, see LibraryMessageServer.h.
    {"LANG", EnvironmentVariable::manual},
};

/// `name`, which the table has: any other does not compile.
[[nodiscard]] consteval const char* environmentVariable(std::string_view name) {
  for (const EnvironmentVariable& variable : environmentVariables) {
    if (variable.name == name) {
      return variable.name.data();
    }
  }
  throw "The table environmentVariables has no such row.";
}
