#pragma once

#include "Engine/utilities/EncodedString.h"
#include "Engine/utilities/Export.h"

/// \file
/// From a command name to its file, from a symbolic link to its target: how the engine
/// finds its own executable and the programs it starts.
///
/// Paths are UTF-8 and taken as written: ".", ".." and repeated separators are not folded.
/// The system is asked in its native code page. Any thread; but searches read the
/// environment and the working directory, which nobody should be changing meanwhile.

/// Looks for an executable along a list of folders separated by ":". Empty entries are
/// skipped; an entry that begins with "." is put behind the working directory and a "/",
/// and used as it stands when the working directory is unknown or has 1024 bytes or more.
/// A candidate must be a regular file or a socket (they share the bit of the type that is
/// looked at; links are followed) with any execute bit set; whether this user may execute it is
/// not asked.
/// \return the first candidate, that is entry + "/" + name; empty when there is none. An
///         empty name gives an empty text, and a name that begins with "/" gives itself.
[[nodiscard]] CUL_EXPORT EncodedString searchPath(const EncodedString& name,
                                                  const EncodedString& directories);

/// The same along the value of "PATH", or along ".:" when "PATH" is not set.
[[nodiscard]] CUL_EXPORT EncodedString searchPath(const EncodedString& name);

/// Follows a chain of symbolic links. Only the last component is followed: links among the
/// folders on the way stay as written. A relative link text is put behind the folder of its
/// link. A link text of 1024 bytes or more is not followed. When a link may not be read,
/// "Access denied! ..." goes to the standard error stream and the chain ends there; the message
/// names the link that may not be read, not `path`.
/// \param path  where the chain begins, a link or not.
/// \param depth number of links that may be followed; with 0 a path that is a link is
///              already one too many, and any other path is still its own result.
/// \return the first path that is not a link or cannot be read; whether it exists is not
///         asked.
/// \throws EncodedString the path that link number `depth` + 1 points to.
[[nodiscard]] CUL_EXPORT EncodedString resolveSymbolicLink(const EncodedString& path,
                                                           unsigned int depth);

/// The same with a depth of 10. A longer chain (or a loop) ends the process: "Cannot resolve
/// symbolic link ..." goes to the standard error stream and names `path`; exit handlers run, and
/// the status is -1, which others see as 255.
[[nodiscard]] CUL_EXPORT EncodedString resolveSymbolicLink(const EncodedString& path);

/// The folder part of a path with its final "/"; one "/" at the very end is passed over.
/// "/a/b/c" gives "/a/b/", "/a/b/" gives "/a/", "/" gives "/", and a path without "/" the
/// empty text.
[[nodiscard]] CUL_EXPORT EncodedString stripPath(const EncodedString& path);
