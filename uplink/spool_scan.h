// What an earlier run has left in the spool's files: read once, from the first file to the last.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "uplink/number_ranges.h"
#include "uplink/spool_segment.h"

struct SpoolSegment {
  uint64_t serial = 0;
  size_t bytes = 0;
  uint64_t first = 0, last = 0;   // numbers of its records; 0: it has none
  uint64_t back = 0;              // of the first one
  std::string first_id, last_id;  // what a gap is made of when the file cannot be read
  bool is_gap = false;            // it holds one gap, in the place of older segments

  void take(const SpoolItem& item) {
    is_gap = first == 0 && !item.is_mark && item.record.is_gap();
    if (item.is_mark) return;
    if (first == 0) {
      first = item.number;
      back = item.back;
      first_id = item.record.id;
    }
    last = item.number;
    last_id = item.record.is_gap() ? item.record.last_id : item.record.id;
  }
};

// Numbers are those in the files. Not thread-safe.
struct SpoolScan {
  // Takes in a file, all in the order of their serials. False: it holds no item.
  bool take_file(uint64_t serial, std::string_view bytes);

  // After the last file: finds out what is missing.
  void finish();

  std::vector<SpoolSegment> segments;
  uint64_t next = 1;       // number of the next record
  SpoolItem mark;          // the last one
  uint64_t keeper = 0;     // serial of its file; 0: there is none
  uint64_t torn = 0;       // serial of the last file when bytes follow its last item; else 0
  size_t torn_at = 0;      // where these begin
  uint64_t chain_end = 0;  // the last number that was written
  std::vector<std::pair<uint64_t, uint64_t>> missing;  // numbers below `next` without a record, first and last
  std::vector<SpoolItem> gaps;                         // to be kept: each stands for what was lost between two items

 private:
  // Records, or a mark, of which each was written behind the one before.
  struct Run {
    uint64_t before, first, last;
    std::string first_id, last_id;
    bool has_passed;  // bytes before it are damaged
  };

  void take(const SpoolItem& item, uint64_t serial);
  void declare_loss(const Run& end, const Run& run);
  uint64_t settled() const { return mark.value; }

  std::vector<Run> runs;
  NumberRanges present;
  bool has_passed = false;     // bytes since the last record
  bool has_lost_file = false;  // a file has no item
};
