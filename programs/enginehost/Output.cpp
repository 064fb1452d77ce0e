#include "Output.h"

#include <cstdio>
#include <cstring>
#include <nlohmann/json.hpp>

#include "Messages.h"
#include "Statuses.h"

std::optional<ListingForm> listingForm(const char* command, std::span<char* const> arguments) {
  if (arguments.empty()) {
    return ListingForm::forPeople;
  }
  if (arguments.size() == 1 && std::strcmp(arguments[0], "--json") == 0) {
    return ListingForm::json;
  }
  complain(Message::takesOnlyJson, command);
  return std::nullopt;
}

void printDocument(const nlohmann::ordered_json& document) {
  constexpr auto anyBytes = nlohmann::ordered_json::error_handler_t::replace;
  std::printf("%s\n", document.dump(2, ' ', false, anyBytes).c_str());
}

int finishOutput() {
  if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0) {
    return 0;
  }
  complain(Message::outputNotWritten);
  return statusHostFailed;
}
