// libeaprocess.so: lets scripts run the device's own tools without holding up the event loop.
//
//   g++ -std=c++17 -O2 -fPIC -shared -pthread -Wl,-z,now $(pkg-config --cflags lua5.1) -o libeaprocess.so *.cpp
//
// It adds proc_run(argv, timeout_s, func [, arg]), which starts a program and returns its number at once. When the
// program has ended, the event "proc_done" (type 7002, fields `id` and `status`) is posted, and a handler in
// es_proc_done.list_func calls func(arg, status, output). And it adds run_wait(argv [, timeout_s]), for tasks of the
// default scripts, which waits for that event and returns status and output.
//
// A Lua error is a long jump, and nearly every Lua function can raise one: no destructor runs in the frames that it
// crosses. So this file uses plain values, Lua's own memory and the Lua stack only. Everything else is behind
// program_runner.h, whose functions never call Lua and never throw.

#include <zelvind/plugin.h>

#include <cerrno>
#include <cstring>
#include <lua.hpp>

#include "program_runner.h"

namespace {

// Their addresses are keys in Lua's registry.
char g_callbacks_key;  // table: number of a program -> { func, arg }
char g_guard_key;      // userdata whose finalizer ends the programs when the Lua state is closed, on whatever path

int proc_done(lua_State* L);

void push_registered(lua_State* L, char* key) {
  lua_pushlightuserdata(L, key);
  lua_rawget(L, LUA_REGISTRYINDEX);
}

// Pushes the table `table`[name], which it makes when it is missing; `table` is an absolute index. Uses raw access, so
// that a strict table of globals does not object. Raises an error when the value is not a table.
void push_table_field(lua_State* L, int table, const char* name) {
  lua_pushstring(L, name);
  lua_rawget(L, table);
  if (lua_istable(L, -1)) return;
  if (!lua_isnil(L, -1)) luaL_error(L, "%s is a %s, not a table", name, luaL_typename(L, -1));
  lua_pop(L, 1);
  lua_newtable(L);
  lua_pushstring(L, name);
  lua_pushvalue(L, -2);
  lua_rawset(L, table);
}

// Makes sure that our handler is among those of "proc_done": a script may have replaced the table, and then the events
// of the programs that have ended since have reached nobody.
void ensure_handler(lua_State* L) {
  const int top = lua_gettop(L);
  push_table_field(L, LUA_GLOBALSINDEX, "es_proc_done");
  push_table_field(L, top + 1, "list_func");
  const int list = top + 2;
  const int count = static_cast<int>(lua_objlen(L, list));
  bool found = false;
  for (int i = 1; i <= count && !found; ++i) {
    lua_rawgeti(L, list, i);
    if (lua_istable(L, -1)) {
      lua_rawgeti(L, -1, 2);
      found = lua_tocfunction(L, -1) == proc_done;
    }
    lua_settop(L, list);
  }
  if (!found) {
    lua_createtable(L, 2, 0);
    lua_pushliteral(L, "process");
    lua_rawseti(L, -2, 1);
    lua_pushcfunction(L, proc_done);
    lua_rawseti(L, -2, 2);
    lua_rawseti(L, list, count + 1);
    program_runner::post_again();
  }
  lua_settop(L, top);
}

// Makes an argument vector of the list at index 1, in Lua's memory. The vector and a table of its texts are left on the
// stack, where they must stay while the vector is used.
const char* const* push_argv(lua_State* L) {
  const int count = static_cast<int>(lua_objlen(L, 1));
  luaL_argcheck(L, count > 0, 1, "a list with the program and its arguments expected");
  lua_createtable(L, count, 0);
  const int texts = lua_gettop(L);
  auto* const argv = static_cast<const char**>(lua_newuserdata(L, (static_cast<size_t>(count) + 1) * sizeof(char*)));
  for (int i = 0; i < count; ++i) {
    lua_rawgeti(L, 1, i + 1);
    size_t size = 0;
    argv[i] = lua_tolstring(L, -1, &size);
    if (argv[i] == nullptr) {
      luaL_error(L, "argument %d of the program is a %s", i, luaL_typename(L, -1));
    } else if (strlen(argv[i]) != size) {
      luaL_error(L, "argument %d of the program holds a zero byte", i);
    }
    lua_rawseti(L, texts, i + 1);
  }
  argv[count] = nullptr;
  return argv;
}

// True in the copy of the daemon that tries a reload: it has none of our threads, and a lock may be held for good
// there.
bool in_trial() {
  return zelvind_trial != nullptr && zelvind_trial() != 0;
}

// Hands over the program argv, for timeout_s seconds; `callback` is the index of a table { func, arg }, or of false.
// Returns its number.
int start_program(lua_State* L, lua_Number timeout_s, int callback) {
  const char* const* const argv = push_argv(L);
  if (in_trial()) return 1;
  ensure_handler(L);
  const int id = program_runner::next_id();

  // All that can raise comes before the program is handed over.
  push_registered(L, &g_callbacks_key);
  lua_pushvalue(L, callback);
  lua_rawseti(L, -2, id);
  const char* const refusal = program_runner::run(id, argv, static_cast<int>(timeout_s * 1000));
  if (refusal != nullptr) {
    lua_pushnil(L);
    lua_rawseti(L, -2, id);
    luaL_error(L, "%s", refusal);
  }
  return id;
}

lua_Number check_timeout(lua_State* L) {
  const lua_Number timeout_s = luaL_checknumber(L, 2);
  const bool in_range = timeout_s >= 0.001 && timeout_s <= program_runner::kTimeoutMaxS;
  luaL_argcheck(L, in_range, 2, "0.001 to 86400 seconds expected");
  return timeout_s;
}

// proc_run(argv, timeout_s, func [, arg])
int proc_run(lua_State* L) {
  luaL_checktype(L, 1, LUA_TTABLE);
  const lua_Number timeout_s = check_timeout(L);
  luaL_checktype(L, 3, LUA_TFUNCTION);
  lua_settop(L, 4);
  lua_createtable(L, 2, 0);
  lua_pushvalue(L, 3);
  lua_rawseti(L, -2, 1);
  lua_pushvalue(L, 4);
  lua_rawseti(L, -2, 2);
  lua_pushinteger(L, start_program(L, timeout_s, 5));
  return 1;
}

// Pushes status and output of a program that has ended, and drops them. Returns false when it has not ended.
bool take_result(lua_State* L, int id) {
  program_runner::Result result{};
  if (in_trial() || !program_runner::find_result(id, &result)) return false;
  lua_pushinteger(L, result.status);
  lua_pushlstring(L, result.output, result.output_size);
  program_runner::drop(id);
  push_registered(L, &g_callbacks_key);
  lua_pushnil(L);
  lua_rawseti(L, -2, id);
  lua_pop(L, 1);
  return true;
}

// The handler of "proc_done". Anybody can post such an event: a number that no finished program has is ignored, and
// what run_wait has started is left to it.
int proc_done(lua_State* L) {
  lua_settop(L, 0);
  lua_getglobal(L, "evt_field_int");
  lua_pushliteral(L, "id");
  lua_call(L, 1, 1);
  const int id = static_cast<int>(lua_tointeger(L, 1));
  push_registered(L, &g_callbacks_key);
  lua_rawgeti(L, 2, id);
  if (!lua_istable(L, 3)) return 0;
  lua_rawgeti(L, 3, 1);
  lua_rawgeti(L, 3, 2);
  if (take_result(L, id)) lua_call(L, 3, 0);
  return 0;
}

// The three functions that run_wait is made of.

// start(argv, timeout_s): the program's number.
int start(lua_State* L) {
  luaL_checktype(L, 1, LUA_TTABLE);
  const lua_Number timeout_s = check_timeout(L);
  lua_settop(L, 2);
  lua_pushboolean(L, 0);
  lua_pushinteger(L, start_program(L, timeout_s, 3));
  return 1;
}

// take(id): status and output, or nothing while the program runs.
int take(lua_State* L) {
  return take_result(L, static_cast<int>(lua_tointeger(L, 1))) ? 2 : 0;
}

// drop(id): ends the program and forgets it.
int drop(lua_State* L) {
  const int id = static_cast<int>(lua_tointeger(L, 1));
  if (in_trial()) return 0;
  program_runner::drop(id);
  push_registered(L, &g_callbacks_key);
  lua_pushnil(L);
  lua_rawseti(L, -2, id);
  return 0;
}

// A task that ends while it waits, by a reload too, leaves neither the program nor its result behind. The time beyond
// the program's own is for its end by SIGKILL; an event that was lost is found out about then.
constexpr char kRunWait[] = R"lua(
local start, take, drop = ...
local programs = setmetatable({}, { __mode = "k" }) -- thread of a task -> its program's number, false without one
function run_wait(argv, seconds)
  local thread = coroutine.running()
  if not thread or programs[thread] == nil then
    local function drop_program()
      if programs[thread] then drop(programs[thread]) end
    end
    if not pcall(finally, drop_program) then error("run_wait outside a task", 2) end
    programs[thread] = false
  end
  if programs[thread] then drop(programs[thread]) end -- a wait that failed, inside pcall
  seconds = seconds or 60
  local done, id = pcall(start, argv, seconds)
  if not done then error(id, 2) end
  programs[thread] = id
  local status, output = take(id)
  while not status do
    wait_event("proc_done", seconds + 2, { id = id })
    status, output = take(id)
  end
  programs[thread] = false
  return status, output
end
)lua";

