// Runs the tables of tests/lua/, which test the script API from Lua, on the real script manager.
//
// Beside the API they find: check(label, got, wanted), raises(label, text, func, ...), dispatch(type, name, info),
// at(seconds, milliseconds) to set the clocks, run_timers(), resume_coroutines(), next_wait(), counts() of timers and
// coroutines, log() for the lines since its last call, joined by "|", and lua_dir, where the default scripts are.

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>

#include "script/clua.h"
#include "script/event_dispatch.h"
#include "script/event_loop.h"
#include "script/manager_script.h"
#include "tests/standin_device.h"
#include "util/text.h"

namespace {

int g_seconds = 0;
int g_milliseconds = 0;

int fail(lua_State* L) {
  ADD_FAILURE() << lua_tostring(L, 1);
  return 0;
}

int dispatch(lua_State* L) {
  event_item event{};
  event.type = static_cast<int>(lua_tointeger(L, 1));
  event.timestamp[0] = 1234;
  event.timestamp[1] = -5;
  copy_text(event.type_name, sizeof(event.type_name), lua_tostring(L, 2));
  event.info = lua_tostring(L, 3);
  lua_pushboolean(L, dispatch_event(*g_mscript, event) ? 1 : 0);
  return 1;
}

int at(lua_State* L) {
  g_seconds = static_cast<int>(lua_tonumber(L, 1));
  g_milliseconds = static_cast<int>(static_cast<int64_t>(lua_tonumber(L, 2)));
  return 0;
}

int run_timers(lua_State*) {
  g_mscript->run_timers();
  return 0;
}

int resume_coroutines(lua_State*) {
  g_mscript->resume_coroutines();
  return 0;
}

int next_wait(lua_State* L) {
  lua_pushinteger(L, next_wait_ms(g_mscript->coroutines, g_milliseconds));
  return 1;
}

int counts(lua_State* L) {
  lua_pushinteger(L, static_cast<lua_Integer>(g_mscript->timers.size()));
  lua_pushinteger(L, static_cast<lua_Integer>(g_mscript->coroutines.size()));
  return 2;
}

int take_log(lua_State* L) {
  static size_t taken = 0;
  const std::vector<std::string> lines = standin::log_lines();
  if (taken > lines.size()) taken = 0;
  std::string text;
  for (; taken < lines.size(); ++taken) text += (text.empty() ? "" : "|") + lines[taken];
  lua_pushlstring(L, text.data(), text.size());
  return 1;
}

constexpr char kPrelude[] = R"(
local function show(v) return type(v) == "string" and string.format("%q", v) or tostring(v) end
function check(label, got, wanted)
  if got ~= wanted then
    fail(debug.getinfo(2, "S").short_src .. ":" .. debug.getinfo(2, "l").currentline .. ": " .. label .. ": got " ..
      show(got) .. ", wanted " .. show(wanted))
  end
end
function references()
  local held = 0
  for _, value in pairs(debug.getregistry()) do held = held + (type(value) == "number" and 0 or 1) end
  return held
end
function raises(label, text, func, ...)
  local done, message = pcall(func, ...)
  check(label, not done and tostring(message):match(": (.*)$") or message, text)
end
)";

void run_table(const char* file) {
  standin::reset();
  ManagerScript script;
  script.clock.seconds = [] { return g_seconds; };
  script.clock.milliseconds = [] { return g_milliseconds; };
  script.init();
  const LuaTurn turn(script.gate);
  lua_State* const L = script.lua_state;
  const luaL_Reg functions[] = {{"fail", fail},
                                {"dispatch", dispatch},
                                {"at", at},
                                {"run_timers", run_timers},
                                {"resume_coroutines", resume_coroutines},
                                {"next_wait", next_wait},
                                {"counts", counts},
                                {"log", take_log}};
  for (const luaL_Reg& function : functions) lua_register(L, function.name, function.func);
  lua_pushstring(L, ZELVIND_LUA_DIR);
  lua_setglobal(L, "lua_dir");
  ASSERT_EQ(clua_run_string(L, kPrelude), 1) << clua_error_text(L);
  const std::string path = std::string(TEST_LUA_DIR) + "/" + file;
  EXPECT_EQ(luaL_dofile(L, path.c_str()), 0) << clua_error_text(L);
  EXPECT_EQ(lua_gettop(L), 0);
}

TEST(ScriptLua, Utilities) {
  run_table("utilities.lua");
}
TEST(ScriptLua, Events) {
  run_table("events.lua");
}
TEST(ScriptLua, Timers) {
  run_table("timers.lua");
}
TEST(ScriptLua, Coroutines) {
  run_table("coroutines.lua");
}
TEST(ScriptLua, Base) {
  setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
  tzset();
  run_table("base.lua");
}

}  // namespace
