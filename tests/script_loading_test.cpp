// Loading and reloading, from real folders of script files. init_base.lua beside this program is the one that ships.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>

#include "script/event_dispatch.h"
#include "script/manager_script.h"
#include "tests/standin_device.h"
#include "util/text.h"

namespace {

namespace fs = std::filesystem;

int g_seconds = 0;
int g_milliseconds = 0;

class ScriptLoading : public testing::Test {
 protected:
  ScriptLoading() {
    char name[] = "/tmp/zelvind-scripts-XXXXXX";
    root = mkdtemp(name);
    fs::create_directories(root / "main");
    fs::create_directories(root / "ext");
    write("main/config.lua", "");
    write("main/server_event.lua", "");
    standin::reset();
    script.clock = {[] { return g_seconds; }, [] { return g_milliseconds; }};
    script.init();
  }
  ~ScriptLoading() override { fs::remove_all(root); }

  void write(const std::string& file, const std::string& text) const { std::ofstream(root / file) << text; }
  std::string path(const char* folder) const { return *folder == '\0' ? "" : (root / folder).string(); }
  void load(const char* external = "") { script.load_scripts(path("main").c_str(), path(external).c_str()); }
  void reload(const char* external = "") { script.reload(path("main").c_str(), path(external).c_str()); }

  // What the scripts traced since the last call, joined by blanks.
  std::string traced() {
    std::string text;
    const std::vector<std::string> lines = standin::log_lines_with("lua-trace: ");
    for (; seen < lines.size(); ++seen) text += (text.empty() ? "" : ", ") + lines[seen].substr(15);
    return text;
  }

  void dispatch(const char* type_name, const char* info = "") {
    event_item event{};
    event.info = info;
    copy_text(event.type_name, sizeof(event.type_name), type_name);
    const LuaTurn turn(script.gate);
    dispatch_event(script, event);
  }

  // What timers and coroutines trace now.
  std::string pass() {
    const LuaTurn turn(script.gate);
    script.run_timers();
    script.resume_coroutines();
    return traced();
  }

  // What the handlers of the door trace, `seconds` later.
  std::string handled(int seconds = 0) {
    g_seconds += seconds;
    g_milliseconds += 10;
    pass();
    dispatch("door");
    return traced();
  }

