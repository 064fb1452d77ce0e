#pragma once

#include <string_view>

#include "Engine/utilities/EncodedString.h"
#include "Engine/utilities/Export.h"
#include "Engine/utilities/List.h"

/// \file
/// The path type: a text that knows where its folder part ends and where its extension and
/// its archive member begin.
///
/// The parts of "lib/libx.a(shr.o)" are the directory "lib/", the base "libx.a", the root
/// "libx", the extension ".a" and the member "shr.o". Separators and dots within the
/// parentheses of a member are nothing but text; so is everything in front of a final ")"
/// that has no "(": the whole of "a/b)" is its base. Components are separated by "/", the
/// entries of a search path by ":". A name is kept as written: "." and ".." components and
/// repeated separators are not folded.
///
/// A name is valid when it is not empty, does not end with "/" and has at most `longest`
/// bytes. Invalid names are not errors: every piece of one is empty and every change leaves
/// it as it is. One that ends with "/" is reported to the trace.
///
/// Files are looked up in the native code page of the system. An object is used by one
/// thread at a time.

class CUL_EXPORT FileName : public EncodedString {
 public:
  /// The greatest length of a valid name, in bytes.
  static constexpr unsigned longest = 65535;

  using EncodedString::view;

  /// Empty, and therefore invalid.
  FileName() noexcept = default;
  FileName(const FileName&) = default;
  /// Leaves the source empty.
  FileName(FileName&& source) noexcept;

  /// Each builds the text as EncodedString does and then calls validate(). Null counts as
  /// empty.
  FileName(const char* text, Encoding encoding);
  FileName(const signed char* text, Encoding encoding);
  FileName(const unsigned char* text, Encoding encoding);
  explicit FileName(const wchar_t* text);
  explicit FileName(const CharString& text);
  explicit FileName(const EncodedString& text);

  ~FileName() override = default;

  FileName& operator=(const FileName&) = default;
  /// Leaves the source empty, unless it is this object.
  FileName& operator=(FileName&& source) noexcept;
  /// Replaces the text and calls validate().
  FileName& operator=(const EncodedString& text);

  /// Finds the parts of the text anew. The operations of this class see to it themselves;
  /// after a change by an inherited string operation the caller does.
  void validate();

  /// Not empty, no "/" at the end, not too long.
  [[nodiscard]] bool isValidName() const noexcept { return basePosition != 0; }

  /// Valid and beginning with "/".
  [[nodiscard]] bool isAbsolute() const noexcept;

  /// Whether the path leads to a regular file that this process may read, and also execute
  /// when `executable` is true.
  [[nodiscard]] bool isAccessible(bool executable) const;

  /// Whether a FileName made from `path` is valid.
  [[nodiscard]] static bool is_valid_path(const EncodedString& path);

  /// The entries of a list separated by ":", in order and without empty ones. The caller
  /// deletes the strings.
  [[nodiscard]] static List<EncodedString*> parsePaths(const EncodedString& paths);

  /// \name Pieces
  /// @{

  /// What stands before the last component, including the final "/"; may be empty.
  [[nodiscard]] EncodedString directory() const;
  /// The last component with its member.
  [[nodiscard]] FileName baseAndMember() const;
  /// The same.
  [[nodiscard]] FileName short_name() const;
  /// The last component without its member.
  [[nodiscard]] FileName base() const;
  /// The last component up to its extension; without an extension the whole of it, with its
  /// member.
  [[nodiscard]] FileName root() const;
  /// The root of an executable's name, which is its root().
  [[nodiscard]] FileName root_exe() const;
  /// From the last "." of the base to its end, the "." included; empty without one.
  [[nodiscard]] EncodedString extension() const;
  /// What stands between the parentheses; empty without a member.
  [[nodiscard]] EncodedString member() const;
  /// A shared library's name without the last number of its version: "libq.so" for
  /// "/lib/libq.so.6". Any other name (also one with a member, or with more of a version
  /// than one number behind ".so") gives its baseAndMember().
  [[nodiscard]] FileName genericLibraryName() const;
  /// @}

  /// \name Changes
  /// Each calls validate() afterwards, and leaves an invalid name alone.
  /// @{

