// Signals that wait for their lines. Handlers on several threads fill slots in order of arrival; one thread empties
// them. Nobody waits for anybody, so a handler may interrupt the thread that empties.
#pragma once

#include <atomic>
#include <cstdint>

// `Counter` is std::atomic<uint32_t>, or a test's stand-in for it.
template <typename Counter = std::atomic<uint32_t>>
class SignalRing {
 public:
  static constexpr int32_t kSlots = 256;

  // Queues a signal. Returns false when the ring is full. Any thread, in a handler too.
  bool add(int signal_number) {
    uint32_t slot = next_free.load();
    do {
      // Signed: others may have filled this slot, and the reader emptied it, since `slot` was read. Then it is behind
      // next_read, and the exchange fails.
      if (static_cast<int32_t>(slot - next_read.load()) >= kSlots) return false;
    } while (!next_free.compare_exchange_weak(slot, slot + 1));
    slots[slot % kSlots].store(signal_number);
    return true;
  }

  // The oldest signal, or 0: also when its slot is claimed but not filled yet. The next call finds it. One thread.
  int take() {
    const uint32_t slot = next_read.load();
    const int signal_number = slots[slot % kSlots].exchange(0);
    if (signal_number != 0) next_read.store(slot + 1);
    return signal_number;
  }

 private:
  std::atomic<int> slots[kSlots] = {};
  Counter next_free{0};
  Counter next_read{0};
};
