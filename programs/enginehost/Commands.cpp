#include "Commands.h"

#include <algorithm>
#include <cstring>

#include "ConvertCommand.h"
#include "ProcessesCommand.h"
#include "PropertiesCommand.h"
#include "SettingsListing.h"
#include "Usage.h"

namespace {

constexpr Command table[] = {
    {"--help", "", helpCommand},
    {"--version", "", versionCommand},
    {"-convert", "FROM TO", convertCommand},
    {"-processes", "[--json]", processesCommand},
    {"-properties", "file [key]", propertiesCommand},
    {"-settings", "[--json]", settingsCommand},
};

}  // namespace

std::span<const Command> commands() { return table; }

const Command* findCommand(const char* name) {
  const auto found = std::find_if(std::begin(table), std::end(table), [&](const Command& command) {
    return std::strcmp(command.name, name) == 0;
  });
  return found != std::end(table) ? found : nullptr;
}