  /// Puts the last component, with its member, into another folder. A "/" is put between
  /// them unless `dir` is empty or ends with one.
  void change_path(const EncodedString& dir);
  /// Replaces the extension, or adds one in front of the member; an empty `ext` removes it.
  /// \param ext with or without its ".".
  void change_extension(const EncodedString& ext);
  /// Replaces the member, or adds one; an empty `name` removes it.
  /// \param name used as it stands when it begins with "(" or ends with ")", otherwise put
  ///             between parentheses.
  void change_member(const EncodedString& name);

  /// Anchors a name that is not absolute at `dir`, with a "/" between; an empty `dir`
  /// changes nothing. Then calls rationalizePath().
  void rationalizePath(const EncodedString& dir);
  /// Does nothing: a name stays exactly as written.
  void rationalizePath() noexcept {}
  /// @}

  /// The leading folders that two names share. Always empty: only names without a folder
  /// part are compared, and those share none. Kept so.
  [[nodiscard]] EncodedString commonPathPrefix(const FileName& other) const;

  /// The trailing folders that this name's directory() shares with the whole of `other`,
  /// each with its "/": whole components that have a "/" in front of them in both. "lib/"
  /// for "/x/lib/f" and "/y/lib", and for "/x/lib/f" and "/y/lib/".
  /// \param other needs not be valid.
  [[nodiscard]] EncodedString commonPathSuffix(const FileName& other) const;

  /// Finds a file. A name with a folder part is taken from the working directory and is not
  /// searched for; any other is looked for in the entries of one list: the working directory,
  /// ":" and `searchPath`. A working directory with a ":" in its name is therefore two entries
  /// or more, and what follows that ":" is a folder below the working directory. A member is
  /// put aside for the search and stays on the result; the archive that holds it needs not be
  /// executable.
  /// \param name       what to look for, as above.
  /// \param searchPath folders separated by ":".
  /// \param executable see isAccessible().
  /// \return the file, anchored at the working directory when it was found by a relative
  ///         path; an empty name when there is none, or when the working directory cannot
  ///         be read or has 4096 bytes or more.
  [[nodiscard]] static FileName findFile(const FileName& name, const EncodedString& searchPath,
                                         bool executable);

  /// The hash of the text, hashValue(), computed once and kept until the name changes.
  unsigned computeHash();

  /// Whether two names mean the same file for the purposes of the engine. Where either has
  /// trailing white space the texts are compared without that, and nothing else is looked at:
  /// "libz.so.1 " equals "libz.so.1" and not "libz.so". Otherwise, when exactly one of them has
  /// an extension that is a number and the other one's is ".so", the number does not count:
  /// "libz.so.1" equals "libz.so". Else the texts are compared. "libz.so" thus equals two names
  /// that differ, and equal names may have different hashes.
  [[nodiscard]] bool operator==(const FileName& other) const;

  /// \name Shared texts of one character
  /// Made on first use, never destroyed.
  /// @{
  [[nodiscard]] static const EncodedString& PathSepString();     ///< "/"
  [[nodiscard]] static const EncodedString& PeriodString();      ///< "."
  [[nodiscard]] static const EncodedString& LeftParenString();   ///< "("
  [[nodiscard]] static const EncodedString& RightParenString();  ///< ")"
  /// @}

  /// A new "/", which the caller deletes.
  [[nodiscard]] static EncodedString* pathSeparator();

 private:
  friend class SearchTree;

  // A part of the text, by byte positions: [from, to).
  [[nodiscard]] std::string_view view(unsigned from, unsigned to) const noexcept;

  // Position behind the base: that of the "(", or behind the end.
  [[nodiscard]] unsigned baseEnd() const noexcept;
  [[nodiscard]] std::string_view baseView() const noexcept;
  [[nodiscard]] std::string_view extensionView() const noexcept;
  [[nodiscard]] bool hasNumericExtension() const noexcept;

  [[gnu::visibility("hidden")]] static FileName named(std::string_view text);
  void findParts() noexcept;
  [[gnu::visibility("hidden")]] void findParts(std::string_view text) noexcept;
  void forgetParts() noexcept;
  void replace(unsigned from, unsigned to, std::string_view text);

  unsigned hash = 0;                     // Of the text, when hashValid.
  unsigned short basePosition = 0;       // Of the last component; 0: invalid.
  unsigned short extensionPosition = 0;  // Of its last "."; 0: none.
  unsigned short memberPosition = 0;     // Of the "("; 0: none.
  unsigned char hashValid = 0;
};
