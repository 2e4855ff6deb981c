// Modules for require: files below lib/ in the script folders.
#pragma once

#include <lua.hpp>
#include <string>

// Puts lib/ below external_path (which may be empty) and below script_path in front of package.path, and has what is
// loaded from there remembered. Throws except_base when that fails. Once in a state, before scripts run; only the
// thread that has the Lua state, like forget_lib_modules.
void search_lib_folders(lua_State* L, const std::string& script_path, const std::string& external_path);

// Forgets the modules that were found there, so that require loads them anew. Throws except_base when memory is short.
void forget_lib_modules(lua_State* L);
