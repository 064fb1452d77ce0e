#pragma once

/// \file
/// What the host says to its user, in the user's language.
///
/// The texts are in the catalog libwobnhost.so, made from the message sources in the folder
/// "messages", one for each language. It is opened when the first text is said. Where it, or a
/// text of it, is not there, the English text stands in that is compiled in. Output for
/// programs, names of settings and the trace are English always.

#include <cstddef>
#include <span>
#include <string>

#include "Engine/utilities/EncodedString.h"

/// In the order of the rows of messageRows().
enum class Message : std::size_t {
  notFound,
  moduleNotLoaded,
  noWindows,
  endedWithStatus,
  endedBySignal,
  failedAt,
  failure,

  usage,
  whatItDoes,
  options,
  settings,
  attachIsForTheEngine,
  invalidOption,

  takesOnlyJson,
  isRefused,
  wrongLength,
  notWithin,
  noneOf,
  noVariable,
  nameHead,
  typeHead,
  permittedHead,
  defaultHead,
  valueHead,
  fromHead,

  processesNotRead,
  processHead,
  argumentsHead,
  propertiesTake,
  convertTakes,
  unknownCodePage,
  inputFailed,
  outputFailed,
  outputNotWritten,
  noRegularFile,
  lineTooLong,
};

struct MessageRow {
  int set;
  int number;
  const char* english;  ///< a format of printf()
};

[[nodiscard]] std::span<const MessageRow> messageRows();

/// The bytes of a text in the native code page; in UTF-8 where that cannot hold it.
[[nodiscard]] std::string inNativeCodePage(const EncodedString& text);

/// The text of a message with its arguments, in the user's language and in the native code
/// page; in UTF-8 where that cannot hold it.
[[nodiscard]] std::string messageText(Message message, ...);

/// The same in English.
[[nodiscard]] std::string englishText(Message message, ...);

/// Says messageText() in a line of the host's on standard error.
void complain(Message message, ...);
