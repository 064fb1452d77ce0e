#include "PropertiesCommand.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <string_view>

#include "Engine/utilities/FileName.h"
#include "Engine/utilities/Properties.h"
#include "Engine/utilities/Texts.h"

#include "Messages.h"
#include "Output.h"
#include "Printable.h"
#include "Statuses.h"

namespace {

constexpr int statusNoSuchKey = 1;

// In the order of the bytes.
void printAll(Properties& properties) {
  std::map<std::string_view, std::string_view> sorted;
  Properties::TableCursor cursor = properties.cursor();
  for (bool any = cursor.first(); any; any = cursor.next()) {
    sorted.emplace(viewOf(cursor.element()->key), viewOf(cursor.element()->value));
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
  std::fwrite(viewOf(value).data(), 1, value.length(), stdout);
  std::puts("");
  return finishOutput();
}

}  // namespace

int propertiesCommand(std::span<char* const> arguments) {
  if (arguments.empty() || arguments.size() > 2) {
    complain(Message::propertiesTake);
    return statusUsage;
  }
  Properties properties(nullptr);
  if (properties.set(FileName(arguments[0], EncodedString::utf8))) {
    const char* const reason = std::strerror(errno);
    std::fprintf(stderr, "enginehost: %s: %s\n", printable(arguments[0]).c_str(), reason);
    return statusHostFailed;
  }
  if (arguments.size() == 2) {
    // Keys are read as the file's are.
    return printValue(properties, EncodedString(arguments[1], EncodedString::autodetect));
  }
  printAll(properties);
  return finishOutput();
}
