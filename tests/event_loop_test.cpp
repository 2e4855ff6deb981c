// The event loop on the real script manager, with a device made for tests. A loop ends because the quit event ends it.

#include <gtest/gtest.h>
#include <sched.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "script/event_loop.h"
#include "script/manager_script.h"
#include "tests/standin_device.h"
#include "util/clock.h"
#include "util/except.h"
#include "util/lua_binding.h"

namespace {

using Lines = std::vector<std::string>;

class EventLoop : public testing::Test {
 protected:
  EventLoop() {
    standin::reset();
    script.init();
    script.running = true;
  }
  void run_lua(const std::string& code) {
    const LuaTurn turn(script.gate);
    ASSERT_EQ(clua_run_string(script.lua_state, code.c_str()), 1) << clua_error_text(script.lua_state);
  }
  void run_to_quit() {
    standin::post(EVENT_TYPE_QUIT, "quit", "");
    event_loop(script);
  }
  // A folder with one script file, as long as the test runs.
  std::string folder_with(const std::string& file, const std::string& text) {
    std::filesystem::create_directory(folder);
    std::ofstream(folder + "/" + file) << text;
    return folder;
  }
  ~EventLoop() override { std::filesystem::remove_all(folder); }

  const std::string folder = testing::TempDir() + "event_loop_" + std::to_string(getpid());
  ManagerScript script;
};

TEST_F(EventLoop, LogsDispatchesAndGivesBackInOrder) {
  run_lua(
      "es_a = { list_func = { { 't1', function(x) trace(2, x .. evt_field_str('n')) end, 'first ' },"
      "{ 't2', function() error('boom', 0) end }, { 't3', function(x) trace(2, tostring(x)) end } } }");
  standin::post(1, "a", "n=1");
  standin::post(2, "nobody", "");
  standin::post(3, "a", "");
  run_to_quit();
  EXPECT_EQ(standin::log_lines_with(" - "),
            (Lines{"<3> mscript: event(a) - n=1", "<1> mscript: error[etype:1] - boom", "<3> mscript: event(nobody) - ",
                   "<3> mscript: event(a) - ", "<1> mscript: error[etype:3] - [string \"temp\"]:1: not found field[n]",
                   "<1> mscript: error[etype:3] - boom", "<3> mscript: event(quit) - "}));
  EXPECT_EQ(standin::log_lines_with("trace"),
            (Lines{"<2> lua-trace: first 1", "<2> lua-trace: nil", "<2> lua-trace: nil"}));
  EXPECT_EQ(standin::log_lines_with("unknown event type[nobody]").size(), 1u);
}

TEST_F(EventLoop, CollectsAfterEverySoManyDispatchedEvents) {
  run_lua("es_a = {} do local p = newproxy(true) getmetatable(p).__gc = function() error('planted', 0) end end");
  for (const auto& [every, collections] : {std::pair(20, 20u), std::pair(100, 20u + 4u)}) {
    script.collect_every = every;
    for (int i = 0; i < 400; ++i) {
      standin::post(1, "a", "");
      standin::post(1, "nobody", "");  // not counted
    }
    run_to_quit();
    EXPECT_EQ(standin::log_lines_with("repair lua").size(), collections);
  }
  EXPECT_EQ(standin::log_lines_with("planted"), Lines{"<1> mscript: a collection failed - planted"});
}

// While events come without a pause, timers run whenever the second changes, also backwards.
TEST_F(EventLoop, TimersRunBetweenEvents) {
  static int seconds;
  seconds = 1000000;
  script.clock.seconds = [] { return seconds; };
  const lua_CFunction set_clock = [](lua_State* L) {
    seconds = static_cast<int>(lua_tointeger(L, 1));
    return 0;
  };
  lua_register(script.lua_state, "set_clock", set_clock);
  run_lua(
      "set_handler_tag('t') tmr_add(function() trace(2, timer_time()) end, 8, 1000000, 0)"
      "es_a = { list_func = { { 't', function() set_clock(evt_field_int('to')) end } } }");
  for (const int to : {1000007, 1000008, 1000008, 1000030, 999900, 999903, 999904, 999911, 999912, 0}) {
    standin::post(1, "a", "to=" + std::to_string(to));
  }
  run_to_quit();
  EXPECT_EQ(standin::log_lines_with("trace"), (Lines{"<2> lua-trace: 1000008", "<2> lua-trace: 1000030",
                                                     "<2> lua-trace: 999904", "<2> lua-trace: 999912"}));
}

TEST_F(EventLoop, WaitsForTheFirstCoroutineAndArrangesMoreThanThirtySecondsApart) {
  static int seconds;
  script.clock.seconds = [] { return seconds; };
  const lua_CFunction post_quit = [](lua_State*) {
    standin::post(EVENT_TYPE_QUIT, "quit", "");
    return 0;
  };
  lua_register(script.lua_state, "post_quit", post_quit);
  run_lua("set_handler_tag('t') cr_add(function() cr_yield(100000) end, 0, nil)");
  const int64_t start = steady_ms();
  const std::pair<int, int> rows[] = {{1000000, 1}, {1000030, 1}, {1000031, 2}};
  for (const auto& [now, calls] : rows) {
    seconds = now;
    run_lua("set_handler_tag('t') cr_add(function() cr_yield(40) post_quit() end, 0, nil)");
    event_loop(script);
    EXPECT_EQ(standin::arrange_calls(), calls) << now;
  }
  EXPECT_LT(steady_ms() - start, 1500);  // three of the longest waits would be 3 s
}

// Whatever way a script never returns, a stop ends it, says where it was, and spares what runs afterwards.
TEST_F(EventLoop, AStopEndsAScriptThatNeverReturns) {
  script.stop.patience_ms = 50;
  run_lua("function hang() trace(1, 'hangs') while true do end end");
  for (const std::string code : {"trace(1, 'hangs') while true do sleep(1) end", "for i = 1, 5 do pcall(hang) end",
                                 "coroutine.wrap(function() coroutine.wrap(hang)() end)()",
                                 "cr_add(function() cr_yield(1) hang() end, 0, nil)"}) {
    SCOPED_TRACE(code);
    standin::reset();
    run_lua("es_a = { list_func = { { 't', function() " + code + " end } } }");
    ASSERT_EQ(script.start_thread(), 1);
    standin::post(1, "a", "");
    ASSERT_TRUE(standin::wait_for_line("hangs"));
    script.stop_thread();
    EXPECT_GE(standin::log_lines_with("tag[t], [string \"temp\"]:1").size(), 1u);  // no other line tells the tag
    run_lua("sleep(100) for i = 1, 1000 do end");
  }
}

// A handler that a reload waits for, a file that it loads, the scripts' own end: each is given its time, and ended.
TEST_F(EventLoop, AStopEndsWhatHoldsUpTheMainThread) {
  folder_with("hang.lua", "\nwhile true do end");
  script.stop.patience_ms = 50;
  script.stop.wanted = [] { return true; };
  run_lua("es_a = { list_func = { { 't', function() trace(1, 'resumed') while true do end end } } }");
  run_lua("event_server = { cleanup = function() while true do end end }");
  ASSERT_EQ(script.start_thread(), 1);
  standin::post(1, "a", "");
  ASSERT_TRUE(standin::wait_for_line("resumed", 1));
  EXPECT_THROW(script.reload(folder.c_str(), ""), except_base);
  script.stop_thread();
  script.call_cleanup();
  const std::string line = "<1> mscript: stopped a script that does not return: event(";
  EXPECT_EQ(standin::log_lines_with("stopped a script"),
            (Lines{line + "a), tag[t], [string \"temp\"]:1", line + "none), tag[], " + folder + "/hang.lua:2",
                   line + "none), tag[], [string \"temp\"]:1"}));
}

TEST(ScriptStop, Phases) {
  using Phase = ScriptStop::Phase;
  const struct {
    Phase phase;
    Phase next[4];  // before its time is over: no stop wanted, one wanted; afterwards likewise
  } rows[] = {
      {Phase::off, {Phase::off, Phase::off, Phase::off, Phase::off}},
      {Phase::watching, {Phase::watching, Phase::watching, Phase::watching, Phase::patient}},
      {Phase::patient, {Phase::patient, Phase::patient, Phase::raising, Phase::raising}},
      {Phase::raising, {Phase::raising, Phase::raising, Phase::raising, Phase::raising}},
  };
  for (const auto& row : rows) {
    for (int i = 0; i < 4; ++i) EXPECT_EQ(ScriptStop::next(row.phase, i % 2 == 1, i >= 2), row.next[i]) << i;
  }
}

bool main_thread_sleeps() {
  std::string stat;
  std::getline(std::ifstream("/proc/self/task/" + std::to_string(getpid()) + "/stat"), stat);
  return stat.find(") S ") != std::string::npos;
}

// A reload gets the state when the pass in progress ends, although events wait and the loop wants it again at once.
TEST_F(EventLoop, AReloadComesBeforeTheNextPass) {
  const lua_CFunction wait_for_reload = [](lua_State*) {
    while (!g_mscript->gate.awaited() || !main_thread_sleeps()) sched_yield();
    return 0;
  };
  lua_register(script.lua_state, "wait_for_reload", wait_for_reload);
  run_lua(
      "es_a = { list_func = { { 't', function() trace(2, 'before') wait_for_reload() end } } }"
      "es_b = { list_func = { { 't', function() trace(2, 'after') end } } }");
  folder_with("a.lua", "trace(2, 'reload')");
  standin::post(1, "a", "");
  standin::post(1, "b", "");
  ASSERT_EQ(script.start_thread(), 1);
  ASSERT_TRUE(standin::wait_for_line("before"));
  script.reload(folder.c_str(), "");
  ASSERT_TRUE(standin::wait_for_line("after"));
  script.stop_thread();
  EXPECT_EQ(standin::log_lines_with("trace"),
            (Lines{"<2> lua-trace: before", "<2> lua-trace: reload", "<2> lua-trace: after"}));
}

// Neither a stop nor a coroutine that a reload starts waits until the loop has waited for an event.
TEST_F(EventLoop, StopAndReloadEndItsWait) {
  folder_with("a.lua", "script_define('a', 0) cr_add(function() cr_yield(1) trace(2, 'resumed') end, 0, 0)");
  ASSERT_EQ(script.start_thread(), 1);
  standin::wait_until_idle();
  script.reload(folder.c_str(), "");
  EXPECT_TRUE(standin::wait_for_line("resumed"));
  standin::wait_until_idle();
  script.stop_thread();
  EXPECT_EQ(standin::full_waits(), 0);
}

}  // namespace
