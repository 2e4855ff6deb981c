// The records in the spool's folder, the oldest first: segment files, and what takes the place of those that are lost.
//
// Numbers of events are multiples of kSpoolStep. A gap gets a number behind the last record that it stands for, since
// that one may be in flight. In the files all numbers are less by `shift`: records that an earlier run has left may be
// read when others have their numbers already, and come before them.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "uplink/spool_folder.h"
#include "uplink/spool_segment.h"

constexpr uint64_t kSpoolStep = 256;
constexpr uint64_t kSpoolOrigin = uint64_t{1} << 40;  // numbers of this run are above
constexpr size_t kMarkMax = 256;                      // bytes

using SpoolItems = std::map<uint64_t, SpoolItem>;  // by number

// The id up to which it goes.
inline const std::string& last_id_of(const UplinkRecord& record) {
  return record.is_gap() ? record.last_id : record.id;
}

// Makes `gap` stand for `record` too, which follows it. Without an id, it stands for nothing yet. Returns how many
// events become part of a gap.
uint64_t extend(UplinkRecord& gap, const UplinkRecord& record);

// Not thread-safe. What fails sets errno.
class SpoolQueue {
 public:
  struct Counts {
    uint64_t bytes = 0;             // of the files
    uint64_t written = 0;           // bytes,
    uint64_t syncs = 0;             // and
    uint64_t dropped = 0;           // events, since the program's start
    uint64_t records = 0;           // that are not acknowledged,
    std::optional<uint64_t> since;  // and when the oldest of them came
  };

  SpoolQueue(std::string folder_path, size_t segment_bytes)
      : folder(std::move(folder_path)), segment_max(segment_bytes) {}

  // Opens the folder, or looks whether it is still there. The first time it takes up what an earlier run has left. When
  // the folder was removed, all is lost: `lost` is then a gap. ENOTEMPTY: it was replaced by one that holds segments.
  bool open(SpoolItem& lost);

  // As those of Spool.
  bool read(uint64_t& number, UplinkRecord& out);
  bool acknowledge(uint64_t number);  // false: it is not here
  const std::string& position() const { return written_position; }
  bool is_cut() const { return is_end_damaged; }
  Counts counts() const;

  // Writes the items behind all others, with the position behind the last of them, and takes them from `items`, all or
  // some. Does so also when there are none. `last`: all numbers up to this one that are not here are acknowledged.
  bool write(SpoolItems& items, const std::string& position, uint64_t last);

  // Puts a gap in the place of so many of the oldest segments as hold `needed` bytes, but not of the last one.
  bool drop(size_t needed);

 private:
  struct Segment {
    struct Open {
      uint64_t number, since;  // as in SpoolItem
    };
    uint64_t serial = 0;              // of its file; 0: a gap, which the damage of the files before it tells of
    size_t bytes = 0;                 // of its file
    uint64_t last = 0;                // number of its last record
    std::vector<Open> open;           // its records that are not acknowledged
    std::string first_id, last_id;    // of all of its records
    std::optional<UplinkRecord> gap;  // is its only record, whatever its file holds

    void add(const SpoolItem& item);
    std::vector<Open>::iterator find(uint64_t number);  // the first one that is at least `number`
  };

  void take_up();
  bool take_file(uint64_t serial, SpoolItem& before, SpoolItem& mark);
  void put_loss(const SpoolItem& before, const SpoolItem& mark, std::string_view bytes, size_t at);

  const UplinkRecord* find(const Segment& segment, uint64_t number);
  void load(const Segment& segment);
  void lose(Segment& segment);
  SpoolItem fold(size_t count, uint64_t& events);
  void remove_front(bool with_file);
  void remove_acknowledged();
  bool are_witnesses(size_t end) const;

  bool write_batch(SpoolItems& items, const std::string& position, uint64_t next_open);
  bool write_gap(Segment& segment);
  std::string bytes_of(SpoolItem item) const;
  std::string mark(uint64_t number, const std::string& position, uint64_t next_open) const;
  void count_written(Segment& segment, size_t bytes);

  SpoolFolder folder;
  const size_t segment_max;
  std::deque<Segment> segments;
  uint64_t shift = 0;
  uint64_t last_written = kSpoolOrigin;  // number
  uint64_t last_serial = 0;
  bool is_taken_up = false;
  bool is_end_damaged = false;
  bool is_writable = false;    // the last segment
  uint64_t loaded_serial = 0;  // of the segment with
  std::map<uint64_t, UplinkRecord> loaded;
  std::string written_position;
  Counts totals;
};
