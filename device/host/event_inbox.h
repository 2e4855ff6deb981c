// The events that have come in, in the order in which they came: posted inside the process, from any thread, or read
// from other processes. The script thread takes them.
//
// Each source has a bound of its own, so that one cannot keep the other out; posters are not read while their share is
// full (event_posters.h). Adding an event wakes the script thread through a descriptor, but only if that thread has
// announced that it will sleep: a burst costs one wake-up, and no system call while the loop is busy.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <string_view>

#include "device/counts.h"
#include "device/host/event_record.h"
#include "util/descriptor.h"
#include "util/mutex.h"

constexpr int kInboxEventsMax = 65536;  // posted inside the process
constexpr size_t kInboxBytesMax = size_t{64} * 1024 * 1024;

class EventInbox {
 public:
  // Opens for posts. Returns false, with errno set, when there is no descriptor left. Main thread, like close().
  bool open();

  // Refuses all later posts and frees the events that wait. Other threads may still call post(), but nothing else.
  void close();

  // Adds an event of the process: 1 queued, -1 closed, -2 full. `name` must be a good name. Any thread, at any time.
  int post(int type, std::string_view name, std::string_view info);

  // Adds `count` events of other processes, `bytes` in all; leaves `records` empty. The thread that has read them.
  void add(RecordList& records, uint32_t count, size_t bytes);

  // Returns the oldest event, now owned by the caller, or null. Script thread.
  EventRecord* take();

  // The number of events that take() would return. Takes no lock. Script thread.
  int waiting() const { return posted(EventSource::process).waiting() + posted(EventSource::posters).waiting(); }

  // What came from one source. Each counter has one writer at a time: an atomic addition for each event would have to
  // wait until the new record is written to memory.
  struct Tally {
    std::atomic<uint32_t> added_events{0};  // written under the inbox's mutex, like the next one
    std::atomic<size_t> added_bytes{0};
    std::atomic<uint32_t> taken_events{0};  // written by the script thread, like the next one
    std::atomic<size_t> taken_bytes{0};
    int waiting() const {
      return static_cast<int>(added_events.load(std::memory_order_acquire) -
                              taken_events.load(std::memory_order_relaxed));
    }
    size_t bytes_waiting() const {
      return added_bytes.load(std::memory_order_relaxed) - taken_bytes.load(std::memory_order_relaxed);
    }
  };
  const Tally& posted(EventSource source) const { return tallies[static_cast<int>(source)]; }

  // Changes whenever an event has come or gone. Any thread.
  uint32_t traffic() const;

  // True when no event waits and nobody has called wake(). From then until woke_up(), a new event makes
  // wake_descriptor() ready. Script thread, like woke_up().
  bool may_sleep();
  void woke_up() { is_sleeping.store(false, std::memory_order_relaxed); }

  // Ends the sleep of the script thread, or prevents its next one: take_wake() then returns true once. wake(): any
  // thread; take_wake(): script thread.
  void wake();
  bool take_wake() { return is_woken.load(std::memory_order_relaxed) && is_woken.exchange(false); }

  // Waits for wake() and nothing else, at most timeout_ms: for a queue that could not be opened. Script thread.
  void sleep(int timeout_ms);

  // Becomes readable at each wake-up. It is never read: watch it for edges.
  int wake_descriptor() const { return wake_up.get(); }

  // Makes wake_descriptor() ready in any case: the stand-in reader sleeps on it too. Main thread.
  void wake_stand_in();

  // Makes wake_descriptor() ready again if the script thread sleeps: another thread may have taken the edge that was
  // meant for it. Any thread.
  void pass_on_wake();

  // The number of posts refused since the last call because the queue was full. Any thread.
  uint64_t take_refused();

  // Fills what event_counts has of the inbox. Any thread.
  void count(event_counts& out);

  // Hold the lock from before a fork until after it, in parent and child, so that the child can post.
  void before_fork() ZELVIND_LOCK_RULE(no_thread_safety_analysis) { mutex.lock(); }
  void after_fork() ZELVIND_LOCK_RULE(no_thread_safety_analysis) { mutex.unlock(); }

 private:
  void added(EventSource source, uint32_t number, size_t bytes) REQUIRES(mutex);
  void call() REQUIRES(mutex);

  Mutex mutex;
  RecordList arrived GUARDED_BY(mutex);
  bool is_open GUARDED_BY(mutex) = false;
  bool is_called GUARDED_BY(mutex) = false;  // the sleep in progress has its edge
  std::atomic<bool> is_sleeping{false};      // set under mutex; script thread
  std::atomic<bool> is_woken{false};         // set under mutex
  std::condition_variable_any woken;
  Descriptor wake_up;  // changed under mutex, by the main thread alone
  RecordList taken;    // script thread: all of `arrived` is moved here at once, so that not every event takes the lock
  std::atomic<int64_t> oldest_taken_ns{0};  // written by the script thread: since when the first of them waits; 0: none
  Tally tallies[2];
  uint64_t totals[2] GUARDED_BY(mutex) = {};     // events added
  uint64_t refused GUARDED_BY(mutex) = 0;        // posts
  uint64_t refused_taken GUARDED_BY(mutex) = 0;  // take_refused() has returned these
  int waiting_highest GUARDED_BY(mutex) = 0;
};
