// Running a line of Lua given as text, and the text of what Lua raised.
#pragma once

#include <lua.hpp>
#include <string>

// Compiles `code` under the chunk name "temp" and runs it without arguments and results. Returns 1; -1 when it does not
// compile and -2 when it raised, with the error value left on the stack. Only the thread that has the Lua state.
int clua_run_string(lua_State* L, const char* code);

// The text of the error value on top of the stack, which is removed; "NOT ERROR" when it is neither a string nor a
// number, and then it stays. Never raises. Only the thread that has the Lua state.
std::string clua_error_text(lua_State* L);
