#include "Usage.h"

#include <algorithm>
#include <cstdio>
#include <span>
#include <string>
#include <string_view>

#include "Engine/utilities/DebuggerParameters.h"
#include "Engine/utilities/DebuggerSetting.h"
#include "Engine/utilities/DebuggerSettings.h"
#include "Engine/utilities/ProductData.h"
#include "Engine/utilities/SettingNames.h"

#include "Commands.h"
#include "Messages.h"
#include "Output.h"
#include "programs/common/Printable.h"

namespace {

using Option = DebuggerParameters::Option;

// Whether an abbreviation selects the option rather than one behind it.
bool claims(const Option& option, std::wstring_view abbreviation) {
  return option.isRecognised() && abbreviation.size() >= option.minimum &&
         std::wstring_view(option.name).starts_with(abbreviation);
}

std::wstring_view shortestForm(std::span<const Option> options, std::size_t index) {
  const std::wstring_view name = options[index].name;
  const std::span<const Option> earlier = options.first(index);
  std::size_t length = options[index].minimum;
  while (std::any_of(earlier.begin(), earlier.end(), [&](const Option& option) {
    return claims(option, name.substr(0, length));
  })) {
    ++length;
  }
  return name.substr(0, length);
}

// Names of options are ASCII.
std::string plain(std::wstring_view text) { return {text.begin(), text.end()}; }

void printOption(std::span<const Option> options, std::size_t index) {
  const Option& option = options[index];
  const std::string name = plain(option.name);
  const std::string form = option.valueWithEquals ? name + "=value" : name;
  const std::string shortest = plain(shortestForm(options, index));
  if (shortest == name) {
    std::printf("  %s\n", form.c_str());
  } else {
    std::printf("  %-30s %s\n", form.c_str(), shortest.c_str());
  }
}

void printSetting(const DebuggerSetting& setting) {
  const EncodedString permitted = setting.getPermittedValues();
  const char* const name = setting.getName();
  const char* const values = permitted;
  std::printf(*values != '\0' ? "  %-30s %s\n" : "  %s\n", name, values);
}

}  // namespace

void printShortUsage() { std::fprintf(stderr, "%s\n", messageText(Message::usage).c_str()); }

int helpCommand(std::span<char* const> /*arguments*/) {
  const std::string usage = messageText(Message::usage);
  std::printf("%s\n", usage.c_str());
  const std::string below(columnsOf(usage.substr(0, usage.find("enginehost"))), ' ');
  for (const Command& command : commands()) {
    const char* const gap = *command.arguments != '\0' ? " " : "";
    std::printf("%senginehost %s%s%s\n", below.c_str(), command.name, gap, command.arguments);
  }
  std::printf("%s\n\n", messageText(Message::whatItDoes).c_str());
  std::printf("%s\n", messageText(Message::options).c_str());
  const std::span<const Option> options = DebuggerParameters::options();
  for (std::size_t i = 0; i < options.size(); ++i) {
    if (options[i].isRecognised()) {
      printOption(options, i);
    }
  }
  const char* const prefix = getEnvnamePrefix();
  std::printf("\n%s\n", messageText(Message::settings, prefix).c_str());
  for (const DebuggerSetting* setting : DebuggerSettings::instance()->getAllSettings()) {
    printSetting(*setting);
  }
  return finishOutput();
}

int versionCommand(std::span<char* const> /*arguments*/) {
  const ProductData& product = productData();
  std::printf("enginehost %s (%s, build %s)\n", product.version, product.name, product.buildStamp);
  return finishOutput();
}
