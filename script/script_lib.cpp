#include "script/script_lib.h"

#include <cstring>

#include "util/except.h"
#include "util/lua_binding.h"

namespace {

// Keys in Lua's registry, by their addresses.
char g_search_key;   // the function of package.loaders that searches package.path
char g_folders_key;  // list of "@FOLDER/"
char g_modules_key;  // set of the names of modules that were found below one of these

void push_registered(lua_State* L, char* key) {
  lua_pushlightuserdata(L, key);
  lua_rawget(L, LUA_REGISTRYINDEX);
}

void set_registered(lua_State* L, char* key) {  // to the value on top of the stack, which it pops
  lua_pushlightuserdata(L, key);
  lua_insert(L, -2);
  lua_rawset(L, LUA_REGISTRYINDEX);
}

bool is_from_lib(lua_State* L, const char* source) {
  push_registered(L, &g_folders_key);
  bool found = false;
  for (int i = 1; i <= static_cast<int>(lua_objlen(L, -1)); ++i) {
    lua_rawgeti(L, -1, i);
    found = found || strncmp(source, lua_tostring(L, -1), lua_objlen(L, -1)) == 0;
    lua_pop(L, 1);
  }
  lua_pop(L, 1);
  return found;
}

// Takes the place of that function. Raises its errors.
int search(lua_State* L) {
  lua_settop(L, 1);
  push_registered(L, &g_search_key);
  lua_pushvalue(L, 1);
  lua_call(L, 1, 1);
  if (!lua_isfunction(L, 2)) return 1;
  lua_Debug info{};
  lua_pushvalue(L, 2);
  lua_getinfo(L, ">S", &info);
  if (is_from_lib(L, info.source)) {
    push_registered(L, &g_modules_key);
    lua_pushvalue(L, 1);
    lua_pushboolean(L, 1);
    lua_rawset(L, -3);
  }
  lua_settop(L, 2);
  return 1;
}

// Appends lib/ below `folder` to the path that is being made at `path` and to the list at `folders`.
void add_folder(lua_State* L, int path, int folders, const char* folder) {
  lua_pushfstring(L, "%s%s/lib/?.lua;", lua_tostring(L, path), folder);
  lua_replace(L, path);
  lua_pushfstring(L, "@%s/lib/", folder);
  lua_rawseti(L, folders, static_cast<int>(lua_objlen(L, folders)) + 1);
}

void set_up(lua_State* L, const char* script_path, const char* external_path) {
  lua_pushliteral(L, "");
  lua_newtable(L);
  if (external_path[0] != '\0') add_folder(L, 1, 2, external_path);
  if (strcmp(script_path, external_path) != 0) add_folder(L, 1, 2, script_path);
  set_registered(L, &g_folders_key);
  lua_newtable(L);
  set_registered(L, &g_modules_key);
  lua_getglobal(L, "package");
  lua_getfield(L, 2, "path");
  lua_pushvalue(L, 1);
  lua_insert(L, -2);
  lua_concat(L, 2);
  lua_setfield(L, 2, "path");
  lua_getfield(L, 2, "loaders");
  lua_rawgeti(L, 3, 2);
  set_registered(L, &g_search_key);
  lua_pushcfunction(L, search);
  lua_rawseti(L, 3, 2);
}

void forget(lua_State* L) {
  lua_getfield(L, LUA_REGISTRYINDEX, "_LOADED");
  push_registered(L, &g_modules_key);
  if (!lua_istable(L, 2)) return;  // no script has been loaded
  for (lua_pushnil(L); lua_next(L, 2) != 0; lua_settop(L, 3)) {
    lua_pushvalue(L, 3);
    lua_pushnil(L);
    lua_rawset(L, 1);
  }
  lua_newtable(L);
  set_registered(L, &g_modules_key);
}

}  // namespace

void search_lib_folders(lua_State* L, const std::string& script_path, const std::string& external_path) {
  std::string error;
  const char* const script = script_path.c_str();
  const char* const external = external_path.c_str();
  if (protect(L, error, [&](lua_State* state) { set_up(state, script, external); })) return;
  throw except_base("mscript: failed to set up lib/ - %s", error.c_str());
}

void forget_lib_modules(lua_State* L) {
  std::string error;
  if (protect(L, error, [](lua_State* state) { forget(state); })) return;
  throw except_base("mscript: failed to forget the modules of lib/ - %s", error.c_str());
}
