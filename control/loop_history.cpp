#include "control/loop_history.h"

#include <algorithm>

namespace {

constexpr int64_t kEveryNs = 1000000000;
constexpr int64_t kSpanNs = 10 * kEveryNs;

}  // namespace

void LoopHistory::add(int64_t now_ns, const LoopSample& sample) {
  due = now_ns + kEveryNs;
  Slot& slot = slots[taken.get() % kSlots];
  slot.time.set(static_cast<uint64_t>(now_ns));
  slot.events.set(sample.events);
  slot.errors.set(sample.errors);
  slot.waiting.set(sample.waiting);
  slot.timers.set(sample.timers);
  slot.coroutines.set(sample.coroutines);
  taken.add();
}

std::optional<LoopHistory::Past> LoopHistory::past(int64_t now_ns) const {
  const uint64_t newest = taken.get();
  if (newest == 0) return std::nullopt;
  const uint64_t oldest = newest - std::min(newest, kRead);
  uint64_t number = newest - 1;
  const auto age_of = [&](uint64_t n) { return now_ns - static_cast<int64_t>(slots[n % kSlots].time.get()); };
  while (number > oldest && age_of(number) < kSpanNs) --number;
  const Slot& slot = slots[number % kSlots];
  return Past{std::max<int64_t>(age_of(number), 0),
              {slot.events.get(), slot.errors.get(), slot.waiting.get(), slot.timers.get(), slot.coroutines.get()}};
}
