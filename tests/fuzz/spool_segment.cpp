// The spool's segment files: whatever the bytes, the reader ends; each item that it reads is as it was written; and it
// reads all whole items in front of damage, and none behind. Input: bytes that follow some whole items, as many as the
// first byte says modulo 4.
#include "uplink/spool_segment.h"

#include "tests/fuzz/fuzz.h"

void fuzz(size_t choice, std::string bytes) {
  SpoolItem added;
  added.record.id = "R-1";
  added.record.payload = bytes.substr(0, 40);
  std::string file;
  const size_t whole = choice % 4;
  for (added.number = 1; added.number <= whole; ++added.number) write_item(added, file);
  const size_t end = file.size();
  file += bytes;
  const Exact exact(file);
  SpoolItem item;
  size_t items = 0;
  for (size_t at = 0, begin = 0; read_item(exact.view(), at, item); begin = at, ++items) {
    std::string again;
    write_item(item, again);
    HOLDS(at > begin && at <= file.size());
    HOLDS(items >= whole || (item.number == items + 1 && item.record.payload == added.record.payload));
    HOLDS(at > end || again == file.substr(begin, at - begin));
  }
  HOLDS(items >= whole);
  // A single bit that is not as it was.
  if (end == 0) return;
  file[choice % end] = static_cast<char>(file[choice % end] ^ (1 << (choice / 4 % 8)));
  size_t at = 0;
  for (items = 0; read_item(file, at, item); ++items) HOLDS(at <= choice % end || at > end);
}
