// The memory of the Lua state: malloc's, with a reserve for the worst moment.
//
// Lua 5.1 does not collect when memory is short: it raises "not enough memory", and all that the failing script held
// stays taken, with nothing left for the rest of the daemon, not even for the log line about it. So the request that
// malloc refuses fails, as it must, and the reserve goes back to malloc at that moment. The event loop then collects
// garbage and refills the reserve.
#pragma once

#include <lua.hpp>

// Plain memory and a reserve. Must outlive the state. Only the thread that has the Lua state.
class LuaMemory {
 public:
  LuaMemory() = default;
  LuaMemory(const LuaMemory&) = delete;
  LuaMemory& operator=(const LuaMemory&) = delete;
  ~LuaMemory();

  // A new state with this memory, or null when there is none.
  lua_State* new_state();

  // Whether a request has failed since the last refill.
  bool is_short() const { return reserve == nullptr; }

  // Takes the reserve from malloc, if malloc has it.
  void refill();

 private:
  static void* allocate(void* self, void* block, size_t old_size, size_t size);

  void* reserve = nullptr;
};
