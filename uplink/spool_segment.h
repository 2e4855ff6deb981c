// The bytes of the spool's segment files. They are the same on all machines: files of one are read on any other.
//
//   "zvspool2", 8 bytes: what the file is, and the version of its format; then items, one behind the other:
//     4 bytes    length of the body, little endian, as the next two
//     4 bytes    CRC-32C of the file's first 8 bytes, the number and the body
//     8 bytes    number
//     body       one byte (0: a record, 1: a mark), then `value` and `count`, then the texts `id`, `last_id`, `name`
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

constexpr std::string_view kSegmentHead = "zvspool2";
constexpr size_t kSpoolBodyMax = size_t{512} * 1024;

// What is published: an event, or a gap that stands for events that are lost.
struct UplinkRecord {
  std::string id;       // "RUN-SEQUENCE" of the event; of a gap, of its first event
  std::string last_id;  // of a gap, its last event; empty: this is an event
  uint64_t count = 1;   // events that it stands for; 0: a gap of unknown size
  std::string name;     // of the event's type
  std::string payload;  // JSON; of a gap empty: whoever publishes makes it
  bool urgent = false;  // not kept in files

  bool is_gap() const { return !last_id.empty(); }
  const std::string& end_id() const { return is_gap() ? last_id : id; }
};

struct SpoolItem {
  uint64_t number = 0;  // grows from record to record; of a mark, that of the record written before it
  bool is_mark = false;
  uint64_t value =
      0;  // seconds since 1970 when the record was added; of a mark: all up to this number are acknowledged
  UplinkRecord record;  // of a mark: the gap behind those, without an id if there is none; its `name` is the position
};

// Appends the item to `out`. Any thread, as what follows.
void write_item(const SpoolItem& item, std::string& out);

// Reads the item at `at`, and sets `at` to its end. Returns false, with `at` as it was, when no whole one is there.
bool read_item(std::string_view bytes, size_t& at, SpoolItem& out);
