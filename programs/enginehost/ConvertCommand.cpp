#include "ConvertCommand.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <unistd.h>
#include <vector>

#include "Engine/utilities/Descriptor.h"

#include "CodePageStreams.h"
#include "Messages.h"
#include "Statuses.h"
#include "programs/common/Printable.h"

namespace {

int unknownCodePage(const char* name) {
  complain(Message::unknownCodePage, printable(name).c_str());
  return statusUsage;
}

int failed(Message stream) {
  complain(stream, std::strerror(errno));
  return statusHostFailed;
}

ssize_t readSome(std::span<char> area) {
  return uninterrupted([&] { return ::read(STDIN_FILENO, area.data(), area.size()); });
}

bool writeAll(std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t n =
        uninterrupted([&] { return ::write(STDOUT_FILENO, bytes.data(), bytes.size()); });
    if (n < 0) {
      return false;
    }
    bytes.remove_prefix(static_cast<std::size_t>(n));
  }
  return true;
}

int convert(CodePageReader& reader, CodePageWriter& writer) {
  // A reader of the output that is gone is told by write(). Nothing else follows in this process.
  std::signal(SIGPIPE, SIG_IGN);
  std::vector<char> area(65536);
  ssize_t n;
  do {
    n = readSome(area);
    if (n < 0) {
      return failed(Message::inputFailed);
    }
    const bool isLast = n == 0;
    const std::wstring text = reader.read({area.data(), static_cast<std::size_t>(n)}, isLast);
    if (!writeAll(writer.write(text, isLast))) {
      return failed(Message::outputFailed);
    }
  } while (n != 0);
  return 0;
}

}  // namespace

int convertCommand(std::span<char* const> arguments) {
  if (arguments.size() != 2) {
    complain(Message::convertTakes);
    return statusUsage;
  }
  const std::unique_ptr<CodePageReader> reader = codePageReader(arguments[0]);
  if (reader == nullptr) {
    return unknownCodePage(arguments[0]);
  }
  const std::unique_ptr<CodePageWriter> writer = codePageWriter(arguments[1]);
  if (writer == nullptr) {
    return unknownCodePage(arguments[1]);
  }
  return convert(*reader, *writer);
}
