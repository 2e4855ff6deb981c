#include "util/lua_binding.h"

#include <cstdio>
#include <cstring>
#include <exception>
#include <new>

#include "util/text.h"

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

int clua_run_string(lua_State* L, const char* code) {
  if (luaL_loadbuffer(L, code, strlen(code), "temp") != 0) return -1;
  return lua_pcall(L, 0, 0, 0) == 0 ? 1 : -2;
}

std::string clua_error_text(lua_State* L) {
  std::string text = error_value_text(L, -1);
  if (lua_isstring(L, -1) != 0) lua_pop(L, 1);
  return text;
}

namespace lua_binding {
namespace {

char g_key;  // its address is where the registry keeps run_protected

int run_protected(lua_State* L) {
  Call* const call = static_cast<Call*>(lua_touserdata(L, 1));
  if (call == nullptr) return luaL_error(L, "not for scripts");  // one has found it by debug.getregistry
  lua_settop(L, 0);
  const auto body = [](lua_State* state, void* work) {
    const Call* const wanted = static_cast<Call*>(work);
    wanted->run(state, wanted->work);
    return 0;
  };
  return run_body(L, body, call);
}

int keep_run_protected(lua_State* L) {
  lua_pushlightuserdata(L, &g_key);
  lua_pushcfunction(L, run_protected);
  lua_rawset(L, LUA_REGISTRYINDEX);
  return run_protected(L);
}

// lua_cpcall allocates a function for each call. So the first call in a state keeps one in the registry, from where
// later calls take it without allocating: nothing can raise outside the protected call.
int call_run_protected(lua_State* L, void* call) {
  lua_pushlightuserdata(L, &g_key);
  lua_rawget(L, LUA_REGISTRYINDEX);
  if (lua_tocfunction(L, -1) != run_protected) {
    lua_pop(L, 1);
    return lua_cpcall(L, keep_run_protected, call);
  }
  lua_pushlightuserdata(L, call);
  return lua_pcall(L, 1, 0, 0);
}

}  // namespace

int run_body(lua_State* L, int (*body)(lua_State* L, void* work), void* work) {
  int argument = 0;
  char text[1280];  // room for the longest field name that an error quotes
  try {
    return body(L, work);
  } catch (const ArgumentError& error) {
    argument = error.index;
    copy_text(text, sizeof(text), error.what());
  } catch (const std::exception& error) {
    copy_text(text, sizeof(text), error.what());
  } catch (...) {
    copy_text(text, sizeof(text), "unknown error");
  }
  if (argument != 0) return luaL_argerror(L, argument, text);
  return luaL_error(L, "%s", text);
}

bool protected_call(lua_State* L, std::string& error, Call call) {
  const int top = lua_gettop(L);
  if (call_run_protected(L, &call) == 0) return true;
  try {
    error = error_value_text(L, -1);
  } catch (const std::bad_alloc&) {
    error = "no memory";  // short enough to need none
  }
  lua_settop(L, top);
  return false;
}

}  // namespace lua_binding
