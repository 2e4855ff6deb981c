// A set of connected clients, by their positions in the listener's list: a bit each, so that an event that few of a
// thousand clients ask for costs a few words and not a thousand look-ups.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>

#include "listener/client_buffer.h"

// Positions there are: clients that are given up are replaced at once and leave a moment later.
constexpr size_t kLeavingMax = 24;
constexpr size_t kPositionMax = kClientMax + kLeavingMax;

struct ClientSet {
  static constexpr size_t kWordBits = 64;

  // Words that hold the first `count` positions.
  static constexpr size_t words_of(size_t count) { return (count + kWordBits - 1) / kWordBits; }

  // The bits of word `index` that stand for positions below `count`.
  static constexpr uint64_t below(size_t count, size_t index) {
    const size_t rest = count - index * kWordBits;
    return rest >= kWordBits ? ~uint64_t{0} : (uint64_t{1} << rest) - 1;
  }

  void put(size_t position, bool in) {
    uint64_t& word = words[position / kWordBits];
    const uint64_t bit = uint64_t{1} << position % kWordBits;
    word = in ? word | bit : word & ~bit;
  }

  bool empty() const {
    return std::all_of(words.begin(), words.end(), [](uint64_t word) { return word == 0; });
  }

  // The client at `position` leaves the list: those behind move up.
  void remove(size_t position) {
    const size_t first = position / kWordBits;
    const uint64_t kept = (uint64_t{1} << position % kWordBits) - 1;
    for (size_t i = first; i < words.size(); ++i) {
      const uint64_t next = i + 1 < words.size() ? words[i + 1] : 0;
      const uint64_t moved = words[i] >> 1 | next << (kWordBits - 1);
      words[i] = i == first ? (words[i] & kept) | (moved & ~kept) : moved;
    }
  }

  std::array<uint64_t, kPositionMax / kWordBits> words{};
  static_assert(kPositionMax % kWordBits == 0);
};

// Takes the lowest position out of `word`, which is not 0.
inline size_t take_lowest(uint64_t& word) {
  const auto bit = static_cast<size_t>(__builtin_ctzll(word));
  word &= word - 1;
  return bit;
}
