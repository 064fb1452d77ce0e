#include "Messages.h"

#include <cstdarg>
#include <cstdio>
#include <optional>

#include "Engine/utilities/StdException.h"
#include "Engine/utilities/msgserv/XPG4MsgServer.h"

namespace {

constexpr MessageRow rows[] = {
    {1, 1, "%s: not found"},
    {1, 2, "module %s cannot be loaded; the trace tells why"},
    {1, 3, "there are no windows here: the console is at this terminal"},
    {1, 4, "the program ended with status %d"},
    {1, 5, "the program was ended by the signal %s"},
    {1, 6, "%s at %s(%u)"},
    {1, 7, "failure"},

    {2, 1, "usage: enginehost [options] [--] program [argument...]"},
    {2, 2, "Runs a program, on a console of its own when called at a terminal."},
    {2, 3, "Options, each with its shortest form:"},
    {2, 4, "Settings, each given in the environment as %s and its name:"},
    {2, 5, "attaching is for the engine"},
    {2, 6, "%s: invalid option or value, see enginehost -?"},

    {3, 1, "%s takes nothing but --json"},
    {3, 2, "%s=\"%s\" is refused: %s"},
    {3, 3, "it is not %u to %u characters long"},
    {3, 4, "it is not within %s"},
    {3, 5, "it is none of %s"},
    {3, 6, "%s is no variable of the debugger; the nearest is %s"},
    {3, 7, "NAME"},
    {3, 8, "TYPE"},
    {3, 9, "PERMITTED"},
    {3, 10, "DEFAULT"},
    {3, 11, "VALUE"},
    {3, 12, "FROM"},

    {4, 1, "the processes cannot be read; the trace tells why"},
    {4, 2, "PROCESS"},
    {4, 3, "ARGUMENTS"},
    {4, 4, "-properties takes a file and at most one key"},
    {4, 5, "-convert takes two code pages"},
    {4, 6, "%s: unknown code page"},
    {4, 7, "standard input: %s"},
    {4, 8, "standard output: %s"},
    {4, 9, "standard output cannot be written"},
    {4, 10, "it is no regular file"},
    {4, 11, "it has a line of more than %u MB"},
};
static_assert(std::size(rows) == static_cast<std::size_t>(Message::lineTooLong) + 1);

const MessageRow& rowOf(Message message) { return rows[static_cast<std::size_t>(message)]; }

// Null when assertions throw and there is no catalog.
const XPG4MsgServer* catalog() {
  static std::optional<XPG4MsgServer> server;
  static const bool isTried = [] {
    try {
      server.emplace(nullptr, "host");
    } catch (const StdException& e) {
      e.trace("const XPG4MsgServer* catalog()", __LINE__);
    }
    return true;
  }();
  return isTried && server ? &*server : nullptr;
}

std::string translated(Message message) {
  const MessageRow& row = rowOf(message);
  EncodedString text;
  if (const XPG4MsgServer* server = catalog(); server != nullptr) {
    text = server->getMessage(row.set, row.number);
  }
  return text.length() == 0 ? row.english : inNativeCodePage(text);
}

std::string formatted(const char* format, va_list arguments) {
  va_list again;
  va_copy(again, arguments);
  // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): the callers start it.
  const int length = std::vsnprintf(nullptr, 0, format, arguments);
  std::string result(static_cast<std::size_t>(length), '\0');
  std::vsnprintf(result.data(), result.size() + 1, format, again);
  va_end(again);
  return result;
}

}  // namespace

std::span<const MessageRow> messageRows() { return rows; }

std::string inNativeCodePage(const EncodedString& text) {
  const ByteString bytes = text.convertToNative();
  if (EncodedString(bytes, EncodedString::native) == text) {
    const unsigned char* const characters = bytes;
    return {reinterpret_cast<const char*>(characters), bytes.length()};
  }
  const char* const characters = text;
  return {characters, text.length()};
}

std::string messageText(Message message, ...) {
  va_list arguments;
  va_start(arguments, message);
  std::string result = formatted(translated(message).c_str(), arguments);
  va_end(arguments);
  return result;
}

std::string englishText(Message message, ...) {
  va_list arguments;
  va_start(arguments, message);
  std::string result = formatted(rowOf(message).english, arguments);
  va_end(arguments);
  return result;
}

void complain(Message message, ...) {
  va_list arguments;
  va_start(arguments, message);
  const std::string text = formatted(translated(message).c_str(), arguments);
  va_end(arguments);
  std::fprintf(stderr, "enginehost: %s\n", text.c_str());
}
