// Names that outsiders choose, numbered in order of appearance. Posters and scripts can invent any number of them, so
// only the first ones get a number of their own.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string_view>

// One thread at a time adds; any thread reads. Entries never go away.
class NameTable {
 public:
  static constexpr int kMost = 128;     // names with an entry of their own
  static constexpr int kOther = kMost;  // the entry of all others, named "(other)"
  static constexpr int kEntries = kMost + 1;
  static constexpr size_t kLongest = 127;  // bytes; of a longer name, the first ones count

  // The thread that counts: the number of the entry of `name`, which is added when it is new; kOther when there are
  // `most` entries already.
  int entry_of(std::string_view name, int most = kMost);

  // Entries in use, without kOther. Any thread.
  int size() const { return count.load(std::memory_order_acquire); }

  // The name of an entry below size(), or of kOther. Any thread; valid for good.
  const char* name(int entry) const { return entry == kOther ? "(other)" : names[entry]; }

 private:
  static constexpr size_t kSlots = 256;  // a power of two, above kMost

  char names[kMost][kLongest + 1] = {};
  uint8_t slots[kSlots] = {};  // entry + 1 where a name's hash leads, 0 for none
  std::atomic<int> count{0};
};