void add_run_wait(lua_State* L) {
  if (luaL_loadbuffer(L, kRunWait, sizeof(kRunWait) - 1, "=run_wait") != 0) lua_error(L);
  lua_pushcfunction(L, start);
  lua_pushcfunction(L, take);
  lua_pushcfunction(L, drop);
  lua_call(L, 3, 0);
}

int end_programs(lua_State*) {
  program_runner::stop();
  return 0;
}

}  // namespace

int eaction_init(lua_State* L) {
  if (event_post == nullptr) {
    elog(1, "process: this device's event queue takes no events from plug-ins");
    return -1;
  }
  lua_pushlightuserdata(L, &g_callbacks_key);
  lua_newtable(L);
  lua_rawset(L, LUA_REGISTRYINDEX);
  lua_pushlightuserdata(L, &g_guard_key);
  lua_newuserdata(L, 0);
  lua_newtable(L);
  lua_pushcfunction(L, end_programs);
  lua_setfield(L, -2, "__gc");
  lua_setmetatable(L, -2);
  lua_rawset(L, LUA_REGISTRYINDEX);
  lua_register(L, "proc_run", proc_run);
  add_run_wait(L);
  ensure_handler(L);
  if (program_runner::start()) return 0;
  // NOLINTNEXTLINE(concurrency-mt-unsafe): the texts of known error numbers are constants
  elog(1, "process: failed to start - %s", strerror(errno));
  return -1;
}

// The programs end with the Lua state, which is before this; but after a failed eaction_init the state lives on.
void eaction_cleanup() {
  program_runner::stop();
}
