// Loading and reloading, from real folders of script files. init_base.lua beside this program is the one that ships.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "script/event_dispatch.h"
#include "script/manager_script.h"
#include "tests/standin_device.h"
#include "util/text.h"

namespace {

namespace fs = std::filesystem;

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
    script.init();
  }
  ~ScriptLoading() override { fs::remove_all(root); }

  void write(const std::string& file, const std::string& text) const { std::ofstream(root / file) << text; }
  std::string path(const char* folder) const { return (root / folder).string(); }
  void load(const char* external = "") {
    script.load_scripts(path("main").c_str(), *external == '\0' ? "" : path(external).c_str());
  }
  void reload(const char* external = "") {
    script.reload(path("main").c_str(), *external == '\0' ? "" : path(external).c_str());
  }

  // What the scripts traced since the last call, joined by blanks.
  std::string traced() {
    std::string text;
    const std::vector<std::string> lines = standin::log_lines_with("lua-trace: ");
    for (; seen < lines.size(); ++seen) text += (text.empty() ? "" : ", ") + lines[seen].substr(15);
    return text;
  }

  void dispatch(const char* type_name) {
    event_item event{};
    event.info = "";
    copy_text(event.type_name, sizeof(event.type_name), type_name);
    const LuaTurn turn(script.gate);
    dispatch_event(script, event);
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

TEST_F(ScriptLoading, FailuresNameTheFile) {
  struct Case {
    const char* file;
    const char* text;   // null: a folder
    const char* error;  // ROOT stands for the folder
  };
  const Case cases[] = {
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
  for (const Case& row : cases) {
    SCOPED_TRACE(row.error);
    fs::rename(root / "main", root / "kept");
    fs::copy(root / "kept", root / "main");
    if (row.text == nullptr) {
      fs::create_directory(root / row.file);
    } else {
      write(row.file, row.text);
    }
    std::string wanted = row.error;
    for (size_t at = 0; (at = wanted.find("ROOT")) != std::string::npos;) wanted.replace(at, 4, root.string());
    ManagerScript fresh;
    fresh.init();
    try {
      fresh.load_scripts(path("main").c_str(), "");
      ADD_FAILURE() << "loaded";
    } catch (const std::exception& error) {
      EXPECT_EQ(error.what(), wanted);
    }
    EXPECT_EQ(fresh.current_script, nullptr);
    EXPECT_EQ(lua_gettop(fresh.lua_state), 0);
    EXPECT_TRUE(fresh.scripts.empty());
    fs::remove_all(root / "main");
    fs::rename(root / "kept", root / "main");
  }
  g_mscript = &script;
  try {
    script.reload("/nowhere/main", "/nowhere/ext");
    ADD_FAILURE() << "loaded";
  } catch (const std::exception& error) {
    EXPECT_STREQ(error.what(), "Failed to get script file list in path[/nowhere/main]");
  }
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
  ASSERT_EQ(script.timers.size(), 1u);
  EXPECT_EQ(script.timers.front().tag, "alpha");
  script.call_cleanup();
  EXPECT_EQ(traced(), "it is not loading");
}

TEST_F(ScriptLoading, ReloadReplacesHandlersOfTheFileAlone) {
  const char* const two =
      "on('door', function() trace(2, '%s one') end) on('door', function(a) trace(2, a) end, '%s two')";
  write("main/a.lua", sstr(two, "a", "a"));
  write("main/b.lua", sstr(two, "b", "b") + " script_define('bee', 1) on('door', function() error('tagged') end)");
  load();
  dispatch("door");
  EXPECT_EQ(traced(), "a one, a two, b one, b two");
  for (int round = 0; round < 3; ++round) reload();
  dispatch("door");
  EXPECT_EQ(traced(), "a one, a two, b one, b two");
  write("main/a.lua", "on('heat', function() trace(2, 'heat') end)");
  reload();
  dispatch("door");
  dispatch("heat");
  EXPECT_EQ(traced(), "b one, b two, heat");
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
