#pragma once

/// \file
/// What a program says to its user, in the user's language.
///
/// A program names its messages in a header "Messages.h" of its own, with their English texts
/// beside it. The texts in all languages are in a catalog, made from the message sources in the
/// program's folder "messages", one for each language. It is opened when the first text is said.
/// Where it, or a text of it, is not there, the English text stands in that is compiled in. Output
/// for programs, names and the trace are English always.

#include <cstddef>
#include <span>
#include <string>

#include "Engine/utilities/EncodedString.h"

/// The messages of the program, which defines it.
enum class Message : std::size_t;

struct MessageRow {
  int set;
  int number;
  const char* english;  ///< a format of printf()
};

struct ProgramMessages {
  const char* program;               ///< stands before each complaint
  const char* catalog;               ///< libwobnNAME.so
  std::span<const MessageRow> rows;  ///< in the order of Message
};

/// The messages of the program, which defines it.
extern const ProgramMessages programMessages;

/// The bytes of a text in the native code page; in UTF-8 where that cannot hold it.
[[nodiscard]] std::string inNativeCodePage(const EncodedString& text);

/// The text of a message with its arguments, in the user's language and in the native code
/// page; in UTF-8 where that cannot hold it.
[[nodiscard]] std::string messageText(Message message, ...);

/// The same in English.
[[nodiscard]] std::string englishText(Message message, ...);

/// Says messageText() in a line of the program's on standard error.
void complain(Message message, ...);
