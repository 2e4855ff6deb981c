// The spool's segment files: whatever the bytes, the reader ends, what it reads is written as it was found, and a
// record that is whole is found behind any bytes. Input: the file; from 128 on the first byte puts a whole record
// behind it, and damages that when the byte is odd.
#include "uplink/spool_segment.h"

#include "tests/fuzz/fuzz.h"

void fuzz(size_t choice, std::string bytes) {
  SpoolItem added;
  added.number = bytes.size() + 1;
  added.back = 1;
  added.record.id = "R-1";
  added.record.payload = bytes.substr(0, 40);
  const size_t before = bytes.size();
  if (choice >= 128) write_item(added, bytes);
  if (choice >= 128 && choice % 2 == 1) bytes[before + choice % (bytes.size() - before)] ^= 0x10;
  const Exact exact(bytes);
  SpoolItem item;
  bool is_found = false;
  bool has_passed = false;
  for (size_t at = 0, begin = 0; read_item(exact.view(), at, item, has_passed); begin = at) {
    std::string again;
    write_item(item, again);
    HOLDS(at > begin && at <= bytes.size());
    if (bytes.compare(at - std::min(at, again.size()), again.size(), again) == 0) is_found = at == bytes.size();
  }
  if (choice >= 128 && choice % 2 == 0) HOLDS(is_found);
}
