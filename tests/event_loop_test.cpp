// The event loop on the real script manager, with a device made for tests. A loop ends because the quit event ends it.

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <thread>

#include "device/log.h"
#include "script/clua.h"
#include "script/event_loop.h"
#include "script/manager_script.h"
#include "tests/standin_device.h"

namespace {

class EventLoop : public testing::Test {
 protected:
  EventLoop() {
    standin::reset();
    script.init();
    script.running = true;
  }
  void run_lua(const char* code) {
    const LuaTurn turn(script.gate);
    ASSERT_EQ(clua_run_string(script.lua_state, code), 1) << clua_error_text(script.lua_state);
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
  EXPECT_EQ(standin::events_outstanding(), 0);
  EXPECT_TRUE(script.running);
  EXPECT_TRUE(script.handler_tag.empty());
}

TEST_F(EventLoop, CollectsAfterEveryTwentiethDispatchedEvent) {
  run_lua("es_a = {}");
  // The count lives as long as the process: find its phase first.
  while (standin::log_lines_with("repair lua").empty()) {
    standin::post(1, "a", "");
    run_to_quit();
  }
  for (int i = 0; i < 40; ++i) {
    standin::post(1, "a", "");
    standin::post(1, "nobody", "");  // not counted
  }
  run_to_quit();
  const std::vector<std::string> lines = standin::log_lines_with("mscript: ");
  std::vector<ptrdiff_t> events_before;
  for (auto line = lines.begin(); line != lines.end(); ++line) {
    if (*line == "<3> mscript: repair lua") {
      events_before.push_back(std::count(lines.begin(), line, "<3> mscript: event(a) - "));
    }
  }
  ASSERT_EQ(events_before.size(), 3u);
  EXPECT_EQ(events_before[1] - events_before[0], 20);
  EXPECT_EQ(events_before[2] - events_before[1], 20);
}

TEST_F(EventLoop, AFinalizerThatRaisesCostsALine) {
  run_lua("es_a = {} do local p = newproxy(true) getmetatable(p).__gc = function() error('planted', 0) end end");
  for (int i = 0; i < 21; ++i) standin::post(1, "a", "");
  run_to_quit();
  EXPECT_EQ(standin::log_lines_with("planted"), std::vector<std::string>{"<1> mscript: a finalizer failed - planted"});
  EXPECT_EQ(standin::events_outstanding(), 0);
}

TEST_F(EventLoop, WaitsForTheFirstCoroutineAndArrangesWhenIdle) {
  run_lua("set_handler_tag('t') cr_add(function() cr_yield(5) cr_yield(400) end, 0, nil)");
  std::thread poster([] {
    EXPECT_TRUE(standin::wait_for_line("level 2 done"));
    standin::post(EVENT_TYPE_QUIT, "quit", "");
  });
  run_lua("cr_add(function() cr_yield(50) trace(2, 'level 2 done') end, 0, nil)");
  event_loop(script);
  poster.join();
  const std::vector<int> waits = standin::dequeue_waits();
  EXPECT_LE(waits.front(), 5);
  EXPECT_GE(*std::max_element(waits.begin(), waits.end()), 30);
  EXPECT_LE(*std::max_element(waits.begin(), waits.end()), 400);
}

// A reload gets the state at the end of the pass in progress, although the queue is never empty.
TEST_F(EventLoop, ReloadComesBetweenTwoPassesOfAFlood) {
  const std::filesystem::path folder = std::filesystem::temp_directory_path() / "zelvind-flood";
  std::filesystem::create_directories(folder);
  std::ofstream(folder / "a.lua") << "script_define('a', 1) trace(2, 'reloaded')";
  run_lua("es_a = { list_func = { { 't', function() end } } }");
  std::atomic<bool> flooding{true};
  std::thread flood([&] {
    while (flooding) {
      if (standin::log_lines_with("event(a)").size() < 100000) standin::post(1, "a", "");
    }
  });
  script.start_thread();
  ASSERT_TRUE(standin::wait_for_line("event(a)", 3));
  constexpr size_t kReloads = 20;
  size_t late = 0;
  for (size_t i = 1; i <= kReloads; ++i) {
    elog(2, "reload %zu wanted", i);
    script.reload(folder.c_str(), "");
    const std::vector<std::string> lines = standin::log_lines();
    const auto holds = [](const char* part) {
      return [part](const std::string& line) { return line.find(part) != std::string::npos; };
    };
    const auto got = std::find_if(lines.rbegin(), lines.rend(), holds("load script files from"));
    const auto wanted = std::find_if(got, lines.rend(), holds("wanted"));
    if (std::count_if(got, wanted, holds("mscript: event(")) > 2) ++late;
  }
  EXPECT_LE(late, kReloads / 4);  // this thread may be put to sleep between its line and its wish
  flooding = false;
  flood.join();
  script.stop_thread();
  EXPECT_EQ(standin::log_lines_with("reloaded").size(), kReloads);
  std::filesystem::remove_all(folder);
}

}  // namespace
