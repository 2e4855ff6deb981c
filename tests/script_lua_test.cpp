// Runs the tables of tests/lua/, which test the script API from Lua, on the real script manager.
//
// Beside the API they find: check(label, got, wanted); raises(text, func, ...); dispatch(type, name, info);
// ran(seconds, milliseconds), which sets the clocks, runs timers and coroutines that are due and returns logged();
// counts() of timers and coroutines, and the wait for the next one of these; log() for the lines since its last call,
// joined by "|"; logged(), the same without those that every coroutine makes and with trace(1, ...) as bare text;
// references() in the registry; lua_dir and docs_dir, where the default scripts and the documents are.

#include <gtest/gtest.h>

#include <cstdlib>

#include "script/clua.h"
#include "script/event_dispatch.h"
#include "script/event_loop.h"
#include "script/manager_script.h"
#include "tests/standin_device.h"
#include "util/text.h"

namespace {

int g_seconds = 0;
int g_milliseconds = 0;

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

int pass_at(lua_State* L) {
  g_seconds = static_cast<int>(lua_tonumber(L, 1));
  g_milliseconds = static_cast<int>(static_cast<int64_t>(lua_tonumber(L, 2)));
  g_mscript->run_timers();
  g_mscript->resume_coroutines();
  return 0;
}

int counts(lua_State* L) {
  lua_pushinteger(L, static_cast<lua_Integer>(g_mscript->timers.size()));
  lua_pushinteger(L, static_cast<lua_Integer>(g_mscript->coroutines.size()));
  lua_pushinteger(L, next_wait_ms(g_mscript->coroutines, g_milliseconds));
  return 3;
}

int take_log(lua_State* L) {
  std::string text;
  for (const std::string& line : standin::log_lines()) text += (text.empty() ? "" : "|") + line;
  standin::reset();
  lua_pushlstring(L, text.data(), text.size());
  return 1;
}

constexpr char kPrelude[] = R"(
local function show(v) return type(v) == "string" and string.format("%q", v) or tostring(v) end
function check(label, got, wanted)
  if got ~= wanted then error(label .. ": got " .. show(got) .. ", wanted " .. show(wanted), 2) end
end
function raises(text, func, ...)
  local done, message = pcall(func, ...)
  check("error", not done and tostring(message):gsub("^[^:]*:%d+: ", ""), text)
end
function logged()
  return (("|" .. log()):gsub("|<2> corutine[^|]*", ""):gsub("|<1> lua%-trace: ", "|"):sub(2))
end
function ran(seconds, milliseconds)
  pass_at(seconds, milliseconds)
  return logged()
end
function references()
  local held = 0
  for _, value in pairs(debug.getregistry()) do held = held + (type(value) == "number" and 0 or 1) end
  return held
end
)";

class ScriptLua : public testing::TestWithParam<const char*> {};

TEST_P(ScriptLua, Table) {
  setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
  ManagerScript script;
  script.clock = {[] { return g_seconds; }, [] { return g_milliseconds; }};
  script.init();
  standin::reset();
  const LuaTurn turn(script.gate);
  lua_State* const L = script.lua_state;
  lua_register(L, "dispatch", dispatch);
  lua_register(L, "pass_at", pass_at);
  lua_register(L, "counts", counts);
  lua_register(L, "log", take_log);
  ASSERT_EQ(clua_run_string(L, "lua_dir, docs_dir = '" ZELVIND_LUA_DIR "', '" ZELVIND_DOCS_DIR "'"), 1);
  ASSERT_EQ(clua_run_string(L, kPrelude), 1) << clua_error_text(L);
  const std::string path = TEST_LUA_DIR "/" + std::string(GetParam()) + ".lua";
  ASSERT_EQ(luaL_dofile(L, path.c_str()), 0) << clua_error_text(L);
  EXPECT_EQ(lua_gettop(L), 0);
}

INSTANTIATE_TEST_SUITE_P(Tables, ScriptLua,
                         testing::Values("utilities", "events", "timers", "coroutines", "base", "names"),
                         [](const auto& table) { return std::string(table.param); });

}  // namespace
