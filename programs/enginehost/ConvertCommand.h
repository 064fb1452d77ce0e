#pragma once

/// \file
/// Text from one code page to another, for shells.

#include <span>

/// The command "-convert FROM TO". Converts standard input to standard output, as it comes and
/// byte by byte: nothing is added or dropped, zero bytes are ordinary ones. A code page is a
/// name that iconv knows; "native", the native code page of this process; "escapes", that same
/// page with "\uhhhh" and "\Uhhhhhhhh" for characters, which is ASCII when written; or the name
/// of a table of the EBCDICtableStore.
///
/// Each byte that cannot be read comes out as "?", and so does each character that the other
/// code page lacks; an EBCDIC table has the byte 0x3F for that.
int convertCommand(std::span<char* const> arguments);
