#pragma once

#include "Engine/utilities/Export.h"

/// \file
/// The matcher of abbreviated words: option names of the command line and the words that
/// their values are made of. Nothing throws but the exhaustion of memory. Any thread, each
/// with an `arg` of its own.

class CharString;

/// Whether `arg` is `name` or an abbreviation of it, with or without a value behind.
/// \param arg        the word; when a value was found behind it, replaced by that value, which
///                   may be empty and is always shorter than the word was.
/// \param name       the whole name.
/// \param minimum    number of leading characters that must be there and agree.
/// \param caseMode   0: ASCII letters that differ only in case agree too.
/// \param separators the characters that may stand between word and value, zero-terminated;
///                   null: there can be no value.
/// \return true when all of `arg` agrees with the beginning of `name`, or when one of
///         `separators` follows the part that does; otherwise false, with `arg` unchanged.
[[nodiscard]] CUL_EXPORT bool checkParameter(CharString& arg, const CharString& name,
                                             unsigned minimum, int caseMode,
                                             const wchar_t* separators);

/// The same with a zero-terminated name; null counts as empty.
[[nodiscard]] CUL_EXPORT bool checkParameter(CharString& arg, const wchar_t* name, unsigned minimum,
                                             int caseMode, const wchar_t* separators);
