// Bit, sign and byte helpers and sleep for the scripts: Lua 5.1 has no bit operators. docs/scripting.md tells what each
// does.
#pragma once

#include <lua.hpp>

// Registers the thirteen functions in the globals of a fresh state. May raise a Lua error: call it under protection.
void register_lua_utilities(lua_State* L);
