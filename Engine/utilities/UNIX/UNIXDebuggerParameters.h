#pragma once

#include "Engine/utilities/DebuggerParameters.h"
#include "Engine/utilities/EncodedString.h"
#include "Engine/utilities/Export.h"

/// \file
/// The command line of a debugger process on POSIX: where the argument vector comes from and
/// what becomes of the debugger's own name.
///
/// Arguments are bytes of the native code page, see UTF8Converter. Nothing throws on bad
/// input, but a program name that is a loop of symbolic links, or too long a chain of them,
/// ends the process, see resolveSymbolicLink().

class CUL_EXPORT UNIXDebuggerParameters : public DebuggerParameters {
 public:
  /// Takes an argument vector apart, see DebuggerParameters. The debugger's name is fixed
  /// first; double quotes around and inside the debugger's own arguments are taken off
  /// (DebuggerParameters::unquote()), those of the debuggee's arguments are kept.
  ///
  /// The arguments of an attached debugger from the first that is no option on (or behind
  /// "--") make one invalid argument.
  /// \param argc number of elements in `argv`; below 1, or with a null `argv`, there is
  ///             nothing to take apart.
  /// \param argv null elements count as empty texts. Not kept.
  UNIXDebuggerParameters(int argc, char** argv);
  ~UNIXDebuggerParameters() override = default;

  /// Sets the debugger's name from the name that it was started under: made absolute (looked
  /// up along "PATH", or put behind the working directory when it begins with "./" or "../"),
  /// symbolic links followed, and "/./", "//" and "/../" folded. An empty name changes
  /// nothing. The debugger's name becomes empty when the name is not found, and when the path
  /// climbs above the root: that is refused, not cut short.
  void setDebuggerName(const EncodedString& name);

  /// `path` behind the working directory and a "/"; `path` itself when it begins with "/" or
  /// the working directory is unknown or has more than 4097 bytes.
  [[nodiscard]] EncodedString resolveRelative(const EncodedString& path);
};
