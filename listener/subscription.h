// What one client of the listener asks for: its type string, and for the type names of recent events the answer that
// the string gives. Searching it for every event would let a few clients with long strings hold up all the others.
//
// No lock of its own: under the listener's lock.
#pragma once

#include <cstdint>
#include <memory>

class Subscription {
 public:
  // Exchanges the type string, null for none, with `text`. Forgets all answers.
  void swap(std::unique_ptr<char[]>& text);

  // Whether the client asks for events of `type_name`, whose bit in the listener's TypeTable is `bit`.
  bool asks_for(const char* type_name, uint64_t bit) {
    if ((known & bit) == 0) look(type_name, bit);
    return (matching & bit) != 0;
  }

  // The bit is another name's from now on.
  void forget(uint64_t bit) { known &= ~bit; }

 private:
  void look(const char* type_name, uint64_t bit);

  uint64_t known = 0;     // bits of the names that have been looked for,
  uint64_t matching = 0;  // and whether they are asked for
  std::unique_ptr<char[]> type_string;
};
