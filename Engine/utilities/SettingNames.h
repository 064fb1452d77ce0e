#pragma once

#include "Engine/utilities/EncodedString.h"
#include "Engine/utilities/Export.h"

/// \file
/// How the debugger's environment variables and per-user files are called. The prefixes are
/// made once and live as long as the process.

/// "QVX_DBG_": it and a setting's name make the name of the setting's environment variable.
[[nodiscard]] CUL_EXPORT const EncodedString& getEnvnamePrefix();

/// "qvx": the names of per-user files begin with it.
[[nodiscard]] CUL_EXPORT const EncodedString& getFilenamePrefix();

/// Makes the name of a per-user file: "qvx", the stem and "1".
/// \param result receives the name; may be the stem itself.
/// \param stem   a null one counts as empty.
CUL_EXPORT void fabricateName(EncodedString& result, const EncodedString& stem);
CUL_EXPORT void fabricateName(EncodedString& result, const wchar_t* stem);
