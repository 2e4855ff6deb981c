// Runs the examples of docs/scripting.md, those of lua/examples/, and the tables of tests/lua/, which test the script
// API from Lua, on the real script manager.
//
// Beside the API they find: check(label, got, wanted); raises(text, func, ...); traced(), as in the fixture;
// ran(seconds, milliseconds [, passed]), which sets the wall clock, lets `passed` ms pass on the steady one, makes a
// pass and returns what that traced; counts() of timers and coroutines, and the loop's wait for the next coroutine or
// alarm; references() in the registry; dumped_by_coroutine(...); lua_dir and docs_dir, where the default scripts and
// the documents are.

#include "tests/script_fixture.h"
#include "util/lua_binding.h"

namespace {

int push_traced(lua_State* L) {
  lua_pushstring(L, ScriptFixture::traced().c_str());
  return 1;
}

int ran(lua_State* L) {
  ScriptFixture::now_ms = static_cast<int64_t>(lua_tonumber(L, 1)) * 1000 + static_cast<int64_t>(lua_tonumber(L, 2));
  ScriptFixture::passed_ms += static_cast<int64_t>(lua_tonumber(L, 3));
  ScriptFixture::pass();
  return push_traced(L);
}

int counts(lua_State* L) {
  lua_pushinteger(L, static_cast<lua_Integer>(g_mscript->timers.size()));
  lua_pushinteger(L, static_cast<lua_Integer>(g_mscript->coroutines.size()));
  const LuaTurn turn(g_mscript->gate);
  lua_pushinteger(L, g_mscript->next_wait_ms());
  return 3;
}

// Has a coroutine dump the values given, on the stack of this very function; returns what that logged.
int dumped_by_coroutine(lua_State* L) {
  const size_t before = standin::log_lines().size();
  lua_State* const thread = lua_newthread(L);
  lua_getglobal(thread, "stack_dump");
  lua_pushliteral(thread, "below");
  lua_resume(thread, 1);
  const std::vector<std::string> lines = standin::log_lines();
  std::string text;
  for (size_t i = before; i < lines.size(); ++i) text += lines[i].substr(4);
  lua_pushstring(L, text.c_str());
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
function references()
  local held = 0
  for _, value in pairs(debug.getregistry()) do held = held + (type(value) == "number" and 0 or 1) end
  return held
end
)";

class ScriptLua : public ScriptFixture, public testing::WithParamInterface<const char*> {};

TEST_P(ScriptLua, Table) {
  lua_State* const L = script->lua_state;
  lua_register(L, "traced", push_traced);
  lua_register(L, "ran", ran);
  lua_register(L, "counts", counts);
  lua_register(L, "dumped_by_coroutine", dumped_by_coroutine);
  run_lua("lua_dir, docs_dir = '" ZELVIND_LUA_DIR "', '" ZELVIND_DOCS_DIR "'");
  run_lua(kPrelude);
  const std::string file = TEST_LUA_DIR "/" + std::string(GetParam()) + ".lua";
  ASSERT_EQ(luaL_dofile(L, file.c_str()), 0) << clua_error_text(L);
  EXPECT_EQ(lua_gettop(L), 0);
}

INSTANTIATE_TEST_SUITE_P(Tables, ScriptLua,
                         testing::Values("utilities", "events", "timers", "coroutines", "base", "tasks", "names"),
                         [](const auto& table) { return std::string(table.param); });

class ScriptingPage : public ScriptFixture {};

// A script file of its own; a first line "-- NAME.lua" names it. Lines "--> text" tell what it traces in two minutes.
struct Example {
  std::string file = "example.lua";
  std::string code;
  std::string traced;
};

std::vector<Example> examples_of_page() {
  std::vector<Example> examples;
  std::ifstream page(ZELVIND_DOCS_DIR "/scripting.md");
  bool inside = false;
  for (std::string line; std::getline(page, line);) {
    inside = inside && line != "```";
    if (inside) {
      Example& example = examples.back();
      if (example.code.empty() && line.compare(0, 3, "-- ") == 0) example.file = line.substr(3);
      if (line.compare(0, 4, "--> ") == 0) example.traced += (example.traced.empty() ? "" : "|") + line.substr(4);
      example.code += line + "\n";
    }
    if (line == "```lua") examples.emplace_back(), inside = true;
  }
  return examples;
}

TEST_F(ScriptingPage, ExamplesDoWhatTheySay) {
  const std::vector<Example> examples = examples_of_page();
  EXPECT_GT(examples.size(), 20u);
  for (const Example& example : examples) {
    SCOPED_TRACE(example.code);
    begin();
    write("scripts/" + example.file, example.code);
    EXPECT_NO_THROW(load());
    for (int i = 0; i < 600; ++i) pass(200);
    EXPECT_EQ(traced(), example.traced);
  }
}

TEST_F(ScriptingPage, ExamplesToStartFrom) {
  copy("examples");
  load();
  const std::pair<const char*, const char*> events[] = {{"door", "state=open&by=alice"},
                                                        {"door", "state=shut"},
                                                        {"heartbeat", "from=pump"},
                                                        {"heartbeat", "from=nobody"},
                                                        {"report", ""},
                                                        {"uplink", "state=up"},
                                                        {"leak", ""},
                                                        {"leak", ""},
                                                        {"valve", "state=shut"}};
  for (const auto& [name, info] : events) standin::post(1, name, info);
  for (int i = 0; i < 12; ++i) pass(20);
  EXPECT_EQ(traced(),
            "uplink is down, next look in 100 ms|the door is open, says alice|the door is shut|"
            "no report: the process plug-in is not loaded|the valve is shut|siren on|siren off|uplink is up");
  for (int i = 0; i < 100; ++i) pass(1000);
  const std::string reports = traced();
  EXPECT_NE(reports.find("up for "), std::string::npos);
  EXPECT_LT(reports.find("silence of pump: begins"), reports.find("silence of heater: begins"));
  EXPECT_NE(reports.find("silence of heater: begins"), std::string::npos);
  EXPECT_EQ(reports.find("failed"), std::string::npos);
}

}  // namespace
