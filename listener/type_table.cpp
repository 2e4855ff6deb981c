#include "listener/type_table.h"

namespace {

uint64_t hash_of(const char* name) {
  uint64_t hash = 14695981039346656037u;
  for (; *name != '\0'; ++name) hash = (hash ^ static_cast<unsigned char>(*name)) * 1099511628211u;
  return hash;
}

}  // namespace

TypeTable::Entry TypeTable::find(const char* name) {
  if (names[last] == name) return {uint64_t{1} << last, false};
  const uint64_t hash = hash_of(name);
  for (size_t i = 0; i < kNames; ++i) {
    if (hashes[i] != hash || names[i] != name) continue;
    last = i;
    return {uint64_t{1} << i, false};
  }
  names[next] = name;
  hashes[next] = hash;
  last = next;
  next = (next + 1) % kNames;
  return {uint64_t{1} << last, true};
}
