#pragma once

/// \file
/// Message sources, the files that translators write, in the form of X/Open that `gencat`
/// reads. Line by line:
/// \code
///   $ comment                and so is a "$" alone; empty and blank lines mean nothing
///   $set 2 any comment       the messages that follow are in set 2; in set 1 without it
///   $delset 2 any comment    takes away all messages of set 2 up to here
///   $quote " any comment     from here on a text may stand between two of this character
///   $quote                   from here on none may
///   7 text                   message 7; all behind a single blank or tab is its text
///   7 "  text  "             the same with the blanks seen; nothing may follow the quotation
///   7                        takes away message 7 of the set; "7 " is an empty text
/// \endcode
/// A backslash at the end of a line continues it, whatever line it is. In texts there are the
/// escapes \n \t \v \b \r \f \\ and one to three octal digits for a byte; a backslash in front
/// of anything else is dropped. Numbers are 1 to 2147483647, in any order. A message has one
/// text: a second one is an error, and so is a text that is not UTF-8 or has a zero byte.

#include <compare>
#include <map>
#include <string>
#include <string_view>

struct MessageId {
  int set;
  int number;

  // NOLINTNEXTLINE(modernize-use-nullptr): no pointer is in it.
  auto operator<=>(const MessageId&) const = default;
};

struct SourceMessage {
  std::string text;
  unsigned line;  ///< 1-based, its first one
};

using Messages = std::map<MessageId, SourceMessage>;

/// Why there is no catalog: thrown.
struct MessageError {
  std::string file;
  unsigned line;  ///< 1-based
  std::string text;
};

/// Reads a message source.
/// \param file its name, for errors.
/// \throws MessageError for the first line that cannot be read.
[[nodiscard]] Messages parseMessages(std::string_view source, const std::string& file);
