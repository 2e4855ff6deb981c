// How long the log waits for those who read it: at most a second in any ten. The log's lock is held meanwhile, so this
// is how long the whole daemon may be held up.
#pragma once

#include <poll.h>

#include <algorithm>
#include <cstdint>

#include "util/clock.h"

// Plain memory without a destructor. Not thread-safe. Times are those of steady_ns().
class LogPatience {
 public:
  // Waits until `fd` takes more. Returns false when the time is used up.
  bool wait_for(int fd) {
    const int64_t start_ns = steady_ns();
    const int left = left_ms(start_ns);
    if (left == 0) return false;
    pollfd wanted{fd, POLLOUT, 0};
    const int ready = poll(&wanted, 1, left);
    waited(start_ns, steady_ns());
    return ready != 0;
  }

  // How long a wait that begins now may last, in milliseconds.
  int left_ms(int64_t now_ns) const {
    int64_t left_ns = kWaitNs;
    for (const Slot& slot : slots) {
      if (now_ns / kSlotNs - slot.number < kSlots) left_ns -= slot.waited_ns;
    }
    return static_cast<int>(std::max<int64_t>(left_ns, 0) / kMsNs);
  }

  // Takes note of a wait.
  void waited(int64_t start_ns, int64_t end_ns) {
    const int64_t number = start_ns / kSlotNs;
    Slot& slot = slots[number % kSlots];
    if (slot.number != number) slot = Slot{number, 0};
    slot.waited_ns += end_ns - start_ns;
  }

 private:
  static constexpr int64_t kMsNs = 1000000;
  static constexpr int64_t kWaitNs = 1000 * kMsNs;
  static constexpr int64_t kSlotNs = 1000 * kMsNs;
  // A wait counts until the tenth second after the one in which it began is over: for ten whole seconds at least.
  static constexpr int64_t kSlots = 11;

  struct Slot {
    int64_t number = 0;     // of the second
    int64_t waited_ns = 0;  // in waits that began in it
  };
  Slot slots[kSlots];
};
