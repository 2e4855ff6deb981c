// One queued event: the record that event_dequeue hands out, a link, and the info text, all in one allocation.
//
// Small records are all of one size and are used again, so that an event costs no malloc and no free while events come.
// At most kSpareRecordsMax spare ones are in the store, and as many with the reader of the posters;
// free_spare_records() frees those of the store.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "device/event_queue.h"

constexpr int kSpareRecordsMax = 4096;

enum class EventSource : uint8_t { process, posters };  // the process itself, or other processes

struct EventRecord : event_item {
  EventRecord* next;
  int64_t came_ns;  // steady_ns() when it came in
  size_t size;      // bytes of the whole allocation
  EventSource source;
};

struct EventStamp {
  int32_t seconds;  // of the wall clock
  int32_t microseconds;
  int64_t steady;  // steady_ns()
};
EventStamp stamp_now();  // any thread

// Records in the order in which they were added. Owns them until they are taken, but frees them in clear() alone: the
// queue's lists exist until the process is gone. Not shared between threads.
class RecordList {
 public:
  RecordList() = default;
  ~RecordList() = default;
  RecordList(const RecordList&) = delete;
  RecordList& operator=(const RecordList&) = delete;

  bool empty() const { return first == nullptr; }
  int64_t came_ns() const { return first->came_ns; }  // of the first; there must be one
  void push(EventRecord* record);
  EventRecord* take();            // the first; null when empty
  void append(RecordList& from);  // moves all of `from` to the end, in one go
  void clear();                   // frees them

 private:
  EventRecord* first = nullptr;
  EventRecord* last = nullptr;
};

// Returns a new record with copies of `name` (at most 127 bytes) and `info`, owned by the caller; null when memory is
// short. Any thread. A caller that makes many passes a list of `spares` and keeps it for the next time.
EventRecord* make_record(EventSource source, int type, std::string_view name, std::string_view info, EventStamp stamp,
                         RecordList* spares = nullptr);

// Takes a record back to use it again; ignores null. Script thread.
void free_record(EventRecord* record);

// Frees the records that wait to be used again. Script thread.
void free_spare_records();

// Hold the store's lock from before a fork until after it, in parent and child, so that the child can make records.
void spare_records_before_fork();
void spare_records_after_fork();
