// One queued event: the record that event_dequeue hands out, a link, and the info text, all in one allocation.
//
// Small records are all of one size and are used again, so that an event costs no malloc and no free while events come.
// At most kSpareRecordsMax wait in the store, and as many with the reader; free_spare_records() gives their memory
// back.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "device/event_queue.h"

constexpr int kSpareRecordsMax = 4096;

enum class EventSource : uint8_t { process, posters };  // the process itself, or other processes

struct EventRecord : event_item {
  EventRecord* next;
  size_t size;  // bytes of the whole allocation
  EventSource source;
};

struct EventStamp {
  int32_t seconds;  // of the wall clock
  int32_t microseconds;
};
EventStamp stamp_now();  // any thread

// Records in the order in which they were added; owns them until they are taken. Not shared between threads.
class RecordList {
 public:
  RecordList() = default;
  RecordList(const RecordList&) = delete;
  RecordList& operator=(const RecordList&) = delete;

  bool empty() const { return first == nullptr; }
  void push(EventRecord* record);
  EventRecord* take();            // the first; null when empty
  void append(RecordList& from);  // moves all of `from` to the end, in one go
  void clear();                   // frees them

 private:
  EventRecord* first = nullptr;
  EventRecord* last = nullptr;
};

// A new record with copies of `name` (at most 127 bytes) and `info`. It is the caller's until free_record; null when
// memory is short. Any thread. A caller that makes many passes a list of `spares`, which it keeps for the next time.
EventRecord* make_record(EventSource source, int type, std::string_view name, std::string_view info, EventStamp stamp,
                         RecordList* spares = nullptr);

// Takes a record back, to use it again; null is ignored. Script thread.
void free_record(EventRecord* record);

// Frees the records that wait to be used again. Script thread.
void free_spare_records();

// Around a fork, so that the child can make records: hold the store's lock from before it until after it, on both
// sides.
void spare_records_before_fork();
void spare_records_after_fork();
