#include "control/name_table.h"

#include <cstring>
#include <functional>

int NameTable::entry_of(std::string_view name, int most) {
  name = name.substr(0, kLongest);
  if (name == this->name(kOther)) return kOther;  // a reader must not find two of one name
  size_t slot = std::hash<std::string_view>()(name) % kSlots;
  for (; slots[slot] != 0; slot = (slot + 1) % kSlots) {
    if (names[slots[slot] - 1] == name) return slots[slot] - 1;
  }
  const int entry = count.load(std::memory_order_relaxed);
  if (entry >= most) return kOther;
  memcpy(names[entry], name.data(), name.size());
  slots[slot] = static_cast<uint8_t>(entry + 1);
  count.store(entry + 1, std::memory_order_release);
  return entry;
}
