#include "programs/enginetrace/Merge.h"

#include <algorithm>
#include <cstddef>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>

namespace {

// Lines whose text is kept in one place, as a source's is: until it gives the next one.
class Times : public LineSource {
 public:
  explicit Times(std::vector<WallTime> times) : times_(std::move(times)) {}

  bool next(Line& line) override {
    if (next_ == times_.size()) {
      text_ = "over";
      return false;
    }
    text_ = std::to_string(next_);
    line.whole = text_;
    line.time = times_[next_++];
    return true;
  }

 private:
  std::vector<WallTime> times_;
  std::size_t next_ = 0;
  std::string text_;
};

// Of each line its source, its place there and its time.
struct Given {
  std::string source;
  std::string place;
  WallTime time;
  bool operator==(const Given&) const = default;
};

std::ostream& operator<<(std::ostream& out, const Given& given) {
  return out << given.source << given.place << '@' << given.time;
}

std::vector<Given> merged(const std::vector<std::vector<WallTime>>& all) {
  std::vector<std::unique_ptr<Times>> sources;
  std::vector<Process> processes(all.size());
  std::vector<Merge::Source> inputs;
  for (std::size_t i = 0; i < all.size(); ++i) {
    sources.push_back(std::make_unique<Times>(all[i]));
    processes[i].mark = std::string(1, static_cast<char>('a' + i));
    inputs.push_back({sources.back().get(), &processes[i]});
  }
  Merge merge(inputs);
  std::vector<Given> result;
  for (Line line; merge.next(line);) {
    result.push_back({line.process->mark, std::string(line.whole), line.time});
  }
  return result;
}

TEST(Merge, GivesTheLinesOfAllSourcesByTime) {
  EXPECT_THAT(merged({{1, 4, 6}, {2, 3}, {5}}),
              testing::ElementsAre(Given{"a", "0", 1}, Given{"b", "0", 2}, Given{"b", "1", 3},
                                   Given{"a", "1", 4}, Given{"c", "0", 5}, Given{"a", "2", 6}));
}

TEST(Merge, GivesLinesOfOneTimeInTheOrderOfTheSources) {
  EXPECT_THAT(merged({{2, 2}, {1, 2}, {2}}),
              testing::ElementsAre(Given{"b", "0", 1}, Given{"a", "0", 2}, Given{"a", "1", 2},
                                   Given{"b", "1", 2}, Given{"c", "0", 2}));
}

TEST(Merge, LeavesTheOrderOfASourceWhoseTimesRunBackward) {
  EXPECT_THAT(merged({{5, 1, 7}, {3, 6}}),
              testing::ElementsAre(Given{"b", "0", 3}, Given{"a", "0", 5}, Given{"a", "1", 1},
                                   Given{"b", "1", 6}, Given{"a", "2", 7}));
}

TEST(Merge, GivesNothingOfNoSourceOrEmptyOnes) {
  EXPECT_THAT(merged({}), testing::IsEmpty());
  EXPECT_THAT(merged({{}, {}}), testing::IsEmpty());
  EXPECT_THAT(merged({{}, {1}, {}}), testing::ElementsAre(Given{"b", "0", 1}));
}

// Of sources in order a merge is what a stable sort of all their lines is.
TEST(Merge, OfRandomSourcesIsTheirStableSort) {
  std::mt19937 random(1);
  for (int round = 0; round < 300; ++round) {
    std::vector<std::vector<WallTime>> all(random() % 12);
    std::vector<Given> expected;
    for (std::size_t i = 0; i < all.size(); ++i) {
      all[i].resize(random() % 20);
      for (WallTime& time : all[i]) {
        time = static_cast<WallTime>(random() % 30);
      }
      std::sort(all[i].begin(), all[i].end());
      for (std::size_t place = 0; place < all[i].size(); ++place) {
        expected.push_back(
            {std::string(1, static_cast<char>('a' + i)), std::to_string(place), all[i][place]});
      }
    }
    std::stable_sort(expected.begin(), expected.end(),
                     [](const Given& a, const Given& b) { return a.time < b.time; });
    ASSERT_EQ(merged(all), expected);
  }
}

}  // namespace
