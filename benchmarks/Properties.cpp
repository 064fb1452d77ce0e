#include "Engine/utilities/Properties.h"

#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "Engine/utilities/FileName.h"

#include "benchmarks/Comparison.h"

/// \file
/// Property files and the tables made of them, beside a hash map of plain strings that is filled
/// by hand. The map's hash takes eight bytes at a time and its buckets grow in number; the hash
/// of our tables takes byte by byte, and their 257 buckets fill up.

namespace {

using PeersProperties = std::unordered_map<std::string, std::string>;

constexpr const char* peer = "std::unordered_map";

EncodedString ourText(std::string_view s) {
  return {s.data(), static_cast<unsigned>(s.size()), EncodedString::utf8};
}

struct Property {
  std::string key;
  std::string value;
};

std::vector<Property> someProperties(int count) {
  std::vector<Property> result;
  for (int i = 0; i < count; ++i) {
    const std::string number = std::to_string(i);
    result.push_back({"engine.connection." + number, "value number " + number});
  }
  return result;
}

void compareLookups(const std::vector<Property>& properties, const std::string& count) {
  const auto ours = std::make_shared<Properties>(nullptr);
  const auto peers = std::make_shared<PeersProperties>();
  for (const auto& [key, value] : properties) {
    ours->setProperty(ourText(key), ourText(value));
    (*peers)[key] = value;
  }
  const std::string present = properties[properties.size() / 2].key;
  const std::string absent = "engine.connection.none";
  for (const std::string& key : {present, absent}) {
    const EncodedString ourKey = ourText(key);
    const bool isPresent = peers->contains(key);
    require(ours->doesContain(ourKey) == isPresent, "membership");
    compare(
        "properties: look for a key that is " + std::string(isPresent ? "" : "not ") + "among " +
            count,
        [ours, ourKey] { benchmark::DoNotOptimize(ours->doesContain(ourKey)); }, peer,
        [peers, key] { benchmark::DoNotOptimize(peers->contains(key)); });
  }
  const EncodedString ourKey = ourText(present);
  require(ours->getString(ourKey).view() == peers->at(present), "values");
  compare(
      "properties: copy a value of " + count,
      [ours, ourKey] {
        const EncodedString value = ours->getString(ourKey);
        benchmark::DoNotOptimize(static_cast<const char*>(value));
      },
      peer,
      [peers, present] {
        const std::string value = peers->at(present);
        benchmark::DoNotOptimize(value.c_str());
      });
}

void compareFilling(const std::vector<Property>& properties, const std::string& count) {
  std::vector<Properties::HashElement> ourProperties;
  for (const auto& [key, value] : properties) {
    ourProperties.emplace_back(ourText(key), ourText(value));
  }
  compare(
      "properties: set " + count,
      [ourProperties] {
        Properties ours(nullptr);
        for (const Properties::HashElement& property : ourProperties) {
          ours.setProperty(property.key, property.value);
        }
        benchmark::DoNotOptimize(ours.numItems());
      },
      peer,
      [properties] {
        PeersProperties peers;
        for (const auto& [key, value] : properties) {
          peers[key] = value;
        }
        benchmark::DoNotOptimize(peers.size());
      });
}

std::string_view stripped(std::string_view text) {
  constexpr std::string_view whiteSpace = " \t\n\r";
  const size_t first = text.find_first_not_of(whiteSpace);
  return first == std::string_view::npos
             ? std::string_view()
             : text.substr(first, text.find_last_not_of(whiteSpace) - first + 1);
}

PeersProperties readPeers(const std::string& path) {
  PeersProperties result;
  std::ifstream file(path);
  for (std::string line; std::getline(file, line);) {
    const std::string_view text = std::string_view(line).substr(0, line.find('#'));
    const size_t equals = text.find('=');
    if (equals == std::string_view::npos) {
      continue;
    }
    const std::string_view key = stripped(text.substr(0, equals));
    if (!key.empty()) {
      result[std::string(key)] = stripped(text.substr(equals + 1));
    }
  }
  return result;
}

void compareReading(const std::vector<Property>& properties, const std::string& count) {
  const std::string path = std::filesystem::temp_directory_path() / ("properties." + count);
  std::ofstream file(path);
  for (const auto& [key, value] : properties) {
    file << key << " = " << value << "  # a remark\n";
  }
  file.close();
  const FileName name(path.c_str(), EncodedString::utf8);
  Properties ours(&name);
  const PeersProperties peers = readPeers(path);
  bool isSame = ours.numItems() == peers.size() && peers.size() == properties.size();
  for (const auto& [key, value] : peers) {
    isSame = isSame && ours.getString(ourText(key)).view() == value;
  }
  require(isSame, "reading a file");
  compare(
      "properties: read a file of " + count,
      [name] {
        const Properties read(&name);
        benchmark::DoNotOptimize(read.numItems());
      },
      peer, [path] { benchmark::DoNotOptimize(readPeers(path).size()); });
}

}  // namespace

void compareProperties() {
  for (const int count : {100, 2000}) {
    const std::vector<Property> properties = someProperties(count);
    const std::string number = std::to_string(count);
    compareLookups(properties, number);
    compareFilling(properties, number);
    compareReading(properties, number);
  }
}
