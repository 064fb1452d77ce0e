#include "PropertiesCommand.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <vector>

#include "Engine/utilities/FileName.h"
#include "Engine/utilities/Properties.h"

#include "Messages.h"
#include "Output.h"
#include "Statuses.h"
#include "programs/common/Printable.h"

namespace {

constexpr int statusNoSuchKey = 1;

constexpr std::size_t longestLine = 16 << 20;

// In the order of the bytes.
void printAll(Properties& properties) {
  std::map<std::string_view, std::string_view> sorted;
  Properties::TableCursor cursor = properties.cursor();
  for (bool any = cursor.first(); any; any = cursor.next()) {
    sorted.emplace(cursor.element()->key.view(), cursor.element()->value.view());
  }
  for (const auto& [key, value] : sorted) {
    std::printf("%s=%s\n", printable(key).c_str(), printable(value).c_str());
  }
}

int printValue(const Properties& properties, const EncodedString& key) {
  if (!properties.doesContain(key)) {
    return statusNoSuchKey;
  }
  const EncodedString value = properties.getString(key);
  std::fwrite(value.view().data(), 1, value.length(), stdout);
  std::puts("");
  return finishOutput();
}

// What speaks against reading a file; empty when nothing does. What has no end, or a line without
// one, would take all memory, and a pipe would be waited for.
std::string reasonToRefuse(const std::string& path) {
  struct stat state;
  if (stat(path.c_str(), &state) != 0) {
    return std::strerror(errno);
  }
  if (S_ISDIR(state.st_mode)) {
    return std::strerror(EISDIR);
  }
  if (!S_ISREG(state.st_mode)) {
    return messageText(Message::noRegularFile);
  }
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path.c_str(), "re"),
                                                             std::fclose);
  if (file == nullptr) {
    return std::strerror(errno);
  }
  std::vector<char> part(65536);
  std::size_t length = 0;  // of the line that goes on
  while (const std::size_t size = std::fread(part.data(), 1, part.size(), file.get())) {
    // A line that begins and ends within a part is not too long.
    const std::string_view bytes(part.data(), size);
    if (length + std::min(bytes.find('\n'), size) > longestLine) {
      return messageText(Message::lineTooLong, static_cast<unsigned>(longestLine >> 20));
    }
    const std::size_t last = bytes.rfind('\n');
    length = last == std::string_view::npos ? length + size : size - last - 1;
  }
  return std::ferror(file.get()) != 0 ? std::strerror(errno) : "";
}

int refuse(const char* file, const std::string& reason) {
  std::fprintf(stderr, "enginehost: %s: %s\n", printable(file).c_str(), reason.c_str());
  return statusHostFailed;
}

}  // namespace

int propertiesCommand(std::span<char* const> arguments) {
  if (arguments.empty() || arguments.size() > 2) {
    complain(Message::propertiesTake);
    return statusUsage;
  }
  const FileName file(arguments[0], EncodedString::utf8);
  // As the library looks it up.
  if (const std::string reason = reasonToRefuse(inNativeCodePage(file)); !reason.empty()) {
    return refuse(arguments[0], reason);
  }
  Properties properties(nullptr);
  if (properties.set(file)) {
    return refuse(arguments[0], std::strerror(errno));
  }
  if (arguments.size() == 2) {
    // Keys are read as the file's are.
    return printValue(properties, EncodedString(arguments[1], EncodedString::autodetect));
  }
  printAll(properties);
  return finishOutput();
}
