// The globals that the daemon adds for its scripts. docs/scripting.md describes each.
#pragma once

#include <lua.hpp>

// Registers the seventeen functions of the script API in the globals of a fresh state. May raise a Lua error: call it
// under protection. Main thread.
void register_script_api(lua_State* L);

// Likewise the thirteen utilities: sleep, and what Lua 5.1 lacks for bits, bytes and signs.
void register_lua_utilities(lua_State* L);
