// The event loop on the real script manager, with a device made for tests. A loop ends because the quit event ends it.

#include <sched.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "script/event_loop.h"
#include "tests/script_fixture.h"
#include "util/clock.h"
#include "util/except.h"
#include "util/lua_binding.h"

namespace {

using Lines = std::vector<std::string>;

// The seconds are the test's, the milliseconds are not.
class EventLoop : public ScriptFixture {
 protected:
  EventLoop() {
    script->clock.milliseconds = ScriptClock().milliseconds;
    script->running = true;
  }
  void run_to_quit() {
    standin::post(EVENT_TYPE_QUIT, "quit", "");
    event_loop(*script);
  }
};

TEST_F(EventLoop, CollectsAfterEverySoManyDispatchedEvents) {
  run_lua("es_a = {} do local p = newproxy(true) getmetatable(p).__gc = function() error('planted', 0) end end");
  for (const auto& [every, collections] : {std::pair(20, 20u), std::pair(100, 20u + 4u)}) {
    script->collect_every = every;
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
  now_ms = 1000000000;
  const lua_CFunction set_clock = [](lua_State* L) {
    now_ms = 1000 * static_cast<int64_t>(lua_tointeger(L, 1));
    return 0;
  };
  lua_register(script->lua_state, "set_clock", set_clock);
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

// While events come without a pause, an alarm runs when it is due, and coroutines once their patience is over. Each
// event takes 10 ms.
TEST_F(EventLoop, AlarmsAndImpatientCoroutinesRunBetweenEvents) {
  script->clock.milliseconds = [] { return static_cast<int>(passed_ms); };
  const lua_CFunction pass_time = [](lua_State*) {
    passed_ms += 10;
    return 0;
  };
  lua_register(script->lua_state, "pass_time", pass_time);
  const std::pair<int, std::string> rows[] = {{0, "123a456789"}, {1, "12c3ca4c5c6c7c8c9c"}, {30, "123a45c6789c"}};
  for (const auto& [patience_ms, order] : rows) {
    script->coroutine_patience_ms = patience_ms;
    run_lua(
        "order = '' set_handler_tag('t')"
        "es_a = { list_func = { { 't', function() order = order .. evt_info() pass_time() end } } }"
        "require('zelvind.engine').add_alarm(function() order = order .. 'a' end, 0.025, 0, 't', 0)"
        "cr_add(function() cr_yield(15) while true do order = order .. 'c' cr_yield(1) end end, 0, nil)");
    for (char event = '1'; event <= '9'; ++event) standin::post(1, "a", {event});
    run_to_quit();
    run_lua("trace(1, order)");
    EXPECT_EQ(standin::log_lines_with("trace").back(), "<1> lua-trace: " + order) << patience_ms;
    script->coroutines.clear();
  }
}

TEST_F(EventLoop, WaitsForTheFirstCoroutineAndArrangesMoreThanThirtySecondsApart) {
  run_lua("set_handler_tag('t') cr_add(function() cr_yield(100000) end, 0, nil)");
  script->clock.steady = ScriptClock().steady;
  const int64_t start = steady_ms();
  const std::pair<int, int> rows[] = {{1000000, 1}, {1000030, 1}, {1000031, 2}};
  for (const auto& [now, calls] : rows) {
    now_ms = int64_t{1000} * now;
    run_lua("set_handler_tag('t') cr_add(function() cr_yield(40) event_post(9999, 'quit') end, 0, nil)");
    event_loop(*script);
    run_lua("require('zelvind.engine').add_alarm(function() event_post(9999, 'quit') end, 0.04, 0, 't', 0)");
    event_loop(*script);
    EXPECT_EQ(standin::arrange_calls(), calls) << now;
  }
  EXPECT_LT(steady_ms() - start, 1500);  // one of the longest waits each would be 6 s
}

// Whatever way a script never returns, a stop ends it, says where it was, and spares what runs afterwards.
TEST_F(EventLoop, AStopEndsAScriptThatNeverReturns) {
  script->stop.patience_ms = 50;
  run_lua("function hang() trace(1, 'hangs') while true do end end");
  for (const std::string code : {"trace(1, 'hangs') while true do sleep(1) end", "for i = 1, 2 do pcall(hang) end",
                                 "coroutine.wrap(function() coroutine.wrap(hang)() end)()",
                                 "cr_add(function() cr_yield(1) hang() end, 0, nil)"}) {
    SCOPED_TRACE(code);
    standin::reset();
    run_lua("es_a = { list_func = { { 't', function() " + code + " end } } }");
    ASSERT_EQ(script->start_thread(), 1);
    standin::post(1, "a", "");
    ASSERT_TRUE(standin::wait_for_line("hangs"));
    script->stop_thread();
    EXPECT_GE(standin::log_lines_with("tag[t], [string \"temp\"]:1").size(), 1u);  // no other line tells the tag
    run_lua("sleep(100) for i = 1, 1000 do end");
  }
}

// A handler that a reload waits for, a file that it loads, the scripts' own end: each is given its time, and ended.
TEST_F(EventLoop, AStopEndsWhatHoldsUpTheMainThread) {
  write("scripts/hang.lua", "\nwhile true do end");
  script->stop.patience_ms = 50;
  script->stop.wanted = [] { return true; };
  run_lua("es_a = { list_func = { { 't', function() trace(1, 'resumed') while true do end end } } }");
  run_lua("event_server = { cleanup = function() while true do end end }");
  ASSERT_EQ(script->start_thread(), 1);
  standin::post(1, "a", "");
  ASSERT_TRUE(standin::wait_for_line("resumed", 1));
  EXPECT_THROW(reload(), except_base);
  script->stop_thread();
  script->call_cleanup();
  const std::string line = "<1> mscript: stopped a script that does not return: event(";
  EXPECT_EQ(standin::log_lines_with("stopped a script"),
            (Lines{line + "a), tag[t], [string \"temp\"]:1", line + "none), tag[], " + path("scripts/hang.lua") + ":2",
                   line + "none), tag[], [string \"temp\"]:1"}));
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
  lua_register(script->lua_state, "wait_for_reload", wait_for_reload);
  run_lua(
      "es_a = { list_func = { { 't', function() trace(2, 'before') wait_for_reload() end } } }"
      "es_b = { list_func = { { 't', function() trace(2, 'after') end } } }");
  write("scripts/a.lua", "trace(2, 'reload')");
  ASSERT_EQ(script->start_thread(), 1);
  Lines wanted;
  for (size_t round = 1; round <= 30; ++round) {
    for (const char* const name : {"a", "b"}) standin::post(1, name, "");
    ASSERT_TRUE(standin::wait_for_line("before", round));
    reload();
    ASSERT_TRUE(standin::wait_for_line("after", round));
    for (const std::string text : {"before", "reload", "after"}) wanted.push_back("<2> lua-trace: " + text);
  }
  script->stop_thread();
  EXPECT_EQ(standin::log_lines_with("trace"), wanted);
}

// Neither a stop nor a coroutine that a reload starts waits until the loop has waited for an event. A file may take its
// time to load as long as nobody wants a stop.
TEST_F(EventLoop, StopAndReloadEndItsWait) {
  write("scripts/a.lua",
        "local start = timems() while timems() - start < 300 do end "
        "script_define('a', 0) cr_add(function() cr_yield(1) trace(2, 'resumed') end, 0, 0)");
  script->stop.patience_ms = 50;
  ASSERT_EQ(script->start_thread(), 1);
  standin::wait_until_idle();
  reload();
  EXPECT_TRUE(standin::wait_for_line("resumed"));
  standin::wait_until_idle();
  script->stop_thread();
  EXPECT_EQ(standin::full_waits(), 0);
}

}  // namespace
