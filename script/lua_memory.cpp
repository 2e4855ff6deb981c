#include "script/lua_memory.h"

#include <algorithm>

#include "script/manager_script.h"
#include "util/clock.h"

LuaMemory::~LuaMemory() {
  free(reserve);
}

lua_State* LuaMemory::new_state() {
  used = 0;
  collected();
  return lua_newstate(allocate, this);
}

// Lua relies on it that a block can always be made smaller.
void* LuaMemory::allocate(void* self, void* block, size_t old_size, size_t size) {
  auto& memory = *static_cast<LuaMemory*>(self);
  if (size == 0) {
    free(block);
    memory.used -= old_size;
    return nullptr;
  }
  if (memory.limit != 0 && size > old_size && memory.refuses(size - old_size)) return nullptr;
  void* const result = realloc(block, size);
  if (result != nullptr) {
    memory.used += size - old_size;
  } else {
    memory.reserve_is_out = true;
    free(std::exchange(memory.reserve, nullptr));
  }
  return result;
}

bool LuaMemory::refuses(size_t more) {
  const size_t most = reserve_is_out ? limit + kReserve : limit;
  if (more > most - std::min(most, used)) {
    reserve_is_out = true;
    return true;
  }
  if (used + more > collect_at) {
    collect_at = SIZE_MAX;  // until that is done
    g_mscript->stop.ask(ScriptStop::kCollect);
  }
  return false;
}

void LuaMemory::collected() {
  if (reserve == nullptr) reserve = malloc(kReserve);
  reserve_is_out = reserve == nullptr || (limit != 0 && used > limit);
  const size_t left = limit - std::min(limit, used);
  collect_at = left < limit / 64 ? SIZE_MAX : std::max(limit / 4 * 3, used + left / 2);
}

void LuaMemory::back_off(int64_t ns) {
  const bool has_helped = !reserve_is_out && (limit == 0 || used < limit / 8 * 7);
  not_before_ns = has_helped ? 0 : steady_ns() + 9 * ns;
}

bool LuaMemory::may_collect() const {
  return steady_ns() >= not_before_ns;
}
