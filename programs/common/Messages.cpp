#include "programs/common/Messages.h"

#include <cstdarg>
#include <cstdio>
#include <optional>

#include "Engine/utilities/StdException.h"
#include "Engine/utilities/msgserv/XPG4MsgServer.h"

namespace {

const MessageRow& rowOf(Message message) {
  return programMessages.rows[static_cast<std::size_t>(message)];
}

// Null when assertions throw and there is no catalog.
const XPG4MsgServer* catalog() {
  static std::optional<XPG4MsgServer> server;
  static const bool isTried = [] {
    try {
      server.emplace(nullptr, programMessages.catalog);
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
  std::fprintf(stderr, "%s: %s\n", programMessages.program, text.c_str());
}
