// The events that were handled last, numbered from 1 on, for those who follow or come back.
//
// One thread adds, any number of threads read, and the one that adds never waits for them: no lock, no system call
// while nobody waits. An event is a run of words in a ring:
//
//   header (sequence number, times, sizes), name, info, each filled up to a whole word
//
// and a second ring says where each event begins. Before words are overwritten, `reserved` tells how far that will go;
// a reader copies and then looks whether what it copied was overwritten meanwhile. All words are relaxed atomics, so
// that a copy of words that change is no data race, only of no use.
//
// A follower is a cursor, a sequence number. One that falls behind learns how many events it has lost.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "util/descriptor.h"

struct event_item;

struct EventRecordCopy {
  uint64_t sequence = 0;
  uint32_t seconds = 0;  // the time stamp, since 1970
  uint32_t microseconds = 0;
  int32_t type = 0;
  int errors = 0;       // of its handlers
  int64_t wait_ns = 0;  // in the queue
  int64_t run_ns = 0;   // of its handlers
  size_t info_cut = 0;  // bytes at the end of the info that are left out, because it is too long for the ring
  std::string name;
  std::string info;
};

// What those are told who follow, or ask the event loop for something, after its end.
constexpr char kLoopHasEnded[] = "the event loop has ended";

class EventRing {
 public:
  // `bytes` is the memory for both rings; below 1 KiB it keeps no events and only numbers them. Memory that no event
  // has used yet costs nothing.
  explicit EventRing(size_t bytes);
  ~EventRing() = default;
  EventRing(const EventRing&) = delete;
  EventRing& operator=(const EventRing&) = delete;

  // Adds an event that was handled; it has the number last() then. `wait_ns` it spent in the queue and `run_ns` in its
  // handlers, of which `errors` failed. Script thread only.
  void add(const event_item& event, int64_t wait_ns, int64_t run_ns, int errors);

  // The quit event has come: there will be no more. Wakes those who follow. Script thread only.
  void end();
  bool has_ended() const { return ended.load(); }

  // The number of the newest event; 0: none yet. Any thread, like all that follows.
  uint64_t last() const { return newest.load(std::memory_order_acquire); }

  // The number of the oldest event that read() can still give; last() + 1: none.
  uint64_t oldest() const { return oldest_after(0); }

  bool keeps_events() const { return slots != 0; }

  enum class Read { entry, nothing, lost };

  // Gives the event with the number `next` and moves `next` on by one. `nothing`: it has not come yet. `lost`: it is
  // gone; `next` is moved to the oldest event that is left, and `lost` says how many were passed over.
  Read read(uint64_t& next, EventRecordCopy& out, uint64_t& lost) const;

  // The names of events are RUN-SEQUENCE, where run() is eight hexadecimal digits, drawn at each start.
  const char* run() const { return run_name; }

  // For the one thread that follows on behalf of all: becomes readable (an eventfd; -1: there is none) with the next
  // event after ask_to_be_woken(), until the caller reads it. That returns false when `next` has come already, or the
  // end. While nobody follows, set_followed(false) spares add() even the look.
  int wake_descriptor() const { return wake.get(); }
  void set_followed(bool is_followed) { followed.store(is_followed); }
  bool ask_to_be_woken(uint64_t next);

 private:
  struct Header;
  void wake_reader();
  void write(const event_item& event, const Header& header);
  bool is_held(uint64_t sequence) const;
  uint64_t oldest_after(uint64_t sequence) const;
  bool copy(uint64_t sequence, EventRecordCopy& out) const;
  bool overwritten(uint64_t position) const;

  using Word = std::atomic<size_t>;
  const size_t slots;                                     // of starts; 0: no events are kept
  const size_t size;                                      // of words
  const std::unique_ptr<std::atomic<uint64_t>[]> starts;  // by sequence number: the position of its first word
  const std::unique_ptr<Word[]> words;                    // a position counts all words ever written
  std::atomic<uint64_t> reserved{0};                      // the position up to which words may have been written
  std::atomic<uint64_t> newest{0};                        // a sequence number
  std::atomic<bool> ended{false};
  size_t next_word = 0;   // of the script thread: `reserved` modulo `size`, without a division for each event
  size_t next_start = 0;  // likewise: `newest` modulo `slots`
  std::atomic<bool> followed{false};
  std::atomic<bool> reader_sleeps{false};
  Descriptor wake;
  char run_name[9] = "";
};

// The daemon's one ring, or null. Set before the script thread starts, cleared after it has ended.
extern EventRing* g_event_ring;
