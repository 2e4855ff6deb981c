#include "device/host/event_record.h"

#include <cstdlib>
#include <ctime>
#include <new>

#include "util/clock.h"
#include "util/mutex.h"

namespace {

constexpr size_t kSmallRecord = 256;  // bytes: an info text of about 70
constexpr int kReturnedAtOnce = 64;   // records that the script thread collects before it takes the lock

struct SpareRecords {
  Mutex mutex;
  RecordList records GUARDED_BY(mutex);
  int count GUARDED_BY(mutex) = 0;

  RecordList returned;  // script thread, like the next one
  int returned_count = 0;
};

SpareRecords g_spares;

// Returns a spare record, or null. A caller's empty list is filled with all spare records of the store first.
EventRecord* take_spare(RecordList* spares) {
  if (spares != nullptr && !spares->empty()) return spares->take();
  const MutexLock lock(g_spares.mutex);
  if (spares != nullptr) {
    spares->append(g_spares.records);
    g_spares.count = 0;
    return spares->take();
  }
  EventRecord* const record = g_spares.records.take();
  if (record != nullptr) --g_spares.count;
  return record;
}

void store_returned() {
  {
    const MutexLock lock(g_spares.mutex);
    if (g_spares.count + g_spares.returned_count <= kSpareRecordsMax) {
      g_spares.records.append(g_spares.returned);
      g_spares.count += g_spares.returned_count;
    }
  }
  g_spares.returned.clear();  // those that the store has no room for
  g_spares.returned_count = 0;
}

}  // namespace

EventStamp stamp_now() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  return {static_cast<int32_t>(now.tv_sec), static_cast<int32_t>(now.tv_nsec / 1000), steady_ns()};
}

EventRecord* make_record(EventSource source, int type, std::string_view name, std::string_view info, EventStamp stamp,
                         RecordList* spares) {
  size_t size = sizeof(EventRecord) + info.size() + 1;
  void* memory = nullptr;
  if (size <= kSmallRecord) {
    size = kSmallRecord;
    memory = take_spare(spares);
  }
  if (memory == nullptr) memory = malloc(size);
  if (memory == nullptr) return nullptr;
  auto* const record = new (memory) EventRecord;  // not set to zero: the name alone would be 128 bytes
  record->type = type;
  record->timestamp[0] = stamp.seconds;
  record->timestamp[1] = stamp.microseconds;
  record->type_name[name.copy(record->type_name, name.size())] = '\0';
  char* const text = reinterpret_cast<char*>(record + 1);
  text[info.copy(text, info.size())] = '\0';
  record->info = text;
  record->came_ns = stamp.steady;
  record->size = size;
  record->source = source;
  return record;
}

void free_record(EventRecord* record) {
  if (record == nullptr || record->size != kSmallRecord) return free(record);
  g_spares.returned.push(record);
  if (++g_spares.returned_count == kReturnedAtOnce) store_returned();
}

void free_spare_records() {
  g_spares.returned.clear();
  g_spares.returned_count = 0;
  const MutexLock lock(g_spares.mutex);
  g_spares.records.clear();
  g_spares.count = 0;
}

void spare_records_before_fork() ZELVIND_LOCK_RULE(no_thread_safety_analysis) {
  g_spares.mutex.lock();
}

void spare_records_after_fork() ZELVIND_LOCK_RULE(no_thread_safety_analysis) {
  g_spares.mutex.unlock();
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

void RecordList::append(RecordList& from) {
  if (from.first == nullptr) return;
  (last != nullptr ? last->next : first) = from.first;
  last = from.last;
  from.first = nullptr;
  from.last = nullptr;
}

void RecordList::clear() {
  while (EventRecord* record = take()) free(record);
}
