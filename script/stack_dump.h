// stack_dump(name), a Lua function: logs the values in the main Lua state's current frame.
#pragma once

#include <lua.hpp>

int stack_dump(lua_State* L);
