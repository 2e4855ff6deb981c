// Running Lua code given as text, and the text of a Lua error.
#pragma once

#include <lua.hpp>
#include <string>

// Compiles `code` under the chunk name "temp" and runs it without arguments and results. Returns 1; -1 when it does not
// compile and -2 when it raised, with the error value left on the stack. Only the thread that has the Lua state.
int clua_run_string(lua_State* L, const char* code);

// Removes the error value on top of the stack and returns its text; when it is neither a string nor a number, leaves it
// there and returns "NOT ERROR". Never raises. Only the thread that has the Lua state.
std::string clua_error_text(lua_State* L);
