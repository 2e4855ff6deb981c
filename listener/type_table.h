// The type names of recent events, each with a bit of its own, under which every client remembers whether it asks for
// that name (listener/subscription.h).
//
// No lock of its own: under the listener's lock.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

class TypeTable {
 public:
  static constexpr size_t kNames = 64;

  struct Entry {
    uint64_t bit;
    bool fresh;  // the bit was another name's until now: what is remembered under it does not count
  };

  // The entry of `name`, which takes the place of the longest-standing one when it is new.
  Entry find(const char* name);

 private:
  std::array<uint64_t, kNames> hashes{};
  std::array<std::string, kNames> names;
  size_t last = 0;  // found last: events come in rows of one type
  size_t next = 0;  // the place to be given away next
};
