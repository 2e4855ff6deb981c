// The bytes of the spool's segment files. They are the same on all machines: files of one are read on any other.
//
//   "zvspool2", 8 bytes: what the file is, and the version of its format; then items, one behind the other:
//     4 bytes    length of the body, little endian, as the next two
//     4 bytes    CRC-32C of the file's first 8 bytes, the number and the body
//     8 bytes    number
//     body       one byte (0: a record, 1: a mark), then `since` and `count`, then the texts `id`, `last_id`, `name`
//     and
//                `payload`, each behind its length. Numbers and lengths have seven bits a byte, the lowest first, and
//                the highest bit in all bytes but the last.
//
// A segment begins with a mark, and each sync ends with one.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "uplink/spool.h"

constexpr std::string_view kSegmentHead = "zvspool2";
constexpr size_t kSpoolBodyMax = size_t{512} * 1024;

struct SpoolItem {
  uint64_t number = 0;  // of a mark: that of the record written before it
  bool is_mark = false;
  uint64_t since = 0;   // seconds since 1970 when the record was added
  UplinkRecord record;  // of a mark: `id` is the position, and all numbers up to `count` are acknowledged
};

// Appends the item to `out`. Any thread, as what follows.
void write_item(const SpoolItem& item, std::string& out);

// Reads the item at `at`, and sets `at` to its end. Returns false, with `at` as it was, when no whole one is there.
bool read_item(std::string_view bytes, size_t& at, SpoolItem& out);
