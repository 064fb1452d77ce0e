#include "programs/enginetrace/Merge.h"

#include <algorithm>
#include <bit>
#include <limits>

namespace {

// Behind the last line of a source.
constexpr WallTime never = std::numeric_limits<WallTime>::max();

}  // namespace

Merge::Merge(const std::vector<Source>& sources) {
  for (const Source& source : sources) {
    inputs_.push_back({source, {}});
  }
  times_.assign(std::bit_ceil(std::max<std::size_t>(sources.size(), 2)), never);
  winners_.assign(times_.size(), 0);
  for (std::size_t rank = 0; rank < sources.size(); ++rank) {
    read(rank);
  }
  for (std::size_t rank = 0; rank < times_.size(); rank += 2) {
    play(rank);
  }
}

void Merge::read(std::size_t rank) {
  Input& input = inputs_[rank];
  const bool isThere = input.source.lines->next(input.line);
  input.line.process = input.source.process;
  times_[rank] = isThere ? input.line.time : never;
}

// Plays the games of a source: who wins has the earlier time, or else the lower rank, which is
// always on the left. No branch depends on who wins: nobody could foresee it.
void Merge::play(std::size_t rank) noexcept {
  std::size_t place = (times_.size() + rank) / 2;
  auto left = static_cast<std::uint32_t>(rank & ~std::size_t{1});
  std::uint32_t right = left + 1;
  for (;;) {
    winners_[place] = times_[right] < times_[left] ? right : left;
    if (place == 1) {
      return;
    }
    left = winners_[place & ~std::size_t{1}];
    right = winners_[place | 1];
    place /= 2;
  }
}

bool Merge::next(Line& line) {
  if (hasGiven_) {
    // Only now: the line that was given last has been used.
    const std::size_t rank = winners_[1];
    read(rank);
    play(rank);
  }
  hasGiven_ = times_[winners_[1]] != never;
  if (hasGiven_) {
    line = inputs_[winners_[1]].line;
  }
  return hasGiven_;
}
