// What the event loop had counted some seconds ago, so that whoever looks once sees how fast things go.
//
// The loop itself takes a sample when it passes and the last one is a second old: no thread wakes for it, and a loop
// that is busy takes none, which makes the span longer and the answer no less true.
#pragma once

#include <cstdint>
#include <optional>

#include "control/counter.h"

struct LoopSample {
  uint64_t events = 0;
  uint64_t errors = 0;
  uint64_t waiting = 0;  // events
  uint64_t timers = 0;
  uint64_t coroutines = 0;
};

class LoopHistory {
 public:
  // Times are steady_ns.

  // The thread that runs the event loop.
  bool is_due(int64_t now_ns) const { return now_ns >= due; }
  void add(int64_t now_ns, const LoopSample& sample);

  struct Past {
    int64_t age_ns = 0;
    LoopSample sample;
  };
  // The newest sample that is at least 10 s old, or else the oldest; nothing when there is none. Any thread.
  std::optional<Past> past(int64_t now_ns) const;

 private:
  static constexpr uint64_t kSlots = 16;  // more than is read, so that nobody reads the one that is replaced
  static constexpr uint64_t kRead = 12;

  struct Slot {
    Counter time, events, errors, waiting, timers, coroutines;
  };
  Slot slots[kSlots];
  Counter taken;
  int64_t due = 0;  // of the loop's thread
};
