// What a script keeps, as text. It reads like a Lua table, so that people can read it too:
//
//   -- zelvind keep 1
//   {
//     opened = 12,
//     ["front door"] = true,
//     [3] = {
//       by = "alice",
//     },
//   }
//
// The first line stands as it is; its number grows when the form changes. Between the parts there may be white space
// and comments, "--" to the end of the line. Keys and values are texts, numbers ("inf" and "nan" too) and booleans,
// values also tables. A text has the escapes \n \r \t \" \\ and \DDD, three decimal digits, for all other control
// characters. Nothing in it is ever run. Only the thread that has the Lua state.
#pragma once

#include <cstddef>
#include <lua.hpp>
#include <string>

constexpr size_t kKeptTextMax = size_t{64} * 1024;  // bytes
constexpr int kKeptDepthMax = 16;                   // tables inside each other
constexpr int kKeptStack = 3 * kKeptDepthMax + 8;   // free places on the Lua stack that both functions need

// The text of the table at `index`, its keys in order: equal tables have equal texts. Metatables do not count. Raises
// nothing and leaves the stack as it was. Throws ScriptError, which names the place of a value that cannot be kept.
std::string kept_text(lua_State* L, int index);

// Pushes the table that text[size] describes, which is changed meanwhile. Returns null; or what is wrong with it, and
// the line in *line, and pushes nothing. Raises an error when memory is short: no object with a destructor may be
// alive.
const char* push_kept_table(lua_State* L, char* text, size_t size, int* line);
