#include "ProcessesCommand.h"

#include <algorithm>
#include <cstdio>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <string>

#include "Engine/utilities/ProcessTable.h"

#include "ArgumentList.h"
#include "Messages.h"
#include "Output.h"
#include "Statuses.h"
#include "programs/common/Printable.h"

namespace {

using Processes = std::map<pid_t, ArgumentList>;

// One walk through the table.
// \return the process it ends at, 0 when there is none.
pid_t walk(std::set<pid_t>& found) {
  procentry64 entry = {};
  pid_t index = 0;
  while (getprocs64(&entry, sizeof entry, nullptr, 0, &index, 1) == 1) {
    found.insert(entry.processId);
  }
  return entry.processId;
}

// A walk ends too early when the process that comes next ends before its turn, so that the table
// is whole when two walks end at the same process. Where processes never cease to come and go
// there is an end to the patience.
std::set<pid_t> findProcesses() {
  constexpr int mostWalks = 20;
  std::set<pid_t> found;
  pid_t last = walk(found);
  for (int walks = 1; walks < mostWalks; ++walks) {
    const pid_t previous = last;
    last = walk(found);
    if (last == previous) {
      break;
    }
  }
  return found;
}

Processes allProcesses() {
  Processes result;
  for (const pid_t process : findProcesses()) {
    if (std::optional<ArgumentList> list = argumentsOf(process)) {
      result.emplace(process, std::move(*list));
    }
  }
  return result;
}

void printForPeople(const Processes& processes) {
  const std::string head = messageText(Message::processHead);
  const int used = static_cast<int>(columnsOf(head));
  const int width = std::max(used, 7);
  std::printf("%*s%s  %s\n", width - used, "", head.c_str(),
              messageText(Message::argumentsHead).c_str());
  for (const auto& [process, list] : processes) {
    const std::string text = shown(list);
    std::printf("%*d%s%s\n", width, process, text.empty() ? "" : "  ", text.c_str());
  }
}

void printJson(const Processes& processes) {
  nlohmann::ordered_json all = nlohmann::ordered_json::array();
  for (const auto& [process, list] : processes) {
    all.push_back({{"process", process}, {"arguments", list.arguments}, {"cut", list.isCut}});
  }
  printDocument({{"processes", all}});
}

}  // namespace

int processesCommand(std::span<char* const> arguments) {
  const std::optional<ListingForm> form = listingForm("-processes", arguments);
  if (!form) {
    return statusUsage;
  }
  const Processes processes = allProcesses();
  if (processes.empty()) {
    // This one is missing at least.
    complain(Message::processesNotRead);
    return statusHostFailed;
  }
  form == ListingForm::json ? printJson(processes) : printForPeople(processes);
  return finishOutput();
}
