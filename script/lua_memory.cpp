#include "script/lua_memory.h"

LuaMemory::~LuaMemory() {
  free(reserve);
}

lua_State* LuaMemory::new_state() {
  refill();
  return lua_newstate(allocate, this);
}

void* LuaMemory::allocate(void* self, void* block, size_t, size_t size) {
  if (size == 0) {
    free(block);
    return nullptr;
  }
  void* const result = realloc(block, size);
  if (result == nullptr) {
    auto& memory = *static_cast<LuaMemory*>(self);
    memory.is_short = true;
    free(std::exchange(memory.reserve, nullptr));
  }
  return result;
}
