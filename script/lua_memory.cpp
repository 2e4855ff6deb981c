#include "script/lua_memory.h"

#include <cstdlib>
#include <utility>

namespace {

constexpr size_t kReserve = size_t{64} * 1024;  // bytes: for the error's text, its log line, and the collection

}  // namespace

LuaMemory::~LuaMemory() {
  free(reserve);
}

lua_State* LuaMemory::new_state() {
  refill();
  return lua_newstate(allocate, this);
}

void LuaMemory::refill() {
  if (reserve == nullptr) reserve = malloc(kReserve);
}

void* LuaMemory::allocate(void* self, void* block, size_t, size_t size) {
  if (size == 0) {
    free(block);
    return nullptr;
  }
  void* const result = realloc(block, size);
  if (result == nullptr) free(std::exchange(static_cast<LuaMemory*>(self)->reserve, nullptr));
  return result;
}
