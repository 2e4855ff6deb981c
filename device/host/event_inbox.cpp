#include "device/host/event_inbox.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "util/clock.h"

namespace {

// For a counter with one writer at a time: no atomic addition.
template <typename Number>
void increase(std::atomic<Number>& counter, Number count, std::memory_order order) {
  counter.store(counter.load(std::memory_order_relaxed) + count, order);
}

}  // namespace

bool EventInbox::open() {
  Descriptor made = wake_up_descriptor();
  if (made.get() < 0) return false;
  const MutexLock lock(mutex);
  wake_up = std::move(made);
  is_open = true;
  is_woken = false;
  woke_up();
  refused_taken = refused;
  return true;
}

void EventInbox::close() {
  const MutexLock lock(mutex);
  is_open = false;
  wake_up.reset();
  arrived.clear();
  taken.clear();
  oldest_taken_ns = 0;
  for (Tally& tally : tallies) {
    tally.taken_events.store(tally.added_events);
    tally.taken_bytes.store(tally.added_bytes);
  }
}

int EventInbox::post(int type, std::string_view name, std::string_view info) {
  EventRecord* const record = make_record(EventSource::process, type, name, info, stamp_now());
  const Tally& mine = posted(EventSource::process);
  const MutexLock lock(mutex);
  const bool has_room =
      record != nullptr && mine.waiting() < kInboxEventsMax && mine.bytes_waiting() + record->size <= kInboxBytesMax;
  if (is_open && has_room) {
    arrived.push(record);
    added(EventSource::process, 1, record->size);
    return 1;
  }
  free(record);  // free_record is the script thread's
  if (!is_open) return -1;
  ++refused;
  return -2;
}

void EventInbox::add(RecordList& records, uint32_t count, size_t bytes) {
  if (count == 0) return;
  const MutexLock lock(mutex);
  arrived.append(records);
  added(EventSource::posters, count, bytes);
}

void EventInbox::added(EventSource source, uint32_t number, size_t bytes) {
  Tally& tally = tallies[static_cast<int>(source)];
  increase(tally.added_bytes, bytes, std::memory_order_relaxed);
  increase(tally.added_events, number, std::memory_order_release);
  totals[static_cast<int>(source)] += number;
  waiting_highest = std::max(waiting_highest, waiting());
  if (is_sleeping) call();
}

// Under the lock: the descriptor must not be closed, and its number reused, in between.
void EventInbox::call() {
  if (is_called || wake_up.get() < 0) return;
  is_called = true;
  eventfd_write(wake_up.get(), 1);
}

EventRecord* EventInbox::take() {
  if (taken.empty()) {
    if (waiting() == 0) return nullptr;
    const MutexLock lock(mutex);
    taken.append(arrived);
    oldest_taken_ns.store(taken.came_ns(), std::memory_order_relaxed);  // under the lock: count() must not miss both
  }
  EventRecord* const record = taken.take();
  oldest_taken_ns.store(taken.empty() ? 0 : taken.came_ns(), std::memory_order_relaxed);
  Tally& tally = tallies[static_cast<int>(record->source)];
  increase(tally.taken_bytes, record->size, std::memory_order_relaxed);
  increase(tally.taken_events, 1u, std::memory_order_relaxed);
  return record;
}

uint64_t EventInbox::take_refused() {
  const MutexLock lock(mutex);
  return refused - std::exchange(refused_taken, refused);
}

void EventInbox::count(event_counts& out) {
  const MutexLock lock(mutex);
  out.posted = totals[static_cast<int>(EventSource::process)];
  out.lines = totals[static_cast<int>(EventSource::posters)];
  out.posted_refused = refused;
  out.waiting = static_cast<uint32_t>(waiting());
  out.waiting_highest = static_cast<uint32_t>(waiting_highest);
  int64_t oldest_ns = oldest_taken_ns.load(std::memory_order_relaxed);
  if (oldest_ns == 0 && !arrived.empty()) oldest_ns = arrived.came_ns();
  out.oldest_age_us = oldest_ns != 0 ? static_cast<uint64_t>(steady_ns() - oldest_ns) / 1000 : 0;
}

uint32_t EventInbox::traffic() const {
  uint32_t count = 0;
  for (const Tally& tally : tallies) count += tally.added_events + tally.taken_events;
  return count;
}

bool EventInbox::may_sleep() {
  if (waiting() > 0) return false;
  const MutexLock lock(mutex);
  if (!arrived.empty() || is_woken) return false;
  is_called = false;
  is_sleeping = true;
  return true;
}

void EventInbox::wake() {
  const MutexLock lock(mutex);
  is_woken = true;
  if (is_sleeping) call();
  woken.notify_all();
}

void EventInbox::sleep(int timeout_ms) {
  MutexLock lock(mutex);
  woken.wait_for(lock, std::chrono::milliseconds(timeout_ms), [this] { return is_woken.load(); });
}

void EventInbox::pass_on_wake() {
  const MutexLock lock(mutex);
  is_called = false;
  if (is_sleeping) call();
}

void EventInbox::wake_stand_in() {
  const MutexLock lock(mutex);
  if (wake_up.get() >= 0) eventfd_write(wake_up.get(), 1);
}