  fs::path root;
  ManagerScript script;
  size_t seen = 0;
};

TEST_F(ScriptLoading, OrderOfFiles) {
  for (const char* file : {"main/a.lua", "main/ab.lua", "main/B.lua", "main/both.lua", "main/.lua", "ext/both.lua",
                           "ext/z.lua", "ext/config.lua", "main/x.LUA", "main/x.lua.bak", "main/a"}) {
    write(file, "trace(2, '" + std::string(file) + "')");
  }
  write("main/server_event.lua", "trace(2, 'server main') function event_server.init() trace(2, 'init') end");
  load("ext");
  EXPECT_EQ(
      traced(),
      "ext/config.lua, server main, init, ext/both.lua, ext/z.lua, main/.lua, main/B.lua, main/a.lua, main/ab.lua");
  EXPECT_EQ(standin::log_lines_with("mscript: ").back(),
            "<2> mscript: load script files from " + path("main") + ", " + path("ext") + "...");
  reload("ext");
  EXPECT_EQ(traced(), "ext/both.lua, ext/z.lua, main/.lua, main/B.lua, main/a.lua, main/ab.lua");
  reload("main");
  EXPECT_EQ(traced(), "main/.lua, main/B.lua, main/a.lua, main/ab.lua, main/both.lua");
  reload("missing");
  EXPECT_EQ(standin::log_lines_with("<1>").back(),
            "<1> mscript: Ignored - Failed to get script file list in path[" + path("missing") + "]");
  EXPECT_EQ(script.scripts.size(), 5u);
}

std::string error_of(const std::function<void()>& action) {
  try {
    action();
  } catch (const std::exception& error) {
    return error.what();
  }
  return "no error";
}

TEST_F(ScriptLoading, FailuresNameTheFile) {
  const struct {
    const char* file;
    const char* text;   // null: a folder
    const char* error;  // ROOT stands for the folder
  } cases[] = {
      {"main/x.lua", "error('boom')", "could not execute script[ROOT/main/x.lua] -- ROOT/main/x.lua:1: boom"},
      {"main/x.lua", "error({})", "could not execute script[ROOT/main/x.lua] -- NOT ERROR"},
      {"main/x.lua", "error('%s%n', 0)", "could not execute script[ROOT/main/x.lua] -- %s%n"},
      {"main/x.lua", "x = = 1",
       "could not load file[ROOT/main/x.lua] -- ROOT/main/x.lua:1: unexpected symbol near '='"},
      {"main/d.lua", nullptr, "could not load file[ROOT/main/d.lua] -- cannot read ROOT/main/d.lua: Is a directory"},
      {"main/config.lua", "error(5, 0)", "could not execute script[ROOT/main/config.lua] -- 5"},
      {"main/server_event.lua", "event_server.init = nil",
       "mscript: failed to run event_server.init() - [string \"temp\"]:1: attempt to call field 'init' (a nil value)"},
  };
  for (const auto& row : cases) {
    SCOPED_TRACE(row.error);
    if (row.text == nullptr) fs::create_directory(root / row.file);
    if (row.text != nullptr) write(row.file, row.text);
    std::string wanted = row.error;
    for (size_t at = 0; (at = wanted.find("ROOT")) != std::string::npos;) wanted.replace(at, 4, root.string());
    ManagerScript fresh;
    fresh.init();
    EXPECT_EQ(error_of([&] { fresh.load_scripts(path("main").c_str(), ""); }), wanted);
    EXPECT_EQ(fresh.current_script, nullptr);
    EXPECT_EQ(lua_gettop(fresh.lua_state), 0);
    EXPECT_TRUE(fresh.scripts.empty());
    fs::remove_all(root / row.file);
    for (const char* base : {"main/config.lua", "main/server_event.lua"}) write(base, "");
  }
  g_mscript = &script;
  EXPECT_EQ(error_of([&] { script.reload("/nowhere/main", "/nowhere/ext"); }),
            "Failed to get script file list in path[/nowhere/main]");
  EXPECT_TRUE(standin::log_lines_with("Ignored").empty());
}

TEST_F(ScriptLoading, ModuleNamesAndTags) {
  write("main/a.lua",
        "trace(2, '[' .. get_module_name() .. ']') trace(2, tostring(pcall(tmr_add, print, 1, 0, 1)))"
        "script_define('first', {}) script_define('alpha') trace(2, get_module_name())"
        "tmr_add(print, 1, 0, 1)");
  write("main/server_event.lua",
        "function event_server.init() set_handler_tag('lingers') trace(2, tostring(pcall(get_module_name))) end "
        "function event_server.cleanup() trace(2, select(2, pcall(get_module_name))) end");
  load();
  EXPECT_EQ(traced(), "false, [], false, alpha");
  EXPECT_EQ(script.timers.back().tag, "alpha");
  script.call_cleanup();
  EXPECT_EQ(traced(), "it is not loading");
}

// Every row is loaded, reloaded three times, changed, and reloaded once more, while it must always work exactly once;
// also with init_base.lua among the script files, and with globals that refuse what nobody has declared.
TEST_F(ScriptLoading, ReloadsReplaceWhatFilesRegistered) {
  const char* const by_hand =
      "rawset(_G, 'es_door', rawget(_G, 'es_door') or { list_func = {} })"
      "table.insert(es_door.list_func, { 'm', function() trace(2, 'by hand') end })";
  const std::string define = "script_define('m', {}) ";
  const std::string defined_first = define + by_hand;
  const std::string defined_last = by_hand + (" " + define);
  const std::string table = "rawset(_G, 'es_door', { list_func = { { 'm', function() trace(2, 'table') end } } }) ";
  const auto on = [](const char* text) { return sstr("on('door', function() trace(2, '%s') end) ", text); };
  const struct {
    const char* name;
    std::string a, b, handled;        // a.lua, b.lua, what their handlers trace
    std::string new_a, new_b, later;  // likewise; a file without text is removed
  } cases[] = {
      {"on", on("a1") + on("a2"), on("b"), "a1, a2, b", on("a2") + on("a3"), on("b"), "a2, a3, b"},
      {"named late", on("a") + "script_define('late') " + on("late"), "", "a, late", on("a"), "", "a"},
      {"one file disappears", on("a"), on("b"), "a, b", "", on("b"), "b"},
      {"all disappear, another comes", on("a"), "", "a", "", on("b"), "b"},
      {"no longer registers", on("a"), on("b"), "a, b", on("a"), "local x = 1", "a"},
      {"in a handler", "on('door', function() trace(2, 'a') every(9, print) on('door', function() end) end)", "", "a",
       on("b"), "", "b"},
      {"in a task", "task(function() cr_yield(5) " + on("a") + " every(9, print) end)", "", "a", on("b"), "", "b"},
      {"by hand, defined last from now on", defined_first, "", "by hand", defined_last, "", "by hand"},
      {"by hand, the same before others", defined_first, on("b"), "by hand, b", defined_last, on("b"), "by hand, b"},
      {"by hand", defined_first, "", "by hand", defined_first + on("on"), "", "by hand, on"},
      {"by hand, defined last", defined_last, "", "by hand", defined_last, on("on"), "by hand, on"},
      {"by hand, among others", on("a"), defined_first, "a, by hand", "", on("b"), "b"},
      {"by hand, first of others", defined_last, on("b"), "by hand, b", defined_last, "", "by hand"},
      {"by hand, moves to another file", defined_first, on("b"), "by hand, b", on("a"), defined_first, "a, by hand"},
      {"by hand, last becomes first", on("a"), defined_first, "a, by hand", "", defined_first, "by hand"},
      {"a table of its own", table + define, "", "table", define + table, "", "table"},
      {"a tag of its own",
       define + "if not kept then rawset(_G, 'kept', 1) on('door', function() end)" +
           " es_door.list_func[1] = { 'x', function() trace(2, 'x') end } end",
       "", "x", on("a"), "", "x, a"},
  };
  const std::pair<const char*, bool> settings[] = {
      // config.lua, and whether init_base.lua is among the scripts
      {"", false},
      {"", true},
      {"rawset(_G, 'kept', false) setmetatable(_G, { __index = error, __newindex = error })", true},
  };
  for (const auto& [config, base_twice] : settings) {
    SCOPED_TRACE(testing::Message() << "'" << config << "' " << base_twice);
    write("main/config.lua", config);
    if (base_twice)
      fs::copy_file(ZELVIND_LUA_DIR "/init_base.lua", root / "main/init_base.lua", fs::copy_options::skip_existing);
    for (const auto& row : cases) {
      SCOPED_TRACE(row.name);
      const auto files = [&](const std::string& a, const std::string& b) {
        for (const auto& [name, text] : {std::pair("main/a.lua", a), std::pair("main/j.lua", b)}) {
          fs::remove(root / name);
          if (!text.empty()) write(name, text);
        }
      };
      script.cleanup();
      script.init();
      files(row.a, row.b);
      load();
      for (int round = 0; round < 4; ++round) {
        if (round > 0) reload();
        EXPECT_EQ(round == 1 ? row.handled : handled(), row.handled) << "round " << round;
      }
      handled(2);
      files(row.new_a, row.new_b);
      for (int round = 0; round < 2; ++round) {
        reload();
        EXPECT_EQ(handled(), row.later) << "new round " << round;
      }
      EXPECT_EQ(handled(100), row.later);
      EXPECT_TRUE(script.timers.empty() && script.coroutines.empty());
    }
  }
}

// Timers and tasks of the load before end when they come to run. Times are UTC.
TEST_F(ScriptLoading, ReloadsEndFormerTimersAndTasks) {
  setenv("TZ", "UTC0", 1);
  tzset();
  const auto pass_at = [&](int hour, int minute, int second, int ms = 0) {
    g_seconds = 1767225600 + (hour * 60 + minute) * 60 + second;
    g_milliseconds = ms;
    return pass();
  };
  pass_at(2, 58, 55);
  write("main/server_event.lua",
        "every(10, function() trace(2, 'base') end) function event_server.init()"
        " task(function() cr_yield(5) trace(2, 'base task') end) end");
  write("main/a.lua",
        "every(10, function() trace(2, 'tick') end) on('heat', function() trace(2, 'heat') end) "
        "at(3, 0, function() trace(2, 'three') end) task(function() while true do cr_yield(100) trace(2, 'task') end "
        "end)");
  load();
  EXPECT_EQ(script.timers.front().tag, "server_event.lua");
  EXPECT_EQ(script.timers.back().tag, "a.lua");
  EXPECT_EQ(script.handler_tag, "");
  for (int round = 0; round < 3; ++round) reload();
  EXPECT_EQ(script.coroutines.size(), 5u);
  EXPECT_EQ(pass_at(2, 58, 56, 101), "base task, task");
  EXPECT_EQ(script.coroutines.size(), 1u);
  EXPECT_EQ(pass_at(2, 59, 1), "base, tick");
  EXPECT_EQ(script.timers.size(), 3u);
  // A reload in the very second does not lose the daily run, and one after it does not repeat it.
  g_seconds += 59;
  reload();
  EXPECT_EQ(pass_at(3, 0, 0), "base");
  EXPECT_EQ(pass_at(3, 1, 0), "base, tick, three");
  reload();
  EXPECT_EQ(pass_at(3, 2, 0), "base, tick");
  dispatch("heat");
  EXPECT_EQ(traced(), "heat");
  fs::remove(root / "main/a.lua");
  write("main/b.lua", "on('door', print)");
  reload();
  dispatch("heat");
  EXPECT_EQ(standin::log_lines().back(), "<1> mscript: unknown event type[heat]");
  EXPECT_EQ(pass_at(3, 3, 0, 1000), "base");
  EXPECT_EQ(script.timers.size(), 1u);
  EXPECT_TRUE(script.coroutines.empty());
}

TEST_F(ScriptLoading, Examples) {
  g_seconds = 1000000;
  g_milliseconds = 0;
  for (const auto& file : fs::directory_iterator(ZELVIND_LUA_DIR "/examples")) fs::copy(file, root / "main");
  write("main/server_event.lua", "function event_post(_, name, info) trace(2, name .. ' ' .. info) end");
  load();
  EXPECT_EQ(traced(), "uplink is down, next look in 100 ms");
  dispatch("door", "state=open&by=alice");
  dispatch("door", "state=shut");
  dispatch("heartbeat", "from=pump");
  dispatch("heartbeat", "from=nobody");
  dispatch("uplink", "state=up");
  dispatch("silence", "part=pump&state=begins");
  g_milliseconds = 101;
  EXPECT_EQ(pass(), "the door is open, says alice, the door is shut, silence of pump: begins, uplink is up");
  std::string reports;
  for (int i = 0; i < 12; ++i) g_seconds += 5, reports += pass() + "\n";
  EXPECT_NE(reports.find("up for 0 s, "), std::string::npos);
  EXPECT_NE(reports.find("silence part=pump&state=begins&after=30"), std::string::npos);
  EXPECT_NE(reports.find("silence part=heater&state=begins&after=60"), std::string::npos);
  EXPECT_EQ(reports.find("failed"), std::string::npos);
}

TEST_F(ScriptLoading, ClosingRunsFinalizersThatCallTheApi) {
  write("main/a.lua",
        "script_define('a', 1) keep = newproxy(true) getmetatable(keep).__gc = function()"
        " trace(2, 'closing') pcall(tmr_add, print, 1, 0, 1) set_handler_tag('t') tmr_add(print, 1, 0, 1)"
        " cr_add(function() cr_yield(5) end, 0, 1) error('in a finalizer') end");
  load();
  script.cleanup();
  EXPECT_EQ(traced(), "closing");
  EXPECT_EQ(script.lua_state, nullptr);
  EXPECT_TRUE(script.timers.empty() && script.coroutines.empty());
}

}  // namespace
