// The wrappers are plain C: what they wrap may raise a Lua error, which jumps across them.

#include "script/trial_guards.h"

#include <cstring>
#include <string_view>

#include "device/event_line.h"
#include "util/lua_binding.h"
#include "util/text.h"

namespace {

constexpr char kNothing[] = "/dev/null";

bool g_in_trial = false;                        // set before scripts run, in a process of one thread
void (*g_exit_called)(lua_State* L) = nullptr;  // likewise
char g_traceback[8192];                         // of the thread that has the Lua state
char g_traceback_key;                           // its address is where the registry keeps debug.traceback

// Level 2 of debug.traceback is the function that has called ours.
void keep_traceback_here(lua_State* L) {
  g_traceback[0] = '\0';
  lua_pushlightuserdata(L, &g_traceback_key);
  lua_rawget(L, LUA_REGISTRYINDEX);
  lua_pushstring(L, "");
  lua_pushinteger(L, 2);
  if (lua_pcall(L, 2, 1, 0) == 0 && lua_type(L, -1) == LUA_TSTRING) {
    copy_text(g_traceback, sizeof(g_traceback), lua_tostring(L, -1) + 1);  // after the line end of an empty message
  }
  lua_pop(L, 1);
}

// What a wrapper does in a trial. Returns the number of results, or kReal: then the real function is called, for
// instance because it refuses the arguments.
using Instead = int (*)(lua_State* L);
constexpr int kReal = -1;

int open_nothing(lua_State* L) {
  const char* const mode = lua_tostring(L, 2);
  if (mode == nullptr || strpbrk(mode, "wa+") == nullptr || lua_isstring(L, 1) == 0) return kReal;
  lua_pushstring(L, kNothing);
  lua_replace(L, 1);
  return kReal;
}

int write_to_nothing(lua_State* L) {
  if (lua_isstring(L, 1) == 0) return kReal;
  lua_pushstring(L, kNothing);
  lua_replace(L, 1);
  return kReal;
}

// A file of io.open, the wrapper's upvalue: one of io.popen must be closed by pclose.
int run_nothing(lua_State* L) {
  if (lua_isstring(L, 1) == 0) return kReal;
  const char* const mode = luaL_optstring(L, 2, "r");
  lua_pushvalue(L, lua_upvalueindex(1));
  lua_pushstring(L, kNothing);
  lua_pushstring(L, mode);
  lua_call(L, 2, 1);
  return 1;
}

int execute_nothing(lua_State* L) {
  if (lua_isstring(L, 1) == 0) return kReal;  // without a command it asks for a shell
  lua_pushinteger(L, 0);
  return 1;
}

int succeed_with_one(lua_State* L) {
  if (lua_isstring(L, 1) == 0) return kReal;
  lua_pushboolean(L, 1);
  return 1;
}

int succeed_with_two(lua_State* L) {
  if (lua_isstring(L, 1) == 0 || lua_isstring(L, 2) == 0) return kReal;
  lua_pushboolean(L, 1);
  return 1;
}

// Arguments that this daemon's own event_post refuses are left to the real function, so that the trial of a script that
// gets them wrong fails as its reload would.
int post_nothing(lua_State* L) {
  const bool has_info = !lua_isnoneornil(L, 3);
  if (lua_isnumber(L, 1) == 0 || lua_tonumber(L, 1) != int_arg(L, 1) || lua_isstring(L, 2) == 0) return kReal;
  if (check_event_name(bytes_arg(L, 2)) != nullptr || (has_info && lua_isstring(L, 3) == 0)) return kReal;
  if (has_info && bytes_arg(L, 3).find('\0') != std::string_view::npos) return kReal;
  lua_pushboolean(L, 1);
  return 1;
}

int name_nothing(lua_State* L) {
  lua_pushstring(L, kNothing);
  return 1;
}

int exit_trial(lua_State* L) {
  keep_traceback_here(L);
  g_exit_called(L);
  return 0;
}

constexpr struct {
  const char* library;  // null: a global of its own
  const char* name;
  Instead instead;
} kOutside[] = {
    {"io", "open", open_nothing},       {"io", "output", write_to_nothing}, {"io", "popen", run_nothing},
    {"os", "execute", execute_nothing}, {"os", "exit", exit_trial},         {"os", "remove", succeed_with_one},
    {"os", "rename", succeed_with_two}, {"os", "tmpname", name_nothing},    {nullptr, "event_post", post_nothing},
};
constexpr int kCount = sizeof(kOutside) / sizeof(kOutside[0]);

lua_CFunction g_real[kCount];  // the same in every state

template <int index>
int wrapper(lua_State* L) {
  const int results = g_in_trial ? kOutside[index].instead(L) : kReal;
  return results == kReal ? g_real[index](L) : results;
}

template <int index>
void fill(lua_CFunction* wrappers) {
  wrappers[index] = wrapper<index>;
  if constexpr (index > 0) fill<index - 1>(wrappers);
}

// Puts a wrapper in place of the function `name` of the table on top of the stack; one that has upvalues cannot be
// called by its address. The io library keeps what its functions share in their environment.
void wrap(lua_State* L, const char* name, lua_CFunction instead, lua_CFunction& real, int open) {
  lua_getfield(L, -1, name);
  const lua_CFunction found = lua_tocfunction(L, -1);
  const bool has_upvalues = found != nullptr && lua_getupvalue(L, -1, 1) != nullptr;
  if (has_upvalues) lua_pop(L, 1);
  if (found != nullptr && !has_upvalues && found != instead) {
    real = found;
    lua_pushvalue(L, open);
    lua_pushcclosure(L, instead, 1);
    lua_getfenv(L, -2);
    lua_setfenv(L, -2);
    lua_setfield(L, -3, name);
  }
  lua_pop(L, 1);
}

// The message handler of call_traced_in_trial: returns the error value as it is.
int keep_traceback(lua_State* L) {
  keep_traceback_here(L);
  lua_settop(L, 1);
  return 1;
}

}  // namespace

int zelvind_trial() {
  return g_in_trial ? 1 : 0;
}

void wrap_outside_functions(lua_State* L) {
  lua_CFunction wrappers[kCount];
  fill<kCount - 1>(wrappers);
  lua_settop(L, 0);
  lua_getglobal(L, "io");
  lua_getfield(L, 1, "open");
  lua_replace(L, 1);
  for (int i = 0; i < kCount; ++i) {
    if (kOutside[i].library == nullptr) {
      lua_pushvalue(L, LUA_GLOBALSINDEX);
    } else {
      lua_getglobal(L, kOutside[i].library);
    }
    wrap(L, kOutside[i].name, wrappers[i], g_real[i], 1);
    lua_settop(L, 1);
  }
  lua_pushlightuserdata(L, &g_traceback_key);
  lua_getglobal(L, "debug");
  lua_getfield(L, -1, "traceback");
  lua_remove(L, -2);
  lua_rawset(L, LUA_REGISTRYINDEX);
  lua_settop(L, 0);
}

void begin_trial(void (*exit_called)(lua_State* L)) {
  g_exit_called = exit_called;
  g_in_trial = true;
}

void call_traced_in_trial(lua_State* L) {
  if (!g_in_trial) return lua_call(L, 0, 0);
  const int handler = lua_gettop(L);
  lua_pushcfunction(L, keep_traceback);
  lua_insert(L, handler);
  if (lua_pcall(L, 0, 0, handler) != 0) lua_error(L);
  lua_remove(L, handler);
}

const char* trial_traceback() {
  return g_traceback;
}
