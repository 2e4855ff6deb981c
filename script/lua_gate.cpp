#include "script/lua_gate.h"

#include <chrono>

void LuaGate::enter(Turn turn, int (*meanwhile)()) {
  uint32_t free = 0;
  if (!word.compare_exchange_strong(free, kHeld, std::memory_order_acquire)) wait_and_take(turn, meanwhile);
  holder.store(std::this_thread::get_id(), std::memory_order_relaxed);
}

void LuaGate::wait_and_take(Turn turn, int (*meanwhile)()) {
  MutexLock lock(mutex);
  const bool is_next = turn == Turn::next;
  waiting_for_next += is_next ? 1 : 0;
  ++waiting;
  // Once kAwaited is set, the word is neither 0 nor kHeld: nobody changes it without the mutex.
  while ((word.fetch_or(kAwaited, std::memory_order_acquire) & kHeld) != 0 || (!is_next && waiting_for_next > 0)) {
    if (meanwhile == nullptr) {
      changed.wait(lock);
      continue;
    }
    lock.unlock();
    const int wait_ms = meanwhile();
    lock.lock();
    const bool is_held = (word.load(std::memory_order_relaxed) & kHeld) != 0;  // or it was left meanwhile
    if (is_held) changed.wait_for(lock, std::chrono::milliseconds(wait_ms));
  }
  --waiting;
  waiting_for_next -= is_next ? 1 : 0;
  word.store(waiting > 0 ? kHeld | kAwaited : kHeld, std::memory_order_relaxed);
}

void LuaGate::leave() {
  holder.store(std::thread::id(), std::memory_order_relaxed);
  uint32_t held = kHeld;
  if (!word.compare_exchange_strong(held, 0, std::memory_order_release)) leave_to_others();
}

void LuaGate::leave_to_others() {
  const MutexLock lock(mutex);
  word.store(kAwaited, std::memory_order_release);
  changed.notify_all();
}
