// Calls between C++ and Lua.
//
// A Lua error is a long jump: it runs no destructor. So a function that Lua calls is written as a body, ordinary C++
// with three rules, and registered through api<body>:
//   - it reads its arguments first, with the functions below, while no object with a destructor is alive;
//   - it throws ArgumentError or ScriptError for a script's mistake and never calls luaL_error, luaL_check* or a bare
//     lua_call;
//   - it pushes its results last, from plain memory (a push may raise too, when memory is short).
// The adaptor catches everything, lets the body's locals die, and only then raises the Lua error.
//
// The other direction, C++ calling into Lua, goes through protect(): look-ups, pushes and collections can all run a
// metamethod or a finalizer that raises.
#pragma once

#include <lua.hpp>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>

static_assert(LUA_VERSION_NUM == 501, "Lua 5.1 is needed");

// A script's mistake. The text reaches the script with the caller's position in front.
class ScriptError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// A wrong argument; `index` counts from 1. The script sees "bad argument #1 to 'name' (text)".
class ArgumentError : public std::runtime_error {
 public:
  ArgumentError(int argument_index, const std::string& text) : std::runtime_error(text), index(argument_index) {}
  int index;
};

// Argument `index` read as a signed 32-bit integer the way lua_tointeger reads it; anything but a number gives 0.
// A number beyond 32 bits keeps its low 32 bits. Lua's integers are narrowed nowhere else.
inline int int_arg(lua_State* L, int index) {
  return static_cast<int>(lua_tointeger(L, index));
}

// As int_arg; throws ArgumentError when the argument is not a number.
inline int number_arg(lua_State* L, int index) {
  if (lua_isnumber(L, index) == 0) {
    throw ArgumentError(index, std::string("number expected, got ") + luaL_typename(L, index));
  }
  return int_arg(L, index);
}

// As number_arg, for a number that must be whole: a truncated event type could be another one.
inline int whole_arg(lua_State* L, int index) {
  const int number = number_arg(L, index);
  if (lua_tonumber(L, index) != number) throw ArgumentError(index, "whole 32-bit number expected");
  return number;
}

// Argument `index` as text (a number is converted in place); valid while it stays on the stack. Throws ArgumentError
// when it is neither a string nor a number.
inline const char* text_arg(lua_State* L, int index) {
  const char* text = lua_tostring(L, index);
  if (text == nullptr) throw ArgumentError(index, std::string("string expected, got ") + luaL_typename(L, index));
  return text;
}

// Like text_arg, zero bytes included.
inline std::string_view bytes_arg(lua_State* L, int index) {
  const char* const text = text_arg(L, index);
  return {text, lua_objlen(L, index)};
}

namespace lua_binding {
// Runs body(L, work); what it throws becomes a Lua error after everything in it has been destroyed.
int run_body(lua_State* L, int (*body)(lua_State* L, void* work), void* work);

struct Call {
  void (*run)(lua_State* L, void* work);
  void* work;
};
bool protected_call(lua_State* L, std::string& error, Call call);
}  // namespace lua_binding

// Turns a body that obeys the rules above into a plain C function for Lua, without upvalues.
template <int (*body)(lua_State*)>
int api(lua_State* L) {
  const auto run = [](lua_State* state, void*) { return body(state); };
  return lua_binding::run_body(L, run, nullptr);
}

// The text of the value at `index` for a log line: a string as it is (up to a zero byte), a number as Lua writes it,
// "NOT ERROR" for anything else. Never raises and never changes the stack.
std::string error_value_text(lua_State* L, int index);

// Compiles `code` under the chunk name "temp" and runs it without arguments and results. Returns 1; -1 when it does not
// compile and -2 when it raised, with the error value left on the stack. Only the thread that has the Lua state.
int clua_run_string(lua_State* L, const char* code);

// Removes the error value on top of the stack and returns its text; when it is neither a string nor a number, leaves it
// there and returns "NOT ERROR". Never raises. Only the thread that has the Lua state.
std::string clua_error_text(lua_State* L);

// Runs work(L) inside a protected call, in a frame of its own that starts empty. `work` is a callable that obeys the
// rules for bodies: when Lua raises, no destructor inside it runs. Afterwards the stack is as it was, whatever
// happened; it needs room for two values. Returns true, or false with the text of the error in `error`; throws nothing.
// Only the thread that has the Lua state may call it.
template <typename Work>
bool protect(lua_State* L, std::string& error, Work&& work) {
  using Callable = std::remove_reference_t<Work>;
  const auto run = [](lua_State* state, void* callable) { (*static_cast<Callable*>(callable))(state); };
  return lua_binding::protected_call(L, error, lua_binding::Call{run, &work});
}
