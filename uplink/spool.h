// What the uplink keeps until the broker has confirmed it: segment files of at most 256 KiB in one folder.
// spool_segment.h describes their bytes. A segment is removed when all of its records are acknowledged, and all before
// them. Acknowledgements cost no write of their own: each sync writes how far they have come. After a crash, what was
// acknowledged since then, or out of order, is there again.
//
// Whatever happens to the folder (full, read-only, removed), the uplink goes on: the spool then cuts its file back to
// the last whole record and keeps at most 1 MiB in memory until the folder takes records again. Records that are lost,
// by damage too, leave a gap in their place. The program must ignore SIGXFSZ.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "uplink/uplink_settings.h"

// What is published: an event, or a gap that stands for events that are lost.
struct UplinkRecord {
  std::string id;       // "RUN-SEQUENCE" of the event; of a gap, of its first event
  std::string last_id;  // of a gap, its last event; empty: this is an event
  uint64_t count = 1;   // events that it stands for; 0: a gap of unknown size
  std::string name;     // of the event's type
  std::string payload;  // JSON; of a gap empty: whoever publishes makes it
  bool urgent = false;  // not kept in files

  bool is_gap() const { return !last_id.empty(); }
};

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

  // Opens `folder`, makes it if need be (mode 0700), and takes up what an earlier run has left. When the folder cannot
  // be opened yet, that is done as soon as it can. `bytes` is the limit of all segments together.
  Spool(std::string folder, size_t bytes, UplinkSettings::Full full);
  ~Spool();
  Spool(const Spool&) = delete;
  Spool& operator=(const Spool&) = delete;

  // Adds a record at the end and returns its number; numbers grow and count for this run of the program. 0: it was
  // dropped (Full::drop_newest, or larger than 512 KiB or a quarter of the limit): it is counted, and part of a gap
  // that is added when there is room again. With Full::drop_oldest a gap takes the place of the oldest segment, and of
  // the oldest record where memory is full.
  uint64_t append(const UplinkRecord& record);

  // Gives the first record whose number is at least `number`, and sets `number` to its number. False: there is none.
  // A record that was read may later be part of a gap with a higher number.
  bool read(uint64_t& number, UplinkRecord& out);

  // The broker has confirmed this record. In any order; what is not in the spool is ignored.
  void acknowledge(uint64_t number);

  // Writes to the disk what was appended since the last sync, with where the uplink stands in the daemon's events
  // (`position`, the id of the last event that it has taken over). Call it when sync_due() says so, after urgent
  // records, and at the end. False when the folder does not take it (it is not tried again for 5 s), and while the gap
  // of what was dropped waits for room: then the position stays, and after a restart the daemon is asked for it again.
  bool sync(std::string_view position);

  // When the next sync is due, steady_ms(): one second after the first record that is not synced, at once when there
  // are 64 KiB, one minute after the first acknowledgement that is not synced, and when the folder is to be tried
  // again; 0: nothing is to be synced.
  int64_t sync_due() const;

  // The position that the last successful sync of this or an earlier run has written; empty: none.
  const std::string& position() const;

  // An earlier run has left a last file that is damaged: what was behind position() may be lost.
  bool is_cut() const;

  State state() const;

 private:
  struct Data;
  Data* const data;
};
