// The bytes of the spool's segment files. They are the same on all machines: files of one are read on any other.
//
//   offset 0    "zvspool1", 8 bytes: what the file is, and the version of its format
//   then records, one behind the other:
//     offset 0    length of the body, 4 bytes, little endian
//     offset 4    CRC-32C of the number and the body, 4 bytes, little endian
//     offset 8    number of the record, 8 bytes, little endian
//     offset 16   body: one byte of flags (1: a mark, 2: urgent); the numbers `back`, `value` and `count`; the texts
//                 `id`, `last_id`, `name` and `payload`, each behind its length. Numbers and lengths have seven bits a
//                 byte, the lowest first, and the highest bit in all bytes but the last.
//
// A mark is written at the end of each sync. Its number is the one that the next record gets.
//
// The CRC begins with the file's first 8 bytes: records of another version are not records of this one. Behind damage,
// the next whole record counts. A payload cannot pretend to be one: JSON has no zero bytes, and a length has.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "uplink/spool.h"

constexpr std::string_view kSegmentHead = "zvspool1";
constexpr size_t kSpoolBodyMax = size_t{512} * 1024;

struct SpoolItem {
  uint64_t number = 0;
  uint64_t back = 0;  // the number less that of the record written before: tells when records between are lost
  bool is_mark = false;
  uint64_t value = 0;   // seconds since 1970 when the record was added; of a mark: all numbers up to it are settled
  UplinkRecord record;  // of a mark, only `id` counts: it is the position
};

// Appends the item to `out`. Any thread, as what follows.
void write_item(const SpoolItem& item, std::string& out);

// Reads the first whole item at or behind `at`, and sets `at` to its end. `passed` becomes true when bytes before it
// had to be passed over, and is left alone otherwise. Returns false, with `at` as it was, when there is none.
bool read_item(std::string_view bytes, size_t& at, SpoolItem& out, bool& passed);
