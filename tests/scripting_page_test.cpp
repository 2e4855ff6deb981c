// Holds docs/scripting.md, the editor annotations and luacheck's list against what a fresh script manager registers,
// and runs the page's examples. Each example is a script file of its own; a first line "-- NAME.lua" names it. It runs
// for two minutes of a clock that starts at 02:59:00, and must trace exactly its lines "--> text".

#include <gtest/gtest.h>

#include <cctype>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <set>

#include "device/event_queue.h"
#include "script/event_dispatch.h"
#include "script/manager_script.h"
#include "tests/standin_device.h"

namespace {

namespace fs = std::filesystem;
using Names = std::set<std::string>;

constexpr int kStart = 1768013940;  // 2026-01-10 02:59:00 UTC
int g_milliseconds = 0;

struct Example {
  int line = 0;
  std::string file = "example.lua";
  std::string code;
  std::vector<std::string> traced;
};

std::string word_at(const std::string& text, size_t begin) {
  size_t end = begin;
  while (end < text.size() && (isalnum(static_cast<unsigned char>(text[end])) != 0 || text[end] == '_')) ++end;
  return text.substr(begin, end - begin);
}

// The examples, and the names in the headings "### `name(...)`".
std::vector<Example> read_page(Names& in_headings) {
  std::vector<Example> examples;
  std::ifstream page(ZELVIND_DOCS_DIR "/scripting.md");
  bool inside = false;
  int number = 1;
  for (std::string line; std::getline(page, line); ++number) {
    if (line.compare(0, 4, "### ") == 0) {
      for (size_t at = 0; (at = line.find('`', at)) != std::string::npos; ++at)
        in_headings.insert(word_at(line, at + 1));
    }
    inside = inside && line != "```";
    if (inside) {
      Example& example = examples.back();
      if (example.code.empty() && line.compare(0, 3, "-- ") == 0) example.file = line.substr(3);
      if (line.compare(0, 4, "--> ") == 0) example.traced.push_back(line.substr(4));
      example.code += line + "\n";
    }
    if (line == "```lua") examples.emplace_back().line = number + 1, inside = true;
  }
  in_headings.erase("");
  return examples;
}

int post(lua_State* L) {
  standin::post(static_cast<int>(lua_tointeger(L, 1)), lua_tostring(L, 2), luaL_optstring(L, 3, ""));
  lua_pushboolean(L, 1);
  return 1;
}

// One pass of the loop, without its waiting.
void pass(ManagerScript& script) {
  script.run_timers();
  event_item* const event = event_dequeue(0);
  if (event == nullptr) return script.resume_coroutines();
  event->timestamp[0] = kStart;
  event->timestamp[1] = 250000;
  dispatch_event(script, *event);
  event_item_free(event);
}

std::vector<std::string> traced_by(const Example& example, const std::string& folder) {
  standin::reset();
  g_milliseconds = 0;
  fs::create_directory(folder);
  for (const char* file : {"config.lua", "server_event.lua"}) fs::copy(std::string(ZELVIND_LUA_DIR "/") + file, folder);
  std::ofstream(folder + "/" + example.file) << example.code;
  ManagerScript script;
  script.clock = {[] { return kStart + g_milliseconds / 1000; }, [] { return g_milliseconds; }};
  script.init();
  lua_register(script.lua_state, "event_post", post);
  script.load_scripts(folder.c_str(), "");
  const LuaTurn turn(script.gate);
  for (; g_milliseconds < 120000; g_milliseconds += 50) pass(script);
  std::vector<std::string> traced;
  for (std::string line : standin::log_lines_with("lua-trace: ")) {
    for (size_t at = 0; (at = line.find(folder)) != std::string::npos;) line.replace(at, folder.size(), "/opt/scripts");
    traced.push_back(line.substr(15));
  }
  EXPECT_EQ(standin::log_lines_with("<1> mscript: "), std::vector<std::string>{});
  return traced;
}

TEST(ScriptingPage, ExamplesDoWhatTheySay) {
  setenv("TZ", "UTC0", 1);
  tzset();
  char root[] = "/tmp/zelvind-page-XXXXXX";
  ASSERT_NE(mkdtemp(root), nullptr);
  Names in_headings;
  const std::vector<Example> examples = read_page(in_headings);
  EXPECT_GT(examples.size(), 20u);
  for (const Example& example : examples) {
    SCOPED_TRACE("docs/scripting.md:" + std::to_string(example.line));
    EXPECT_NO_THROW(EXPECT_EQ(traced_by(example, root + ("/" + std::to_string(example.line))), example.traced));
  }
  fs::remove_all(root);
}

// Runs a chunk of Lua that returns a table, and collects its keys or, where those are numbers, its values.
Names names_from(lua_State* L, const std::string& code) {
  Names names;
  EXPECT_EQ(luaL_dostring(L, code.c_str()), 0) << lua_tostring(L, -1);
  for (lua_pushnil(L); lua_next(L, -2) != 0; lua_pop(L, 1)) {
    names.insert(lua_tostring(L, lua_type(L, -2) == LUA_TSTRING ? -2 : -1));
  }
  lua_settop(L, 0);
  return names;
}

Names operator-(Names names, const Names& others) {
  for (const std::string& name : others) names.erase(name);
  return names;
}

void expect_same(const char* where, const Names& names, const Names& known) {
  EXPECT_EQ(known - names, Names{}) << "missing in the " << where;
  EXPECT_EQ(names - known, Names{}) << "unknown in the " << where;
}

TEST(ScriptingPage, NamesAreThoseThatScriptsFind) {
  ManagerScript script;
  script.init();
  lua_State* const L = script.lua_state;
  lua_State* const plain = luaL_newstate();
  luaL_openlibs(plain);
  const Names lua_itself = names_from(plain, "return _G");
  lua_close(plain);
  const Names api = names_from(L, "return _G") - lua_itself;
  EXPECT_EQ(api.size(), 30u);
  Names known =
      names_from(L, "dofile('" ZELVIND_LUA_DIR "/init_base.lua') dofile('" ZELVIND_LUA_DIR "/config.lua') return _G") -
      lua_itself;
  known.insert({"event_post", "econf_str", "econf_int"});  // from the device libraries that come with the daemon

  const std::string load = "local e = { stds = {}, files = {} } setfenv(assert(loadfile('" ZELVIND_LUA_DIR "/";
  const std::string annotations = load + "annotations/zelvind.lua')), e)() e.stds = nil e.files = nil return e";
  const std::string list = load +
                           "zelvind.luacheckrc')), e)() local all = e.stds.zelvind.read_globals "
                           "for _, name in ipairs(e.stds.zelvind.globals) do all[#all + 1] = name end return all";
  expect_same("editor annotations", names_from(L, annotations), known);
  expect_same("list for luacheck", names_from(L, list), known);
  Names in_headings, in_examples;
  for (const Example& example : read_page(in_headings)) {
    for (size_t at = 0; at < example.code.size(); ++at) {
      const std::string word = word_at(example.code, at);
      in_examples.insert(word);
      at += word.size();
    }
  }
  expect_same("headings of the page", in_headings, known);
  EXPECT_EQ(known - in_examples, (Names{"econf_int", "econf_str"})) << "in no example";
}

}  // namespace
