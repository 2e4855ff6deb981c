// The event loop on the real script manager, with a device made for tests. A loop ends because the quit event ends it.

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <future>

#include "app/except.h"
#include "script/clua.h"
#include "script/event_loop.h"
#include "script/manager_script.h"
#include "tests/standin_device.h"
#include "util/clock.h"

namespace {

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
  std::vector<std::string> lines = standin::log_lines();
  lines.erase(lines.begin());  // "mscript: init..."
  lines.erase(std::remove(lines.begin(), lines.end(), "<3> mscript: repair lua"), lines.end());
  EXPECT_EQ(lines,
            (std::vector<std::string>{
                "<3> mscript: event(a) - n=1", "<2> lua-trace: first 1", "<1> mscript: error[etype:1] - boom",
                "<2> lua-trace: nil", "<3> mscript: event(nobody) - ", "<1> mscript: unknown event type[nobody]",
                "<3> mscript: event(a) - ", "<1> mscript: error[etype:3] - [string \"temp\"]:1: not found field[n]",
                "<1> mscript: error[etype:3] - boom", "<2> lua-trace: nil", "<3> mscript: event(quit) - "}));
  EXPECT_TRUE(script.running);
  EXPECT_TRUE(script.handler_tag.empty());
}

TEST_F(EventLoop, CollectsAfterEveryTwentiethDispatchedEvent) {
  run_lua("es_a = {} do local p = newproxy(true) getmetatable(p).__gc = function() error('planted', 0) end end");
  for (int i = 0; i < 60; ++i) {
    standin::post(1, "a", "");
    standin::post(1, "nobody", "");  // not counted
  }
  run_to_quit();
  std::vector<int> dispatched = {0};  // up to each collection
  for (const std::string& line : standin::log_lines()) {
    if (line == "<3> mscript: event(a) - ") ++dispatched.back();
    if (line == "<3> mscript: repair lua") dispatched.push_back(0);
  }
  ASSERT_EQ(dispatched.size(), 4u);  // the count lives as long as the process: the first may be short
  EXPECT_EQ(dispatched[1], 20);
  EXPECT_EQ(dispatched[2], 20);
  EXPECT_EQ(standin::log_lines_with("planted"), std::vector<std::string>{"<1> mscript: a finalizer failed - planted"});
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
  const std::pair<int, int> rows[] = {{1000000, 1}, {1000030, 1}, {1000031, 2}, {1000040, 2}, {2000000, 3}};
  for (const auto& [now, calls] : rows) {
    seconds = now;
    run_lua("set_handler_tag('t') cr_add(function() cr_yield(40) post_quit() end, 0, nil)");
    event_loop(script);
    EXPECT_EQ(standin::arrange_calls(), calls) << now;
  }
  EXPECT_LT(steady_ms() - start, 2500);  // five of the longest waits would be 5 s
}

// Whatever way a script never returns, a stop ends it, says where it was, and the rest of the stop goes on.
TEST_F(EventLoop, AStopEndsAScriptThatNeverReturns) {
  const std::pair<const char*, const char*> rows[] = {
      // what runs when event "a" comes, and the event of that time
      {"while true do end", "a"},
      {"while true do sleep(1) end", "a"},
      {"for i = 1, 5 do pcall(function() while true do end end) end", "a"},
      {"coroutine.wrap(function() coroutine.wrap(function() while true do end end)() end)()", "a"},
      {"cr_add(function() cr_yield(1) trace(1, 'resumed') while true do end end, 0, nil)", "none"},
  };
  script.stop_patience_ms = 50;
  for (const auto& [code, event] : rows) {
    SCOPED_TRACE(code);
    standin::reset();
    run_lua("es_a = { list_func = { { 't', function() trace(1, 'resumed')\n" + std::string(code) +
            " end } } } function event_server_cleanup() for i = 1, 1000 do end trace(1, 'cleaned') end");
    ASSERT_EQ(script.start_thread(), 1);
    standin::post(1, "a", "");
    ASSERT_TRUE(standin::wait_for_line("resumed", strcmp(event, "none") == 0 ? 2 : 1));
    script.stop_thread();
    run_lua("event_server_cleanup()");
    const std::vector<std::string> said = standin::log_lines_with("stopped a script");
    ASSERT_GE(said.size(), 1u);  // more where the error is caught and a second begins
    EXPECT_EQ(said[0], "<1> mscript: stopped a script that does not return: event(" + std::string(event) +
                           "), tag[t], [string \"temp\"]:2");
    EXPECT_EQ(standin::log_lines_with("cleaned").size(), 1u);
  }
}

// A handler that a reload waits for, a file that it loads, the scripts' own end: each is given its time, and ended.
TEST_F(EventLoop, AStopEndsWhatHoldsUpTheMainThread) {
  const std::string folder = testing::TempDir() + "hang_" + std::to_string(getpid());
  std::filesystem::create_directory(folder);
  std::ofstream(folder + "/hang.lua") << "\nwhile true do end";
  script.stop_patience_ms = 50;
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
            (std::vector<std::string>{line + "a), tag[t], [string \"temp\"]:1",
                                      line + "none), tag[], " + folder + "/hang.lua:2",
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
