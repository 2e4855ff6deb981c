// The memory of the Lua state: malloc's, with a reserve for when that runs out.
//
// Lua 5.1 does not collect when memory is short. It raises "not enough memory", and all that the failing script holds
// stays allocated: nothing is left for the rest of the daemon, not even for the log line about it. So when malloc
// refuses a request, the request fails and the reserve is freed. The event loop then collects garbage and refills the
// reserve.
#pragma once

#include <cstdlib>
#include <lua.hpp>
#include <utility>

// Must outlive the state. Only the thread that has the Lua state.
class LuaMemory {
 public:
  LuaMemory() = default;
  LuaMemory(const LuaMemory&) = delete;
  LuaMemory& operator=(const LuaMemory&) = delete;
  ~LuaMemory();

  // A new state that uses this memory; the caller closes it. Null when memory is short.
  lua_State* new_state();

  // True when a request has failed since the last call.
  bool take_shortage() { return std::exchange(is_short, false); }

  // Allocates the reserve again where it is gone, if malloc can.
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
