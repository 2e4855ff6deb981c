// A set of numbers, as ranges: small while its numbers are close together.
#pragma once

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <map>

// Not thread-safe.
class NumberRanges {
 public:
  // Adds the numbers from `first` to `last`, both included; `last` is below the highest number that there is. Does
  // nothing when `last` is below `first`.
  void add(uint64_t first, uint64_t last) {
    if (last < first) return;
    auto at = ranges.upper_bound(first);
    if (at != ranges.begin() && std::prev(at)->second + 1 >= first) --at;
    while (at != ranges.end() && at->first <= last + 1) {
      first = std::min(first, at->first);
      last = std::max(last, at->second);
      numbers -= at->second - at->first + 1;
      at = ranges.erase(at);
    }
    numbers += last - first + 1;
    ranges.emplace(first, last);
  }

  void remove(uint64_t number) {
    if (!contains(number)) return;
    const auto at = std::prev(ranges.upper_bound(number));
    const auto [first, last] = *at;
    ranges.erase(at);
    if (first < number) ranges.emplace(first, number - 1);
    if (number < last) ranges.emplace(number + 1, last);
    --numbers;
  }

  // The first number that is at least `number` and not in the set.
  uint64_t next_missing(uint64_t number) const {
    const auto behind = ranges.upper_bound(number);
    if (behind == ranges.begin()) return number;
    return std::max(number, std::prev(behind)->second + 1);
  }

  bool contains(uint64_t number) const { return next_missing(number) != number; }

  // The first number that is at least `number` and in the set, or `none`.
  uint64_t next_contained(uint64_t number, uint64_t none) const {
    if (contains(number)) return number;
    const auto behind = ranges.upper_bound(number);
    return behind != ranges.end() ? behind->first : none;
  }

  // How many numbers it has.
  uint64_t size() const { return numbers; }

 private:
  std::map<uint64_t, uint64_t> ranges;  // the first number of each to its last; they do not touch
  uint64_t numbers = 0;
};
