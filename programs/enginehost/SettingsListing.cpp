#include "SettingsListing.h"

#include <algorithm>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <numeric>
#include <optional>
#include <string>
#include <string_view>
#include <unistd.h>
#include <vector>

#include "Engine/utilities/DebuggerSetting.h"
#include "Engine/utilities/DebuggerSettings.h"
#include "Engine/utilities/DebuggerStringSetting.h"
#include "Engine/utilities/EnvironmentVariables.h"
#include "Engine/utilities/SettingNames.h"

#include "Messages.h"
#include "Output.h"
#include "Statuses.h"
#include "programs/common/Printable.h"

namespace {

std::string prefix() { return std::string(getEnvnamePrefix().view()); }

struct Row {
  std::string name;
  std::string type;
  std::string permitted;
  std::string defaultText;
  std::string value;
  std::string from;
  std::string refused;  // the environment's text
  std::string reason;   // why it is refused; empty when it is not
};

// A setting that holds a key shows only whether there is one.
std::string shown(const DebuggerSetting& setting, const EncodedString& value) {
  return setting.isSecret() && value.length() > 0 ? "********" : std::string(value.view());
}

std::string typeName(const DebuggerSetting& setting) {
  switch (setting.getType()) {
    case DebuggerSetting::String:
      return "String";
    case DebuggerSetting::Boolean:
      return "Boolean";
    case DebuggerSetting::Integer:
      return "Integer";
    case DebuggerSetting::Unsigned:
      return "Unsigned";
    case DebuggerSetting::Enum:
      return "Enum";
    case DebuggerSetting::List:
      return "List";
    case DebuggerSetting::Path:
      return "Path";
  }
  return "";
}

std::string originName(const DebuggerSetting& setting) {
  switch (setting.getOrigin()) {
    case DebuggerSetting::Nowhere:
      return "none";
    case DebuggerSetting::Default:
      return "default";
    case DebuggerSetting::Environment:
      return "environment";
    case DebuggerSetting::Changed:
      return "changed";
  }
  return "";
}

// In which language something is said.
using Say = std::string (*)(Message, ...);

std::string reasonToRefuse(DebuggerSetting& setting, Say say) {
  if (const DebuggerStringSetting* text = setting.asStringSetting(); text != nullptr) {
    return say(Message::wrongLength, text->getMinLength(), text->getMaxLength());
  }
  const bool isRange =
      (setting.getType() & (DebuggerSetting::Integer | DebuggerSetting::Unsigned)) != 0;
  const EncodedString permitted = setting.getPermittedValues();
  const char* const values = permitted;
  return say(isRange ? Message::notWithin : Message::noneOf, values);
}

Row rowOf(DebuggerSetting& setting, Say say) {
  Row row;
  row.name = setting.getName().view();
  row.type = typeName(setting);
  row.permitted = setting.getPermittedValues().view();
  row.defaultText = setting.getDefault().view();
  row.value = shown(setting, setting.getValue());
  row.from = originName(setting);
  if (setting.isEnvValueRefused()) {
    row.refused = shown(setting, setting.getEnvValue());
    row.reason = reasonToRefuse(setting, say);
  }
  return row;
}

std::vector<Row> allRows(Say say) {
  std::vector<Row> rows;
  for (DebuggerSetting* setting : DebuggerSettings::instance()->getAllSettings()) {
    rows.push_back(rowOf(*setting, say));
  }
  return rows;
}

// The number of single changes that lead from one text to the other.
std::size_t distance(std::string_view from, std::string_view to) {
  std::vector<std::size_t> row(to.size() + 1);
  std::iota(row.begin(), row.end(), 0);
  for (std::size_t i = 0; i < from.size(); ++i) {
    std::size_t diagonal = row[0]++;
    for (std::size_t j = 0; j < to.size(); ++j) {
      const std::size_t replaced = diagonal + (from[i] == to[j] ? 0 : 1);
      diagonal = row[j + 1];
      row[j + 1] = std::min({replaced, row[j] + 1, row[j + 1] + 1});
    }
  }
  return row.back();
}

// What follows the prefix in a variable's name; nothing when it does not begin with it.
std::string_view withoutPrefix(std::string_view variable) {
  const std::string text = prefix();
  return variable.starts_with(text) ? variable.substr(text.size()) : std::string_view();
}

struct Stranger {
  std::string variable;
  std::string nearest;
};

// The variables of the environment that have the prefix and nobody reads.
std::vector<Stranger> strangers(const std::vector<Row>& rows) {
  std::vector<std::string> known;
  for (const EnvironmentVariable& variable : environmentVariables) {
    const std::string_view name = withoutPrefix(variable.name);
    const auto isOfThatName = [&](const Row& row) { return row.name == name; };
    if (!name.empty() && std::none_of(rows.begin(), rows.end(), isOfThatName)) {
      known.emplace_back(name);
    }
  }
  for (const Row& row : rows) {
    known.push_back(row.name);
  }
  std::vector<Stranger> result;
  for (char** variable = environ; *variable != nullptr; ++variable) {
    const std::string_view text = *variable;
    const std::string_view whole = text.substr(0, text.find('='));
    if (!whole.starts_with(prefix())) {
      continue;
    }
    const std::string_view name = withoutPrefix(whole);
    // Names too long to be a slip are not worth the comparison.
    constexpr std::size_t longest = 64;
    const std::string_view compared = name.substr(0, longest);
    const auto nearest = std::min_element(known.begin(), known.end(),
                                          [&](const std::string& a, const std::string& b) {
                                            return distance(compared, a) < distance(compared, b);
                                          });
    if (*nearest != name) {
      result.push_back({std::string(whole), prefix() + *nearest});
    }
  }
  return result;
}

// A column stays narrow enough for the next ones to be seen.
constexpr std::size_t widest = 26;

std::string cell(std::string_view text, std::size_t width) {
  std::string result = printable(text);
  const std::size_t used = columnsOf(result);
  result.append(used < width ? width - used : 0, ' ');
  return result + "  ";
}

void printForPeople(const std::vector<Row>& rows, const std::vector<Stranger>& unknown) {
  const Row head = {messageText(Message::nameHead),
                    messageText(Message::typeHead),
                    messageText(Message::permittedHead),
                    messageText(Message::defaultHead),
                    messageText(Message::valueHead),
                    messageText(Message::fromHead),
                    "",
                    ""};
  std::string Row::*const columns[] = {&Row::name, &Row::type, &Row::value, &Row::defaultText,
                                       &Row::from};
  std::vector<std::size_t> widths;
  for (const auto column : columns) {
    std::size_t width = columnsOf(head.*column);
    for (const Row& row : rows) {
      width = std::max(width, std::min(widest, columnsOf(printable(row.*column))));
    }
    widths.push_back(width);
  }
  const auto print = [&](const Row& row) {
    std::string line;
    for (std::size_t i = 0; i < std::size(columns); ++i) {
      line += cell(row.*columns[i], widths[i]);
    }
    line += row.permitted;
    line.erase(line.find_last_not_of(' ') + 1);
    std::printf("%s\n", line.c_str());
    if (!row.reason.empty()) {
      const std::string variable = prefix() + row.name;
      const std::string refusal = messageText(Message::isRefused, variable.c_str(),
                                              printable(row.refused).c_str(), row.reason.c_str());
      std::printf("    %s\n", refusal.c_str());
    }
  };
  print(head);
  std::for_each(rows.begin(), rows.end(), print);
  for (const Stranger& stranger : unknown) {
    const std::string text = messageText(Message::noVariable, printable(stranger.variable).c_str(),
                                         stranger.nearest.c_str());
    std::printf("%s\n", text.c_str());
  }
}

void printJson(const std::vector<Row>& rows, const std::vector<Stranger>& unknown) {
  nlohmann::ordered_json settings = nlohmann::ordered_json::array();
  for (const Row& row : rows) {
    nlohmann::ordered_json entry = {{"name", row.name},           {"type", row.type},
                                    {"permitted", row.permitted}, {"default", row.defaultText},
                                    {"value", row.value},         {"from", row.from}};
    if (!row.reason.empty()) {
      entry["refused"] = {{"value", row.refused}, {"reason", row.reason}};
    }
    settings.push_back(std::move(entry));
  }
  nlohmann::ordered_json variables = nlohmann::ordered_json::array();
  for (const Stranger& stranger : unknown) {
    variables.push_back({{"variable", stranger.variable}, {"nearest", stranger.nearest}});
  }
  printDocument({{"settings", settings}, {"unknown", variables}});
}

}  // namespace

int settingsCommand(std::span<char* const> arguments) {
  const std::optional<ListingForm> form = listingForm("-settings", arguments);
  if (!form) {
    return statusUsage;
  }
  const bool asJson = form == ListingForm::json;
  const std::vector<Row> rows = allRows(asJson ? englishText : messageText);
  const std::vector<Stranger> unknown = strangers(rows);
  asJson ? printJson(rows, unknown) : printForPeople(rows, unknown);
  return finishOutput();
}
