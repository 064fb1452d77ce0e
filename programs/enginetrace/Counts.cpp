#include "programs/enginetrace/Counts.h"

#include <algorithm>

namespace {

/// The first eight bytes of a text, or as many as it has.
std::uint64_t firstBytes(std::string_view text) noexcept {
  std::uint64_t value = 0;
  text.copy(reinterpret_cast<char*>(&value), sizeof value);
  return value;
}

/// Spreads the texts of most traces at little cost. A file can be made so that all its texts have
/// the same place here; the table behind does not mind.
std::size_t placeOf(std::string_view text) noexcept {
  constexpr std::uint64_t odd = 0x9E37'79B9'7F4A'7C15;
  const std::string_view last = text.substr(text.size() - std::min<std::size_t>(text.size(), 8));
  return (firstBytes(text) * 3 + firstBytes(last)) * odd >> 56;
}

}  // namespace

void Counts::add(std::string_view text) {
  ++all_;
  text = text.substr(0, longest);
  static_assert(std::tuple_size_v<decltype(recent_)> == 1 << 8, "what placeOf() gives");
  auto*& recent = recent_[placeOf(text)];
  if (recent != nullptr && recent->first == text) {
    ++recent->second;
    return;
  }
  auto found = counts_.find(text);
  if (found == counts_.end()) {
    if (counts_.size() == most) {
      return;
    }
    found = counts_.emplace(text, 0).first;
  }
  recent = &*found;
  ++recent->second;
}

std::vector<Counts::Counted> Counts::biggest(std::size_t number) const {
  std::vector<Counted> result;
  for (const auto& [text, count] : counts_) {
    result.push_back({text, count});
  }
  std::sort(result.begin(), result.end(), [](const Counted& a, const Counted& b) {
    return a.count != b.count ? a.count > b.count : a.text < b.text;
  });
  result.resize(std::min(number, result.size()));
  return result;
}
