#include "device/host/event_inbox.h"

#include <sys/eventfd.h>
#include <unistd.h>
#include <ctime>

#include "util/descriptor.h"

namespace {

using Lock = std::lock_guard<std::mutex>;

// For a counter with one writer at a time: no atomic addition.
template <typename Number>
void add(std::atomic<Number>& counter, Number count, std::memory_order order) {
  counter.store(counter.load(std::memory_order_relaxed) + count, order);
}

}  // namespace

bool EventInbox::open() {
  const int fd = above_standard_streams(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  if (fd < 0) return false;
  const Lock lock(mutex);
  wake_fd = fd;
  is_open = true;
  is_sleeping = false;
  refused = 0;
  return true;
}

void EventInbox::close() {
  const Lock lock(mutex);
  is_open = false;
  if (wake_fd >= 0) ::close(wake_fd);
  wake_fd = -1;
  posted.clear();
  taken.clear();
  taken_events.store(posted_events);
  taken_bytes.store(posted_bytes);
}

int EventInbox::post(int type, std::string_view name, std::string_view info) {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  EventRecord* record =
      make_record(type, name, info, static_cast<int32_t>(now.tv_sec), static_cast<int32_t>(now.tv_nsec / 1000));
  const Lock lock(mutex);
  if (!is_open) {
    free_record(record);
    return -1;
  }
  if (record == nullptr || is_full(record->size)) {
    refused.fetch_add(1, std::memory_order_relaxed);
    free_record(record);
    return -2;
  }
  posted.push(record);
  add(posted_bytes, record->size, std::memory_order_relaxed);
  add(posted_events, 1u, std::memory_order_release);
  if (is_sleeping) {
    // Under the lock, so that the descriptor cannot be closed, and its number reused, in between.
    is_sleeping = false;
    eventfd_write(wake_fd, 1);
  }
  return 1;
}

EventRecord* EventInbox::take() {
  if (taken.empty()) {
    if (waiting() == 0) return nullptr;
    const Lock lock(mutex);
    taken.take_all(posted);
  }
  EventRecord* record = taken.take();
  add(taken_bytes, record->size, std::memory_order_relaxed);
  add(taken_events, 1u, std::memory_order_relaxed);
  return record;
}

bool EventInbox::may_sleep() {
  if (waiting() > 0) return false;
  const Lock lock(mutex);
  is_sleeping = posted.empty();
  return is_sleeping;
}

bool EventInbox::is_full(size_t size) const {
  return waiting() >= kInboxEventsMax ||
         posted_bytes.load(std::memory_order_relaxed) - taken_bytes.load(std::memory_order_relaxed) + size >
             kInboxBytesMax;
}
