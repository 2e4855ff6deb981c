// One queued event: the record that event_dequeue hands out, a link, and the info text, all in one allocation.
#pragma once

#include <cstddef>
#include <string_view>

#include "device/event_queue.h"

struct EventRecord : event_item {
  EventRecord* next;
  size_t size;  // bytes of the whole allocation
};

// A new record with copies of `name` (at most 127 bytes) and `info`, stamped with `seconds` and `microseconds`. The
// caller's until free_record; null when memory is short. Any thread.
EventRecord* make_record(int type, std::string_view name, std::string_view info, int32_t seconds, int32_t microseconds);
void free_record(EventRecord* record);

// Records in the order in which they came; owns them until they are taken. Not shared between threads.
class RecordList {
 public:
  RecordList() = default;
  RecordList(const RecordList&) = delete;
  RecordList& operator=(const RecordList&) = delete;

  bool empty() const { return first == nullptr; }
  void push(EventRecord* record);
  EventRecord* take();              // null when empty
  void take_all(RecordList& from);  // this list must be empty
  void clear();

 private:
  EventRecord* first = nullptr;
  EventRecord* last = nullptr;
};
