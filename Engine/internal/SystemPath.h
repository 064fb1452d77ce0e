#pragma once

#include <string>
#include <string_view>

#include "Engine/utilities/EncodedString.h"

/// \file
/// Paths on their way to the system and back. Any thread.

/// A path as the system knows it: converted to the native code page, or the bytes as they
/// are when that code page cannot hold them.
[[nodiscard]] std::string systemPath(const EncodedString& path);

/// The text for a zero-terminated path that came from the system, such that systemPath()
/// leads back to the same bytes, whether or not the native code page knows them.
[[nodiscard]] EncodedString pathFromSystem(const char* path);

/// The working directory; empty when it cannot be read or has `room` bytes or more.
/// \param room at most 4098.
[[nodiscard]] EncodedString workingDirectory(unsigned room);

/// Takes the next entry that is not empty off a list separated by ":"; an empty view when
/// there is none.
[[nodiscard]] std::string_view nextPathEntry(std::string_view& list);
