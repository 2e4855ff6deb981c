// The memory of the Lua state: malloc's, with a reserve for the worst moment.
//
// Lua 5.1 does not collect when memory is short: it raises "not enough memory", and all that the failing script held
// stays taken, with nothing left for the rest of the daemon, not even for the log line about it. So the request that
// malloc refuses fails, as it must, and the reserve goes back to malloc at that moment. The event loop then collects
// garbage and refills the reserve.
#pragma once

#include <cstdlib>
#include <lua.hpp>
#include <utility>

// Plain memory and a reserve. Must outlive the state. Only the thread that has the Lua state.
class LuaMemory {
 public:
  LuaMemory() = default;
  LuaMemory(const LuaMemory&) = delete;
  LuaMemory& operator=(const LuaMemory&) = delete;
  ~LuaMemory();

  // A new state with this memory, or null when there is none.
  lua_State* new_state();

  // Whether a request has failed since the last call.
  bool take_shortage() { return std::exchange(is_short, false); }

  // Takes the reserve from malloc, unless it is there, or malloc has none.
  void refill() {
    if (reserve == nullptr) reserve = malloc(kReserve);
  }

 private:
  static void* allocate(void* self, void* block, size_t old_size, size_t size);

  static constexpr size_t kReserve =
      size_t{64} * 1024;  // bytes: for the error's text, its line, and a collection's calls

  void* reserve = nullptr;
  bool is_short = false;
};
