#include "device/host/event_record.h"

#include <cstdlib>
#include <new>

EventRecord* make_record(int type, std::string_view name, std::string_view info, int32_t seconds,
                         int32_t microseconds) {
  const size_t size = sizeof(EventRecord) + info.size() + 1;
  void* memory = malloc(size);
  if (memory == nullptr) return nullptr;
  EventRecord* record = new (memory) EventRecord{};
  record->type = type;
  record->timestamp[0] = seconds;
  record->timestamp[1] = microseconds;
  name.copy(record->type_name, name.size());
  char* text = reinterpret_cast<char*>(record + 1);
  info.copy(text, info.size());
  text[info.size()] = '\0';
  record->info = text;
  record->size = size;
  return record;
}

void free_record(EventRecord* record) {
  free(record);
}

void RecordList::push(EventRecord* record) {
  record->next = nullptr;
  (last != nullptr ? last->next : first) = record;
  last = record;
}

EventRecord* RecordList::take() {
  EventRecord* record = first;
  if (record == nullptr) return nullptr;
  first = record->next;
  if (first == nullptr) last = nullptr;
  return record;
}

void RecordList::take_all(RecordList& from) {
  first = from.first;
  last = from.last;
  from.first = nullptr;
  from.last = nullptr;
}

void RecordList::clear() {
  while (EventRecord* record = take()) free_record(record);
}
