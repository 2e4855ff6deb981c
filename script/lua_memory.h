// The memory of the Lua state: malloc's, up to a limit if one is set, with a reserve for when that runs out.
//
// Lua 5.1 does not collect when memory is short. It raises "not enough memory", and all that the failing script holds
// stays allocated: nothing is left for the rest of the daemon, not even for the log line about it. So when a request
// is refused, the reserve is released. The event loop then collects garbage and takes the reserve back.
//
// With a limit, a script should not fail as long as there is garbage. An allocator cannot collect: Lua is in the middle
// of something. So when three quarters of the limit are used, the count hook is asked to collect, and again after each
// half of what is left then: where garbage is the reason that is often enough, and a leak costs ten collections. One
// request for more than what is left is refused although there may be garbage.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <lua.hpp>

// Must outlive the state. Only the thread that has the Lua state.
class LuaMemory {
 public:
  LuaMemory() = default;
  LuaMemory(const LuaMemory&) = delete;
  LuaMemory& operator=(const LuaMemory&) = delete;
  ~LuaMemory();

  // A new state that uses this memory; the caller closes it. Null when memory is short.
  lua_State* new_state();

  // Refuses requests above `bytes` in all, the reserve apart; 0: only malloc refuses. Before new_state.
  void set_limit(size_t bytes) { limit = bytes; }

  // Bytes of all blocks.
  size_t in_use() const { return used; }

  // True when a request has been refused and the reserve has not been taken back since.
  bool is_short() const { return reserve_is_out; }

  // A full collection is done. Takes the reserve back, if there is room for it.
  void collected();

  // A collection for want of memory has taken `ns`. While such ones do not help, at most a tenth of all time goes into
  // them: that long, may_collect() returns false.
  void back_off(int64_t ns);
  bool may_collect() const;

 private:
  static void* allocate(void* self, void* block, size_t old_size, size_t size);
  bool refuses(size_t more);

  static constexpr size_t kReserve =
      size_t{64} * 1024;  // bytes: for the error's text, its line, and a collection's calls

  void* reserve = nullptr;  // malloc's
  bool reserve_is_out = false;
  size_t limit = 0;
  size_t used = 0;            // bytes of all blocks
  size_t collect_at = 0;      // when `used` gets there, the hook is asked to collect
  int64_t not_before_ns = 0;  // steady_ns: for may_collect
};
