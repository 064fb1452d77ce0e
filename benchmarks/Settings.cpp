#include <algorithm>
#include <atomic>
#include <charconv>
#include <iterator>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>

#include "Engine/utilities/DebuggerNumericSetting.h"
#include "Engine/utilities/DebuggerSettings.h"

#include "benchmarks/Comparison.h"

/// \file
/// The peer keeps the same settings in a hash map and changes one as one would by hand: the
/// same checks, the same canonical text, the number readable from any thread.

namespace {

struct PeersSetting {
  std::string value;
  std::atomic<unsigned> number = 0;
};

using PeersSettings = std::unordered_map<std::wstring, PeersSetting>;

// Names of settings are ASCII.
std::wstring wide(const EncodedString& name) {
  const std::string text(name.view());
  return {text.begin(), text.end()};
}

std::shared_ptr<PeersSettings> peersSettings() {
  auto result = std::make_shared<PeersSettings>();
  for (DebuggerSetting* setting : DebuggerSettings::instance()->getAllSettings()) {
    PeersSetting& peers = (*result)[wide(setting->getName())];
    peers.value = setting->getValue().view();
    if (const DebuggerNumericSetting* numeric = setting->asNumericSetting(); numeric != nullptr) {
      peers.number = numeric->getValueAsUnsigned();
    }
  }
  return result;
}

// As for ours, the caller has a name, not a key of the map.
auto findPeers(const PeersSettings& peers, const wchar_t* name) { return peers.find(name); }

void compareFinding(const std::string& what, const std::wstring& name,
                    const std::shared_ptr<PeersSettings>& peers) {
  const DebuggerSettings* const ours = DebuggerSettings::instance();
  require((ours->getSetting(name.c_str()) != nullptr) == (peers->count(name) == 1),
          "settings by name");
  compare(
      "settings: find " + what + " by name",
      [ours, name] { benchmark::DoNotOptimize(ours->getSetting(name.c_str())); },
      "std::unordered_map",
      [peers, name] { benchmark::DoNotOptimize(findPeers(*peers, name.c_str())); });
}

void compareNumber(const std::string& what, const std::wstring& name,
                   const std::shared_ptr<PeersSettings>& peers) {
  const DebuggerSettings* const ours = DebuggerSettings::instance();
  compare(
      "settings: find " + what + " and read its number",
      [ours, name] {
        benchmark::DoNotOptimize(
            ours->getSetting(name.c_str())->asNumericSetting()->getValueAsUnsigned());
      },
      "std::unordered_map",
      [peers, name] {
        benchmark::DoNotOptimize(findPeers(*peers, name.c_str())->second.number.load());
      });
}

void compareLookups() {
  const auto peers = peersSettings();
  const List<DebuggerSetting*>& all = DebuggerSettings::instance()->getAllSettings();
  const std::wstring middle = wide(all[all.count() / 2]->getName());
  const std::wstring last = wide(all[all.count() - 1]->getName());
  compareFinding("the first of " + std::to_string(all.count()), wide(all[0]->getName()), peers);
  compareFinding("the middle one", middle, peers);
  compareFinding("the last", last, peers);
  compareFinding("an absent one", L"NO_SUCH_SETTING", peers);
  compareNumber("the middle one", middle, peers);
  compareNumber("the last", last, peers);

  const DebuggerNumericSetting* const found =
      DebuggerSettings::instance()->getSetting(last.c_str())->asNumericSetting();
  const PeersSetting* const peersFound = &peers->find(last)->second;
  compare(
      "settings: read a number", [found] { benchmark::DoNotOptimize(found->getValueAsUnsigned()); },
      "std::atomic",
      [peers, peersFound] {
        benchmark::DoNotOptimize(peersFound->number.load(std::memory_order_acquire));
      });
}

bool setPeersNumber(PeersSetting& setting, std::string_view text, unsigned minimum,
                    unsigned maximum) {
  constexpr std::string_view whiteSpace = " \t\n\r";
  text.remove_prefix(std::min(text.find_first_not_of(whiteSpace), text.size()));
  text = text.substr(0, text.find_last_not_of(whiteSpace) + 1);
  unsigned number = 0;
  const char* const end = text.data() + text.size();
  const auto [behind, error] = std::from_chars(text.data(), end, number);
  if (error != std::errc() || behind != end || number < minimum || number > maximum) {
    return false;
  }
  setting.value = text;
  setting.number.store(number, std::memory_order_release);
  return true;
}

struct Item {
  std::string_view name;
  unsigned mask;
};

constexpr Item languages[] = {{"C", 2},       {"C++", 4},    {"CPP", 4},    {"PL/I", 16},
                              {"PLI", 16},    {"RPG", 32},   {"COBOL", 64}, {"FORTRAN", 2048},
                              {"UPC", 32768}, {"X10", 65536}};

bool setPeersList(PeersSetting& setting, std::string_view text) {
  constexpr std::string_view separators = ", ";
  unsigned bits = 0;
  while (!text.empty()) {
    const std::string_view token = text.substr(0, text.find_first_of(separators));
    const auto* const item = std::find_if(std::begin(languages), std::end(languages),
                                          [token](const Item& i) { return i.name == token; });
    if (item == std::end(languages)) {
      return false;
    }
    bits |= item->mask;
    text.remove_prefix(token.size());
    text.remove_prefix(std::min(text.find_first_not_of(separators), text.size()));
  }
  std::string canonical;
  for (const Item& item : languages) {
    if ((bits & item.mask) == item.mask) {
      if (!canonical.empty()) {
        canonical += ',';
      }
      canonical += item.name;
    }
  }
  setting.value = std::move(canonical);
  setting.number.store(bits, std::memory_order_release);
  return true;
}

template <typename SetPeers>
void compareChange(const std::string& what, const std::string& peer, const wchar_t* name,
                   const std::string& text, SetPeers setPeers) {
  DebuggerSetting* const ours = DebuggerSettings::instance()->getSetting(name);
  const auto peers = std::make_shared<PeersSetting>();
  const EncodedString oursText(text.c_str(), EncodedString::utf8);
  require(ours->setValue(oursText) && setPeers(*peers, text) &&
              ours->getValue().view() == peers->value &&
              ours->asNumericSetting()->getValueAsUnsigned() == peers->number,
          what);
  compare(
      what, [ours, oursText] { benchmark::DoNotOptimize(ours->setValue(oursText)); }, peer,
      [peers, text, setPeers] { benchmark::DoNotOptimize(setPeers(*peers, text)); });
}

}  // namespace

void compareSettings() {
  compareLookups();
  compareChange("settings: set a number", "std::from_chars", L"REPLY_TIMEOUT", " 12345",
                [](PeersSetting& setting, std::string_view text) {
                  return setPeersNumber(setting, text, 10, 65535);
                });
  compareChange("settings: set a list of one", "split by hand", L"SOURCESTEP", "COBOL",
                setPeersList);
  compareChange("settings: set a list of five", "split by hand", L"SOURCESTEP",
                "COBOL,PLI,X10,FORTRAN,RPG", setPeersList);
}
