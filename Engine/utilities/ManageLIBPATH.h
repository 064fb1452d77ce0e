#pragma once

#include "Engine/utilities/Export.h"

/// \file
/// Finds the folder of a program's own executable and puts it in front of the dynamic
/// loader's search path, for small programs that start the real one.
///
/// Works before any other part of the library is usable: plain characters in, plain
/// characters out, no trace. Paths are taken as written; ".", ".." and repeated separators
/// are not folded. Strings are made with malloc(). Failures that a program cannot go on
/// without (lack of memory is one) print the system's text for the error on standard error
/// and abort. Abort means: abort() is called, of which the library's own handler makes an exit
/// with status 99, exit handlers included (see signals.h); a program that has put another
/// handler in its place, or the default one, ends as that has it. Not thread-safe: the
/// environment is read and changed. See also Launch.h.

class CUL_EXPORT ManageLIBPATH {
 public:
  ManageLIBPATH() = delete;

  /// A string on the heap, or null.
  class CUL_EXPORT ManagedString {
   public:
    /// Null.
    ManagedString() noexcept = default;
    /// Copies `text`, which may be null.
    // NOLINTNEXTLINE(google-explicit-constructor): stands in for plain characters everywhere.
    ManagedString(const char* text);
    ManagedString(const ManagedString& other);
    /// Leaves the source null.
    ManagedString(ManagedString&& other) noexcept;
    ~ManagedString();
    /// Takes the other string's characters, by copy or by move.
    ManagedString& operator=(ManagedString other) noexcept;

    /// Appends `text`, which may lie in this string; null appends nothing. To null it
    /// appends as to an empty string.
    ManagedString& operator+=(const char* text);

    /// The characters, null when there are none. Valid until the string changes.
    // NOLINTNEXTLINE(google-explicit-constructor): as above.
    operator const char*() const noexcept { return text_; }

    /// Neither null nor of length 0.
    [[nodiscard]] bool hasText() const noexcept { return text_ != nullptr && *text_ != 0; }

    /// Hands the characters to the caller, who frees them with free(). Leaves null.
    [[nodiscard]] char* release() noexcept;

    /// A copy that the caller frees with free(); null for null.
    [[nodiscard]] static char* dupString(const char* text);

   private:
    char* text_ = nullptr;  // owned, from malloc(), as release() hands it on
  };

  /// The folder of this program's executable. The first call of a process also sets up the
  /// library path: unless "QVX_DBG_LD_LIBRARY_PATH" is set, the folder is put in front of
  /// "LD_LIBRARY_PATH", whose former value (empty when there was none) goes to
  /// "QVX_DBG_LD_LIBRARY_PATH". That keeps it for the user's own programs and tells started
  /// programs that the folder is in place. The dynamic loader of a running process does not
  /// look at "LD_LIBRARY_PATH" again: the change is for the programs that it starts.
  /// Aborts when the folder cannot be found.
  /// \param argv0 the name this program was called by; later calls pay no heed to it.
  /// \return a copy that the caller frees with free(); never null or empty.
  [[nodiscard]] static char* getLibPath(const char* argv0);

  /// The folder of an executable, symbolic links followed; null on failure.
  [[nodiscard]] static ManagedString executableLocation(const char* argv0);

  /// The absolute path of an executable. A name that begins with "." starts from the working
  /// directory. Any other name that does not begin with "/", and be it one with a "/" in it,
  /// is searched for along "PATH"; relative entries there start from the working directory,
  /// and an empty one is the root folder. A name that begins with "/" needs not exist.
  /// \param argv0 null counts as empty.
  /// \throws int the error number: of reading the working directory, which may have 1023
  ///   bytes; ENOENT when there is no such executable.
  [[nodiscard]] static ManagedString qualifiedExecutable(const char* argv0);

  /// Follows the symbolic links of the last component. A path that cannot be read as a link
  /// is its own result, also when it does not exist.
  /// \throws int ELOOP after more links than the system itself would follow, 40.
  [[nodiscard]] static ManagedString resolveSymbolicLink(const ManagedString& path);

  /// A path without its last component: "/a" for "/a/b" and "/a/", "/" for "/b", empty for
  /// a path without "/".
  [[nodiscard]] static ManagedString stripPath(const ManagedString& path);

  /// Whether a path leads to a regular file that this user may execute.
  [[nodiscard]] static bool isExecutable(const ManagedString& path);

  /// A path behind `directory` and a "/", one "./" at its beginning removed; an absolute path
  /// is its own result.
  [[nodiscard]] static ManagedString absPath(const char* directory, const char* path);
};
