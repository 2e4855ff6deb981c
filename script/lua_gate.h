// Who has the Lua state.
//
// The event loop takes it for the Lua work of each pass. The main thread takes it for a reload, at the latest when the
// work in progress is done, even while events come without a pause. A plain mutex does not guarantee that: the loop
// would release it and take it again before the other thread wakes up. So a thread can ask for the next turn, and
// ordinary turns wait while one does.
//
// The loop takes one or two turns for each event, nearly always without contention. So while nobody waits, an atomic
// word is all that is touched; the first thread that waits marks it, and until the last one has been served, every turn
// goes through the mutex.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <thread>

#include "util/mutex.h"

class LuaGate {
 public:
  enum class Turn {
    ordinary,  // waits while a thread waits for the next turn
    next,      // precedes every ordinary turn that waits
  };

  // True when some thread waits for the state. Any thread.
  bool awaited() const { return (word.load(std::memory_order_relaxed) & kAwaited) != 0; }

  // True when the calling thread has the state. Any thread; for assertions.
  bool held_here() const { return holder.load(std::memory_order_relaxed) == std::this_thread::get_id(); }

 private:
  friend class LuaTurn;
  void enter(Turn turn, int (*meanwhile)());
  void wait_and_take(Turn turn, int (*meanwhile)());
  void leave();
  void leave_to_others();

  static constexpr uint32_t kHeld = 1;
  static constexpr uint32_t kAwaited = 2;  // a thread waits: the word changes only under the mutex

  std::atomic<uint32_t> word{0};
  std::atomic<std::thread::id> holder{};  // the thread that has the state, or none
  Mutex mutex;
  std::condition_variable_any changed;
  int waiting GUARDED_BY(mutex) = 0;           // turns of both kinds that wait
  int waiting_for_next GUARDED_BY(mutex) = 0;  // those of kind `next`
};

// Holds the Lua state until destroyed. One per thread at a time.
class LuaTurn {
 public:
  explicit LuaTurn(LuaGate& the_gate, LuaGate::Turn turn = LuaGate::Turn::ordinary) : gate(the_gate) {
    gate.enter(turn, nullptr);
  }
  // Asks for the next turn. `meanwhile` is called before each wait, without a lock, and returns for how many ms it need
  // not be called again.
  LuaTurn(LuaGate& the_gate, int (*meanwhile)()) : gate(the_gate) { gate.enter(LuaGate::Turn::next, meanwhile); }
  LuaTurn(const LuaTurn&) = delete;
  LuaTurn& operator=(const LuaTurn&) = delete;
  ~LuaTurn() { gate.leave(); }

 private:
  LuaGate& gate;
};
