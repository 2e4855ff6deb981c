// The events that are posted inside the process: any thread posts, the script thread takes.
//
// Bounded by number and by bytes. A post wakes the script thread through a descriptor, and only when that thread has
// said that it is going to sleep: a burst costs one wake-up, and no system call while the loop is busy.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string_view>

#include "device/host/event_record.h"

constexpr int kInboxEventsMax = 65536;
constexpr size_t kInboxBytesMax = size_t{64} * 1024 * 1024;

class EventInbox {
 public:
  // Opens for posts. Returns false, with errno set, when there is no descriptor left. Main thread, as close().
  bool open();

  // Refuses all later posts and frees what waits. The script thread must not run.
  void close();

  // Queues an event: 1 queued, -1 closed, -2 full. `name` must be a good name. Any thread, at any time.
  int post(int type, std::string_view name, std::string_view info);

  // The oldest event, or null. Script thread, like everything below.
  EventRecord* take();

  // The number of events that take() would return, without a lock.
  int waiting() const {
    return static_cast<int>(posted_events.load(std::memory_order_acquire) -
                            taken_events.load(std::memory_order_relaxed));
  }

  // True when nothing waits; from then on the next post makes wake_descriptor() ready.
  bool may_sleep();

  // Becomes readable at each post that wakes. It is never read: to be watched for edges.
  int wake_descriptor() const { return wake_fd; }

  // The number of posts refused since the last call because the queue was full. Any thread.
  int64_t take_refused() { return refused.exchange(0, std::memory_order_relaxed); }

 private:
  bool is_full(size_t size) const;

  std::mutex mutex;
  RecordList posted;         // under mutex
  bool is_open = false;      // under mutex
  bool is_sleeping = false;  // under mutex
  int wake_fd = -1;          // changed under mutex, by the main thread alone
  RecordList taken;          // script thread: moved here from `posted` in one go, which spares a lock for each event

  // What ever came and went; what waits is the difference. Each has one writer at a time, so that no event costs an
  // atomic addition, which would wait until the new record has been written out to memory.
  std::atomic<uint32_t> posted_events{0};  // written under mutex
  std::atomic<size_t> posted_bytes{0};     // written under mutex
  std::atomic<uint32_t> taken_events{0};   // written by the script thread
  std::atomic<size_t> taken_bytes{0};      // written by the script thread
  std::atomic<int64_t> refused{0};
};
