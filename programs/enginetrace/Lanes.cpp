#include "programs/enginetrace/Lanes.h"

#include <algorithm>

std::size_t Lanes::Hash::operator()(const Key& key) const noexcept {
  constexpr std::uint64_t odd = 0x9E37'79B9'7F4A'7C15;
  const std::uint64_t mixed = (key.thread ^ reinterpret_cast<std::uintptr_t>(key.process)) * odd;
  return mixed ^ (mixed >> 32);
}

std::size_t Lanes::numberOf(const Line& line, std::string_view thread) {
  Key key = {line.process, 0};
  thread.copy(reinterpret_cast<char*>(&key.thread), sizeof key.thread);
  Found& recent = recent_[Hash()(key) % recent_.size()];
  if (recent.key == key) {
    return recent.number;
  }
  const auto [found, isNew] = numbers_.try_emplace(key, lanes_.size());
  if (isNew && lanes_.size() == most) {
    numbers_.erase(found);
    return most - 1;
  }
  if (isNew) {
    lanes_.push_back({line.process, std::string(thread), line.time, line.time});
  }
  recent = {key, found->second};
  return recent.number;
}

std::size_t Lanes::add(const Line& line, std::string_view thread) {
  const std::size_t number = numberOf(line, thread);
  Lane& lane = lanes_[number];
  lane.first = std::min(lane.first, line.time);
  lane.last = std::max(lane.last, line.time);
  return number;
}
