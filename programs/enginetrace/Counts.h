#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

/// \file
/// Tables of texts that many lines have in common.

/// Lets a std::string_view be looked up in a table of strings, without a copy.
struct TextHash {
  using is_transparent = void;
  std::size_t operator()(std::string_view text) const noexcept {
    return std::hash<std::string_view>()(text);
  }
};

template <class Value>
using TextTable = std::unordered_map<std::string, Value, TextHash, std::equal_to<>>;

/// Counts texts.
class Counts {
 public:
  /// What comes when there are so many different ones is counted as one, so that memory is bounded.
  static constexpr std::size_t most = 10'000;
  /// Of longer texts the first bytes count.
  static constexpr std::size_t longest = 200;

  void add(std::string_view text);

  [[nodiscard]] std::uint64_t all() const noexcept { return all_; }

  /// How many texts are different; `most` can be more.
  [[nodiscard]] std::size_t different() const noexcept { return counts_.size(); }

  struct Counted {
    std::string_view text;
    std::uint64_t count;
  };

  /// The texts that were counted most often, these first; texts of one count by the alphabet.
  [[nodiscard]] std::vector<Counted> biggest(std::size_t number) const;

 private:
  TextTable<std::uint64_t> counts_;
  std::uint64_t all_ = 0;
  /// Where texts were found: there are few different ones, and each comes again soon.
  std::array<TextTable<std::uint64_t>::value_type*, 256> recent_ = {};
};
