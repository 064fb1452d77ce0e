#include "Engine/internal/ListSort.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <numeric>
#include <vector>

#include "Engine/internal/HoldRequests.h"

namespace {

// Up to here passes are as quick as merging.
constexpr unsigned fewElements = 16;

struct Elements {
  [[nodiscard]] unsigned char* at(unsigned index) const noexcept { return first + index * size; }
  [[nodiscard]] bool isGreater(unsigned left, unsigned right) const {
    return compare(at(left), at(right)) > 0;
  }

  int (*compare)(const void*, const void*);
  unsigned char* first;
  unsigned count;
  std::size_t size;
};

bool sortByPasses(const Elements& elements, void* scratch) {
  const std::size_t size = elements.size;
  unsigned char* const first = elements.first;
  unsigned char* const end = elements.at(elements.count);
  const unsigned char* const last = end - size;
  // An order is reached in fewer passes than there are elements. A comparison that is none
  // may take more, or come round to where the elements stood before and never end.
  std::vector<unsigned char> earlier;
  unsigned long nextLook = elements.count;
  for (unsigned long pass = 1;; ++pass) {
    bool swapped = false;
    for (unsigned char* left = first; left != last; left += size) {
      unsigned char* const right = left + size;
      if (elements.compare(left, right) > 0) {
        std::memcpy(scratch, left, size);
        std::memcpy(left, right, size);
        std::memcpy(right, scratch, size);
        swapped = true;
      }
    }
    if (!swapped) {
      return pass == 1;
    }
    if (!earlier.empty() && std::equal(earlier.begin(), earlier.end(), first)) {
      return false;
    }
    // At ever longer distances, so that a round of any length is noticed.
    if (pass == nextLook) {
      earlier.assign(first, end);
      nextLook *= 2;
    }
  }
}

bool areInOrder(const Elements& elements) {
  for (unsigned i = 1; i < elements.count; ++i) {
    if (elements.isGreater(i - 1, i)) {
      return false;
    }
  }
  return true;
}

// Merges indices of elements, which stay where they are.
class Merge {
 public:
  // `spare` has room for half as many indices.
  Merge(const Elements& elements, unsigned* spare) : elements_(elements), spare_(spare) {}

  void sort(unsigned* first, unsigned* end) {
    if (end - first <= shortRun) {
      insert(first, end);
      return;
    }
    unsigned* const middle = first + (end - first) / 2;
    sort(first, middle);
    sort(middle, end);
    if (elements_.isGreater(middle[-1], *middle)) {
      merge(first, middle, end);
    }
  }

 private:
  static constexpr int shortRun = 8;

  void insert(unsigned* first, const unsigned* end) {
    for (unsigned* next = first + 1; next < end; ++next) {
      const unsigned index = *next;
      unsigned* place = next;
      for (; place != first && elements_.isGreater(place[-1], index); --place) {
        *place = place[-1];
      }
      *place = index;
    }
  }

  void merge(unsigned* first, unsigned* middle, const unsigned* end) {
    const unsigned* left = spare_;
    const unsigned* const leftEnd = std::copy(first, middle, spare_);
    const unsigned* right = middle;
    unsigned* out = first;
    while (left != leftEnd && right != end) {
      *out++ = elements_.isGreater(*left, *right) ? *right++ : *left++;
    }
    std::copy(left, leftEnd, out);
  }

  const Elements& elements_;
  unsigned* const spare_;
};

// Whether passes end with this order, if what is greater than the greater is greater: nothing is
// greater than the next one, and where two elements have changed places the one that stood in
// front is greater. Of elements that rise from one to the next the second part goes without
// saying, and neighbours that do not rise never change places in a merge. So what is looked at
// are groups of elements that do not rise, which stand as they stood, each beside its neighbour.
// Also true when passes would not end at all, because of two neighbours each is greater than the
// other: then this order is as good as any.
bool isWhatPassesMake(const Elements& elements, const unsigned* order) {
  // Of two elements that have changed places. All pairs of neighbouring groups are quadratic, and
  // none goes without saying.
  constexpr std::uint64_t checksInAnyCase = std::uint64_t{1} << 22;
  constexpr std::uint64_t checksPerElement = 16;
  std::uint64_t checks = std::max(checksInAnyCase, checksPerElement * elements.count);
  unsigned previous = 0;  // Where the last group but one begins,
  unsigned group = 0;     // and the last one.
  for (unsigned i = 1; i < elements.count; ++i) {
    const unsigned index = order[i];
    const bool falls = elements.isGreater(order[i - 1], index);
    const bool rises = elements.isGreater(index, order[i - 1]);
    if (falls) {
      return rises;
    }
    // The first of a group is to be greater than all of the group in front, and all of a group
    // greater than the first of that: groups further away then are less without saying, too.
    if (rises) {
      previous = group;
      group = i;
      for (unsigned other = previous; other != group - 1; ++other) {
        if (!elements.isGreater(index, order[other])) {
          return false;
        }
      }
      continue;
    }
    if (previous != group && !elements.isGreater(index, order[previous])) {
      return false;
    }
    for (unsigned end = group; end != previous && index < order[end - 1] && checks != 0;
         --end, --checks) {
      if (!elements.isGreater(index, order[end - 1])) {
        return false;
      }
    }
  }
  return true;
}

// Puts each element in its place. Cannot be left half-way, when one of them is in `scratch` only.
void arrange(const Elements& elements, unsigned* order, void* scratch) noexcept {
  const HoldRequests hold;
  const std::size_t size = elements.size;
  for (unsigned first = 0; first < elements.count; ++first) {
    if (order[first] == first) {
      continue;
    }
    std::memcpy(scratch, elements.at(first), size);
    unsigned place = first;
    for (unsigned source = order[place]; source != first; source = order[place]) {
      std::memcpy(elements.at(place), elements.at(source), size);
      order[place] = place;
      place = source;
    }
    std::memcpy(elements.at(place), scratch, size);
    order[place] = place;
  }
}

}  // namespace

bool sortElements(int (*compare)(const void*, const void*), void* elements, unsigned count,
                  std::size_t size, void* scratch) {
  if (count < 2) {
    return true;
  }
  const Elements all = {compare, static_cast<unsigned char*>(elements), count, size};
  if (count <= fewElements) {
    return sortByPasses(all, scratch);
  }
  if (areInOrder(all)) {
    return true;
  }
  // Not by operator new, whose handler ends the process when memory is out.
  const std::unique_ptr<unsigned, decltype(&std::free)> memory(
      static_cast<unsigned*>(std::malloc((std::size_t{count} + count / 2) * sizeof(unsigned))),
      &std::free);
  unsigned* const order = memory.get();
  if (order == nullptr) {
    return sortByPasses(all, scratch);
  }
  unsigned* const end = order + count;
  std::iota(order, end, 0U);
  Merge(all, end).sort(order, end);
  if (!isWhatPassesMake(all, order)) {
    return sortByPasses(all, scratch);
  }
  arrange(all, order, scratch);
  return false;
}
