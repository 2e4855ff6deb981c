// Who has the Lua state.
//
// The event loop takes it for the Lua work of each pass; the main thread takes it for a reload, at the latest when the
// work in progress is done, also while events come without a pause. A plain mutex does not give that: the loop lets go
// of it and has it again before the other thread wakes up. So whoever comes for a reload leaves a wish, and the loop
// waits while there is one.
#pragma once

#include <condition_variable>
#include <mutex>
#include <thread>

class LuaGate {
 public:
  enum class Turn {
    ordinary,  // waits for everybody who wishes for the state
    next,      // a wish: comes before every ordinary turn
  };

  // True when the calling thread has the state.
  bool held_here();

 private:
  friend class LuaTurn;
  void enter(Turn turn);
  void leave();

  std::mutex mutex;
  std::condition_variable changed;
  bool held = false;       // under mutex
  int wishes = 0;          // under mutex: turns of kind `next` that wait
  int waiting = 0;         // under mutex: threads in enter()
  std::thread::id holder;  // under mutex; meaningful while held
};

// Has the Lua state as long as it lives. One per thread at a time.
class LuaTurn {
 public:
  explicit LuaTurn(LuaGate& the_gate, LuaGate::Turn turn = LuaGate::Turn::ordinary) : gate(the_gate) {
    gate.enter(turn);
  }
  LuaTurn(const LuaTurn&) = delete;
  LuaTurn& operator=(const LuaTurn&) = delete;
  ~LuaTurn() { gate.leave(); }

 private:
  LuaGate& gate;
};
