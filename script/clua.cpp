#include "script/clua.h"

#include <cstring>

#include "util/lua_binding.h"

int clua_run_string(lua_State* L, const char* code) {
  if (luaL_loadbuffer(L, code, strlen(code), "temp") != 0) return -1;
  return lua_pcall(L, 0, 0, 0) == 0 ? 1 : -2;
}

std::string clua_error_text(lua_State* L) {
  std::string text = error_value_text(L, -1);
  if (lua_isstring(L, -1) != 0) lua_pop(L, 1);
  return text;
}
