// The event loop on the real script manager, with a device made for tests. A loop ends because the quit event ends it.

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <future>

#include "util/except.h"
#include "script/clua.h"
#include "script/event_loop.h"
#include "script/manager_script.h"
#include "tests/standin_device.h"
#include "util/clock.h"

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

TEST_F(EventLoop, CollectsAfterEveryTwentiethDispatchedEvent) {
  run_lua("es_a = {} do local p = newproxy(true) getmetatable(p).__gc = function() error('planted', 0) end end");
  for (int i = 0; i < 400; ++i) {
    standin::post(1, "a", "");
    standin::post(1, "nobody", "");  // not counted
  }
  run_to_quit();
  EXPECT_EQ(standin::log_lines_with("repair lua").size(), 20u);
  EXPECT_EQ(standin::log_lines_with("planted"), Lines{"<1> mscript: a finalizer failed - planted"});
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
  const std::string folder = testing::TempDir() + "hang_" + std::to_string(getpid());
  std::filesystem::create_directory(folder);
  std::ofstream(folder + "/hang.lua") << "\nwhile true do end";
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
  std::filesystem::remove_all(folder);
}

// A reload gets the state when the pass in progress ends, although the loop wants it again at once.
TEST(LuaGate, AWishComesBeforeTheNextPass) {
  LuaGate gate;
  std::atomic<bool> reloaded{false};
  std::future<void> reload;
  {
    const LuaTurn pass(gate);
    reload = std::async(std::launch::async, [&] {
      const LuaTurn turn(gate, LuaGate::Turn::next);
      reloaded = true;
    });
    usleep(100000);  // until the wish is there
  }
  const LuaTurn next_pass(gate);
  EXPECT_TRUE(reloaded);
}

}  // namespace
