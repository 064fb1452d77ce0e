#pragma once

#include "Engine/utilities/EncodedString.h"
#include "Engine/utilities/Export.h"

/// \file
/// The one exception type of the library and the engine: where it was thrown, a status and
/// an optional text. It leaves a line in the trace when it is made and, when the catcher
/// asks for it, when it is caught.
///
/// Not polymorphic, but other exceptions derive from it: catch it by reference. An object
/// belongs to one thread. A location is a source path or a function's signature text, as
/// the thrower chooses; all texts are UTF-8.

class CUL_EXPORT StdException {
 public:
  /// An exception without text.
  /// \param file   source file of the throw; null counts as empty.
  /// \param line   source line of the throw.
  /// \param status status code, chosen by the thrower.
  StdException(const char* file, unsigned line, int status);

  /// An exception with a text; null counts as empty.
  StdException(const char* file, unsigned line, const char* text, int status);

  /// Throws StdException(file, line, status).
  [[noreturn]] static void throwException(const char* file, unsigned line, int status);

  /// Throws StdException(file, line, text, status).
  [[noreturn]] static void throwException(const char* file, unsigned line, const char* text,
                                          int status);

  /// Traces that this exception was caught (type "EXCPTN").
  /// \param file source file of the catcher, where the trace line is placed.
  /// \param line source line of the catcher.
  void trace(const char* file, unsigned line) const;

  EncodedString text;      ///< Message; empty when none was given.
  EncodedString fileName;  ///< Source file of the throw.
  unsigned line;           ///< Source line of the throw.
  int status;              ///< Status code; -1 for a failed assertion.
};
