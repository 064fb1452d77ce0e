#pragma once

/// \file
/// Text that comes in pieces, read from one code page and written in another. Where a piece ends
/// makes no difference: what is cut there waits for the next one.
///
/// A code page is a name that iconv knows; "native", the native code page of this process;
/// "escapes", that same page with "\uhhhh" and "\Uhhhhhhhh" for characters, which is ASCII when
/// written; or the name of a table of the EBCDICtableStore. Each byte that cannot be read comes out
/// as "?", and so does each character that the code page lacks; an EBCDIC table has the byte 0x3F
/// for that.

#include <memory>
#include <string>
#include <string_view>

class CodePageReader {
 public:
  CodePageReader() = default;
  CodePageReader(const CodePageReader&) = delete;
  CodePageReader& operator=(const CodePageReader&) = delete;
  virtual ~CodePageReader() = default;

  /// The characters of the next piece, and of what of the pieces before had to wait for it.
  /// \param isLast no other follows; the piece may be empty.
  virtual std::wstring read(std::string_view piece, bool isLast) = 0;
};

class CodePageWriter {
 public:
  CodePageWriter() = default;
  CodePageWriter(const CodePageWriter&) = delete;
  CodePageWriter& operator=(const CodePageWriter&) = delete;
  virtual ~CodePageWriter() = default;

  /// The bytes of the next piece.
  /// \param isLast no other follows; the way back to the initial shift state is part of the bytes.
  virtual std::string write(std::wstring_view piece, bool isLast) = 0;
};

/// \name What reads or writes a code page
/// \param name not null.
/// \return null when there is no such code page.
/// @{
std::unique_ptr<CodePageReader> codePageReader(const char* name);
std::unique_ptr<CodePageWriter> codePageWriter(const char* name);
/// @}
