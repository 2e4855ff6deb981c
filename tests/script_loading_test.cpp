// Loading and reloading, from real folders of script files. init_base.lua beside this program is the one that ships.

#include "tests/script_fixture.h"
#include "util/text.h"

namespace {

class ScriptLoading : public ScriptFixture {
 protected:
  // What the handlers of the door trace, a while later.
  std::string handled(int after_ms = 10) {
    pass(after_ms);
    standin::post(1, "door", "");
    pass();
    return traced();
  }
};

TEST_F(ScriptLoading, OrderOfFiles) {
  for (const char* file : {"scripts/a.lua", "scripts/ab.lua", "scripts/B.lua", "scripts/both.lua", "scripts/x.lua.bak",
                           "ext/both.lua", "ext/z.lua", "ext/config.lua"}) {
    write(file, "trace(2, '" + std::string(file) + "')");
  }
  write("scripts/server_event.lua", "trace(2, 'server') function event_server.init() trace(2, 'init') end");
  const std::string scripts = "scripts/B.lua|scripts/a.lua|scripts/ab.lua";
  load("ext");
  EXPECT_EQ(traced(), "ext/config.lua|server|init|ext/both.lua|ext/z.lua|" + scripts);
  reload("ext");
  EXPECT_EQ(traced(), "ext/both.lua|ext/z.lua|" + scripts);
  reload("scripts");
  EXPECT_EQ(traced(), scripts + "|scripts/both.lua");
  reload("none");
  EXPECT_EQ(traced(), "<1> mscript: Ignored - Failed to get script file list in path[/opt/none]|" + scripts +
                          "|scripts/both.lua");
}

TEST_F(ScriptLoading, FailuresNameTheFile) {
  const struct {
    const char *file, *text, *error;
  } cases[] = {
      {"x.lua", "error('boom')", "could not execute script[/opt/scripts/x.lua] -- /opt/scripts/x.lua:1: boom"},
      {"x.lua", "x = = 1",
       "could not load file[/opt/scripts/x.lua] -- /opt/scripts/x.lua:1: unexpected symbol near '='"},
      {"server_event.lua", "event_server.init = nil",
       "mscript: failed to run event_server.init() - [string \"temp\"]:1: attempt to call field 'init' (a nil value)"},
  };
  for (const auto& row : cases) {
    begin();
    write("scripts/" + std::string(row.file), row.text);
    std::string error;
    try {
      load();
    } catch (const std::exception& failure) {
      error = failure.what();
    }
    EXPECT_EQ(under_opt(error), row.error);
    EXPECT_EQ(script->scripts.current(), nullptr);
    EXPECT_EQ(lua_gettop(script->lua_state), 0);
    EXPECT_EQ(script->scripts.size(), 0u);
  }
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
  const std::string closed =
      "rawset(_G, 'es_door', { list_func = setmetatable({ { 'o', function() trace(2, 'other') end },"
      " { 'm', function() trace(2, 'closed') end } }, { __newindex = error }) }) ";
  const std::string prepared =
      "rawset(_G, 'es_door', rawget(_G, 'es_door') or { list_func = {} }) on('other', print) "
      "table.insert(es_door.list_func, { 'j.lua', function() trace(2, 'prepared') end }) ";
  const auto on = [](const char* text) { return sstr("on('door', function() trace(2, '%s') end) ", text); };
  const struct {
    const char* name;
    std::string a, j, handled;        // a.lua and j.lua, which init_base.lua comes between; what their handlers trace
    std::string new_a, new_j, later;  // likewise
  } cases[] = {
      {"on", on("a1") + on("a2"), on("b"), "a1|a2|b", on("a2") + on("a3"), on("b"), "a2|a3|b"},
      {"named late", on("a") + "script_define('late') " + on("late"), "", "a|late", on("a"), "", "a"},
      {"one file is emptied", on("a"), on("b"), "a|b", "", on("b"), "b"},
      {"in a handler", "on('door', function() trace(2, 'a') every(9, print) on('door', function() end) end)", "", "a",
       on("b"), "", "b"},
      {"in a task", "task(function() cr_yield(5) " + on("a") + " every(9, print) end)", "", "a", on("b"), "", "b"},
      {"by hand, the same before others", defined_first, on("b"), "by hand|b", defined_last, on("b"), "by hand|b"},
      {"by hand", defined_first, "", "by hand", defined_first + on("on"), "", "by hand|on"},
      {"by hand, defined last", defined_last, "", "by hand", defined_last, on("on"), "by hand|on"},
      {"by hand, among others", on("a"), defined_first, "a|by hand", "", on("b"), "b"},
      {"by hand, first of others", defined_last, on("b"), "by hand|b", defined_last, "", "by hand"},
      {"a table of its own", table + define, "", "table", define + table, "", "table"},
      {"a list that is closed", closed + define, "", "other|closed", "rawset(_G, 'es_door', nil)" + on("a"), "", "a"},
      {"a list of another's", on("a"), prepared, "a|prepared", "", prepared, "prepared"},
  };
  for (const bool strict : {false, true}) {
    for (const auto& row : cases) {
      SCOPED_TRACE(sstr("%s, strict %d", row.name, strict));
      begin();
      if (strict) copy("init_base.lua");
      if (strict) write("scripts/config.lua", "setmetatable(_G, { __index = error, __newindex = error })");
      write("scripts/a.lua", row.a);
      write("scripts/j.lua", row.j);
      load();
      for (int round = 0; round < 4; ++round) {
        if (round > 0) reload();
        EXPECT_EQ(round == 1 ? row.handled : handled(), row.handled) << "round " << round;
      }
      handled(2000);
      write("scripts/a.lua", row.new_a);
      write("scripts/j.lua", row.new_j);
      for (int round = 0; round < 2; ++round) {
        reload();
        EXPECT_EQ(handled(), row.later) << "new round " << round;
      }
      EXPECT_EQ(handled(100000), row.later);
      EXPECT_EQ(script->timers.size() + script->coroutines.size(), 0u);
    }
  }
}

// What a load has made is gone when the next one begins, with everything it held.
TEST_F(ScriptLoading, ReloadsReleaseFormerTimersAndTasks) {
  write("scripts/a.lua",
        "rounds = (rounds or 1000) + 1 local data = string.rep('x', 100000) .. rounds "
        "on('door', function() return data end) every(7, print, { data }) every(0.5, print, { data }) "
        "after(9, print, { data }) at(3, 0, print, { data }) task(function(d) cr_yield(100000) return d end, { data }) "
        "task(function() finally(function() trace(2, 'end ' .. #data) end) wait_event('window', 60) end)"
        "tmr_add(function() end, 3600, 0, 0) cr_add(function() cr_yield(1000000) end, 0, 0)");
  load();
  pass(10);
  const auto counts = [&] { return std::pair(script->timers.size(), script->coroutines.size()); };
  const auto heap = [&] {
    script->collect_garbage();
    return lua_gc(script->lua_state, LUA_GCCOUNT, 0);
  };
  const auto [timers, coroutines] = counts();
  const int before = [&] {
    const LuaTurn turn(script->gate);
    return heap();
  }();
  for (size_t round = 1; round <= 150; ++round) {
    reload();
    ASSERT_EQ(traced(), "end 100004");
    pass(10);
    ASSERT_EQ(counts(), std::pair(timers + round, coroutines + round)) << "those of tmr_add and cr_add stay";
  }
  const LuaTurn turn(script->gate);
  EXPECT_LT(heap(), before + 150 * 2) << "KiB; each coroutine of cr_add takes one";
}

// It would belong to no load.
TEST_F(ScriptLoading, WhatAReloadEndsRegistersNothing) {
  write("scripts/a.lua", "task(function() finally(function() on('door', print) end) cr_yield(100000) end)");
  load();
  reload();
  const std::string told = "a.lua: finally of a task failed: /opt/scripts/a.lua:1: a task that a reload ends cannot ";
  EXPECT_EQ(traced().rfind(told + "register anything|", 0), 0u);
  EXPECT_EQ(handled(), "<1> mscript: unknown event type[door]");
}

// Daily runs bear reloads; what the base files have made stays.
TEST_F(ScriptLoading, ReloadsKeepTheDailyRunAndBaseFiles) {
  write("scripts/server_event.lua",
        "every(10, function() trace(2, tag()) end) function event_server.init()"
        " task(function() cr_yield(5) trace(2, 'base task') end) end");
  write("scripts/a.lua",
        "every(10, function() trace(2, tag()) end) at(3, 0, function() trace(2, 'three') end) "
        "task(function() cr_yield(100) trace(2, 'task') cr_yield(100) trace(2, 'end') end)");
  const lua_CFunction tag = [](lua_State* L) {
    lua_pushstring(L, g_mscript->current_tag_name());
    return 1;
  };
  lua_register(script->lua_state, "tag", tag);
  const auto traced_after = [&](int seconds) {
    pass(seconds * 1000);
    return traced();
  };
  now_ms -= 5000;  // 02:58:55
  load();
  for (int round = 0; round < 3; ++round) reload();
  EXPECT_EQ(traced_after(1), "base task|task");
  EXPECT_EQ(traced_after(5), "server_event.lua|a.lua|end");
  // Reloads in the very minute do not lose the daily run, and one after it does not repeat it.
  now_ms += 59000;
  reload();
  now_ms += 20000;
  reload();
  EXPECT_EQ(traced_after(0), "server_event.lua");
  EXPECT_EQ(traced_after(60), "server_event.lua|a.lua|three|task");
  reload();
  EXPECT_EQ(traced_after(60), "server_event.lua|a.lua|task");
}

// What a function that init_base.lua does not know registers belongs to its file, also when it runs after a reload.
TEST_F(ScriptLoading, ReloadsReplaceWhatRawCallbacksRegistered) {
  write("scripts/a.lua",
        "script_define('m', {})"
        "cr_add(function() cr_yield(5) on('door', function() trace(2, 'late') end) end, 0, 0)");
  load();
  EXPECT_EQ(handled(), "late");
  reload();
  reload();
  EXPECT_EQ(handled(), "late|late");
}

// Modules come from external_path first and are loaded anew by a reload; what has come from elsewhere stays.
TEST_F(ScriptLoading, ReloadsForgetModulesOfLib) {
  const auto module = [](const char* text) { return sstr("trace(2, '%s') return { text = '%s' }", text, text); };
  write("scripts/lib/a/b.lua", module("a.b"));
  write("scripts/lib/both.lua", module("script"));
  write("ext/lib/both.lua", module("external"));
  write("else/other.lua", module("other"));
  write("scripts/server_event.lua", "package.path = package.path .. ';" + path("else/?.lua") + "' require 'both'");
  write("scripts/a.lua", "for _, name in ipairs { 'a.b', 'both', 'other', 'both' } do require(name) end");
  load("ext");
  EXPECT_EQ(traced(), "external|a.b|other");
  write("scripts/lib/a/b.lua", module("new"));
  std::filesystem::remove(path("ext/lib/both.lua"));
  reload("ext");
  EXPECT_EQ(traced(), "new|script");
  write("scripts/lib/both.lua", "return = 1");
  EXPECT_ANY_THROW(reload("ext"));
}

TEST_F(ScriptLoading, ReloadsTellErrorsAnew) {
  write("scripts/a.lua", "on('door', function() error('boom', 0) end)");
  load();
  const std::string told = "a.lua: handler of door failed: boom";
  for (int round = 0; round < 2; ++round) {
    EXPECT_EQ(handled().rfind(told + "|stack traceback:|", 0), 0u);
    EXPECT_EQ(handled(), "");
    round == 0 ? reload() : script->cleanup();
    EXPECT_EQ(traced(), told + " (1 more within a minute)");
  }
}

TEST_F(ScriptLoading, TheEndRunsFinalizersThatCallTheApi) {
  write("scripts/server_event.lua", "function event_server.cleanup() trace(2, 'cleanup') end");
  write("scripts/a.lua",
        "script_define('a', 1) keep = newproxy(true) getmetatable(keep).__gc = function()"
        " trace(2, 'closing') pcall(tmr_add, print, 1, 0, 1) set_handler_tag('t') tmr_add(print, 1, 0, 1)"
        " cr_add(function() cr_yield(5) end, 0, 1) error('in a finalizer') end");
  load();
  script->call_cleanup();
  script->cleanup();
  EXPECT_EQ(traced(), "cleanup|closing");
  EXPECT_EQ(script->lua_state, nullptr);
  EXPECT_EQ(script->timers.size() + script->coroutines.size(), 0u);
}

}  // namespace
