// The script API: the globals that the daemon adds for its scripts. docs/scripting.md tells what each does.
#pragma once

#include <lua.hpp>

// Registers the seventeen functions in the globals of a fresh state. May raise a Lua error: call it under protection.
void register_script_api(lua_State* L);
