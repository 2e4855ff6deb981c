// What the uplink keeps until the broker has confirmed it: segment files of at most 256 KiB in one folder, whose bytes
// spool_segment.h describes.
//
// New records wait in memory for the next sync, which writes them to the last segment, and behind them a mark: where
// the uplink stands in the daemon's events, and up to which number all is acknowledged. So an acknowledgement costs no
// write of its own; after a crash, what was acknowledged since the last mark, or out of order, is there again. A
// segment whose records are all acknowledged is removed after the mark that tells so. Each segment begins with the last
// mark before it, and so names the record that was written before its own: where that one is not found, records are
// lost.
//
// Lost records leave a gap in their place. Where the folder is full, the gap for the oldest segments is part of each
// mark. Where a file is damaged, its segment ends with the gap, and stays until the gap is acknowledged, too: after a
// crash the damage tells of it again.
//
// Whatever happens to the folder (full, read-only, removed), the uplink goes on, with at most 1 MiB in memory, until
// the folder takes records again. The program must ignore SIGXFSZ.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <string>
#include <string_view>

#include "uplink/spool_folder.h"
#include "uplink/spool_segment.h"
#include "uplink/uplink_settings.h"
#include "util/rate_limit.h"

// One thread only. Nothing throws; what goes wrong is in state() and in lines of the log.
class Spool {
 public:
  struct State {
    bool in_memory = false;  // the folder does not take records at present
    uint64_t records = 0;    // that are not acknowledged
    uint64_t bytes = 0;      // of the segment files
    int64_t oldest_s = 0;    // seconds since 1970 of the oldest record that is not acknowledged; 0: none
    uint64_t dropped = 0;    // events, since the program's start; at least, where a gap is of unknown size
    uint64_t written = 0;    // bytes given to the file system since the program's start
    uint64_t syncs = 0;
    std::string error;  // why it is in memory
  };

  // Opens `folder_path`, makes it if need be (mode 0700), and takes up what an earlier run has left. When the folder
  // cannot be opened yet, that is done as soon as it can. `bytes` is the limit of all segments together.
  Spool(std::string folder_path, size_t bytes, UplinkSettings::Full when_full);

  // Adds a record at the end and returns its number; numbers grow and count for this run of the program. 0: it was
  // dropped (Full::drop_newest, or larger than 512 KiB or a quarter of the limit): it is counted, and part of a gap
  // that is added when there is room again. With Full::drop_oldest a gap takes the place of the oldest segments, and of
  // the oldest records where memory is full.
  uint64_t append(const UplinkRecord& record);

  // Returns the first record whose number is at least `number`, and sets `number` to its number; valid until the next
  // call that is not const. Null: there is none. A record may become part of a gap later, which has another number.
  const UplinkRecord* read(uint64_t& number);

  // The broker has confirmed this record. In any order; what is not in the spool is ignored.
  void acknowledge(uint64_t number);

  // Writes to the disk what was appended since the last sync, with where the uplink stands in the daemon's events
  // (`position`, the id of the last event that it has appended or need not append). Call it when sync_due() says so,
  // after urgent records, and at the end. A folder that has failed is tried again after 5 s. Returns is_synced().
  bool sync(std::string_view position);

  // Whether an uplink that is killed now, and starts again behind what it has appended, loses nothing: all is in files
  // or acknowledged. False also while the gap of what was dropped waits for room.
  bool is_synced() const;

  // When the next sync is due, steady_ms(): one second after the first record that is not synced, at once when there
  // are 64 KiB or a segment can be removed, one minute after the first acknowledgement that no mark tells of, and when
  // the folder is to be tried again; 0: nothing is to be synced.
  int64_t sync_due() const;

  // The position in the last mark that this or an earlier run has written, that of the last record before what was
  // dropped while its gap waits for room; empty: none.
  const std::string& position() const { return marked.record.name; }

  // An earlier run has left a last file that is damaged: what was behind position() may be lost.
  bool is_cut() const { return is_end_damaged; }

  // Asks nothing of the disk.
  State state() const;

 private:
  using Items = std::map<uint64_t, SpoolItem>;  // by number

  struct Segment {
    uint64_t serial = 0;            // of its file
    size_t bytes = 0;               // of its file
    uint64_t before = 0;            // number of the record written before its own
    uint64_t first = 0, last = 0;   // numbers of its records; without any, `last` is `before`
    uint64_t since = 0;             // `value` of the first one
    std::string first_id, last_id;  // of the first event and the last one
    size_t open = 0;                // records that are not acknowledged
    bool is_loaded = false;         // then these are they
    Items items;

    void add(const SpoolItem& item);
  };

  uint64_t add(const UplinkRecord& record);
  void keep(SpoolItem item);
  SpoolItem take(Items::iterator at);
  bool make_room(size_t size);
  void add_refused();
  bool take_written(uint64_t number);

  bool open();
  SpoolItem lose_all();
  void take_up();
  bool take_file(uint64_t serial);
  void declare_losses();
  void load(Segment& segment);

  bool flush();
  void drop_oldest();
  bool write_some();
  SpoolItem mark_behind(uint64_t number) const;
  uint64_t first_open() const;
  std::string bytes_of(SpoolItem item) const;
  void remove_acknowledged();
  bool fail();

  const std::string path;
  const size_t limit;
  const UplinkSettings::Full full;
  const size_t segment_max;
  const size_t memory_max;
  SpoolFolder folder;

  uint64_t gap_number = 0;  // before all others,
  UplinkRecord gap;         // for what was dropped; without an id: nothing
  std::deque<Segment> segments;
  Items pending;  // in no file, and behind those that are
  size_t pending_bytes = 0;
  UplinkRecord refused;  // behind all, a gap that waits for room; without an id: none
  std::string kept;      // the position before that

  uint64_t last;                // number of the last record,
  uint64_t last_written;        // and of the last one in the files
  uint64_t shift;               // the numbers in the files are less by this much
  SpoolItem marked;             // the last mark
  uint64_t last_serial = 0;     // of the files
  bool is_writable = false;     // the last segment
  bool is_end_damaged = false;  // of what an earlier run has left
  int64_t pending_at = 0;       // steady_ms() when the first of `pending` came,
  int64_t acknowledged_at = 0;  // of the first acknowledgement that no mark tells of (0: there is none),
  int64_t retry_at = 0;         // and from when on the folder is tried again
  bool in_memory = false;
  std::string error;
  uint64_t dropped = 0, written = 0, syncs = 0;  // as in State
  RateLimit limit_of_lines;
};
