#include "util/lua_binding.h"

#include <cstdio>
#include <new>

std::string error_value_text(lua_State* L, int index) {
  switch (lua_type(L, index)) {
    case LUA_TSTRING:
      return lua_tostring(L, index);
    case LUA_TNUMBER: {  // lua_tostring would convert it in place, which allocates and may raise
      char text[40];
      snprintf(text, sizeof(text), LUA_NUMBER_FMT, lua_tonumber(L, index));
      return text;
    }
    default:
      return "NOT ERROR";
  }
}

namespace lua_binding {
namespace {

int run_protected(lua_State* L) {
  const Call* call = static_cast<const Call*>(lua_touserdata(L, 1));
  lua_settop(L, 0);
  char text[512];
  try {
    call->run(L, call->work);
    return 0;
  } catch (const std::exception& error) {
    copy_text(text, sizeof(text), error.what());
  } catch (...) {
    copy_text(text, sizeof(text), "unknown error");
  }
  return luaL_error(L, "%s", text);
}

}  // namespace

bool protected_call(lua_State* L, std::string& error, const Call& call) {
  const int top = lua_gettop(L);
  if (lua_cpcall(L, run_protected, const_cast<Call*>(&call)) == 0) return true;
  try {
    error = error_value_text(L, -1);
  } catch (const std::bad_alloc&) {
    error = "no memory";  // short enough to need none
  }
  lua_settop(L, top);
  return false;
}

}  // namespace lua_binding
