// The event loop on the real script manager, with a device made for tests. A loop ends because the quit event ends it.

#include <sched.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "control/event_ring.h"
#include "script/event_loop.h"
#include "tests/script_fixture.h"
#include "util/clock.h"
#include "util/except.h"
#include "util/lua_binding.h"
#include "util/text.h"

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
  script->clock.steady_tick = [] { return passed_ms - 4; };
  run_lua("require('zelvind.engine').add_alarm(print, 0, 0, 't', 0)");
  EXPECT_TRUE(script->is_alarm_due());
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
  for (const std::string code :
       {"trace(1, 'hangs') while true do sleep(1) end", "for i = 1, 2 do pcall(hang) end",
        "trace(1, 'hangs') sleep(1000000)", "coroutine.wrap(function() coroutine.wrap(hang)() end)()",
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

std::atomic<bool> held_up{true};
int hold_up(lua_State* L) {
  lua_pushboolean(L, held_up ? 1 : 0);
  return 1;
}

std::atomic<int> wakes{0};

// What the main thread does, until that line has been logged `count` times.
void watch_until(const std::string& line, size_t count = 1) {
  for (const int64_t end = steady_ms() + 10000; standin::log_lines_with(line).size() < count;) {
    ASSERT_LT(steady_ms(), end) << line;
    g_mscript->watch.look();
    usleep(1000);
  }
}

// And until it may sleep without an end.
void watch_until_rest() {
  for (int left_ms = 0; left_ms >= 0; left_ms = g_mscript->watch.look()) usleep(1000);
}

TEST_F(EventLoop, ACallThatHoldsUpTheLoopIsNamedOnceAMinuteAndEndedByTheLimit) {
  const lua_CFunction hold_in_c = [](lua_State*) {
    while (held_up) sched_yield();
    return 0;
  };
  lua_register(script->lua_state, "hold_up", hold_up);
  lua_register(script->lua_state, "hold_in_c", hold_in_c);
  run_lua(
      "function slow() while hold_up() do end trace(1, 'over') end "
      "es_a = { list_func = { { 't', slow } } }"
      "es_b = { list_func = { { 'in C', hold_in_c } } }"
      "es_c = { list_func = { { 't', function() pcall(slow) slow() end }, { 'u', function() trace(1, 'next') end } } }"
      "es_d = { list_func = { { 'v', function() cr_add(slow, 0, 0) end } } }"
      "debug.sethook()");
  script->watch.wake = [] { ++wakes; };
  script->watch.warn_ms = 20;
  ASSERT_EQ(script->start_thread(), 1);
  watch_until_rest();
  EXPECT_EQ(script->watch.where(0), "");
  standin::post(1, "a", "");
  while (wakes == 0) sched_yield();  // a look in between would make it needless
  watch_until("slow handler: event(a), tag[t], ");
  EXPECT_EQ(wakes, 1);
  EXPECT_EQ(script->watch.where(10000), "[string \"temp\"]:1");
  EXPECT_EQ(script->report(0), std::nullopt);
  held_up = false;
  ASSERT_TRUE(standin::wait_for_line("over"));
  const std::string first = standin::log_lines_with("ms so far")[0];
  EXPECT_NE(first.find(" ms so far, [string \"temp\"]:1"), std::string::npos) << first;
  ASSERT_TRUE(standin::wait_for_line("slow handler: event(a), tag[t], returned after "));
  held_up = true;
  standin::post(1, "b", "");
  watch_until("slow handler: event(b), tag[in C], ");
  held_up = false;
  EXPECT_NE(standin::log_lines_with("tag[in C]")[0].find(" ms so far, in C code"), std::string::npos);
  ASSERT_TRUE(standin::wait_for_line("event(b), tag[in C], returned"));
  watch_until_rest();
  script->watch.limit_ms = 40;  // nobody reads it meanwhile
  held_up = true;
  for (const char* name : {"c", "d"}) standin::post(1, name, "");
  watch_until("next");
  watch_until("event(d), tag[v], returned");
  EXPECT_GE(standin::log_lines_with("ended a slow handler: event(c), tag[t], [string \"temp\"]:1").size(), 1u);
  EXPECT_EQ(g_loop_stats.last_error().tag, "v");  // the coroutine inside the call was ended
  EXPECT_TRUE(standin::wait_for_line(
      "<1> mscript: error[etype:1] - [string \"temp\"]:1: ended, it has held up the event loop for more than 40 ms"));
  standin::post(EVENT_TYPE_QUIT, "quit", "");
  ASSERT_TRUE(standin::wait_for_line("<1> mscript: quit event, the event loop has ended"));
  script->stop_thread();
  EXPECT_EQ(standin::log_lines_with("event(c), tag[t], returned").size(), 0u);  // named in that minute already
  EXPECT_EQ(g_loop_stats.activity().activity, Activity::stopped);
}

// While a file starts a coroutine, the loop may take an event: the call keeps the word that it began with.
TEST_F(EventLoop, ACallThatALoopPassesByWasNotNamed) {
  {
    const LoopCall call(script->watch, Activity::coroutine, "t");
    g_loop_stats.takes_event("a");
  }
  EXPECT_EQ(standin::log_lines_with("returned after"), Lines{});
}

// A leak is refused what it wants after few collections and one line; what is garbage is no reason to refuse.
TEST_F(EventLoop, ScriptsStayWithinTheirMemory) {
  write("scripts/a.lua",
        "on('leak', function() local t = {} while true do t[#t + 1] = { #t } end end)"
        "on('keep', function() kept = {} for i = 1, 60000 do kept[i] = { i } end end)"
        "on('waste', function() for i = 1, 300000 do local t = { i } end trace(1, 'wasted') end)");
  load();
  script->memory.set_limit(size_t{12} * 1024 * 1024);
  script->collect_every = 1000;
  for (const char* name : {"leak", "keep", "waste", "leak", "waste"}) standin::post(1, name, "");
  const uint64_t collections = g_loop_stats.collections.count();
  run_to_quit();
  EXPECT_EQ(standin::log_lines_with("not enough memory").size(), 1u);  // the second one is counted
  EXPECT_EQ(standin::log_lines_with("wasted").size(), 2u);
  EXPECT_LT(g_loop_stats.collections.count() - collections, 60u);
}

// An error that is too long to be copied costs one line, and neither the handlers behind it nor the events to come.
TEST_F(EventLoop, AHandlerWhoseErrorNeedsTooMuchMemoryCostsNoOther) {
  run_lua(
      "local long = ('x'):rep(2 ^ 26) "
      "es_a = { list_func = { { 't', function() error(long, 0) end }, { 'u', function() trace(1, 'next') end } } }"
      "es_b = { list_func = { { 'v', function() trace(1, evt_type_name()) end } } }");
  rlimit limit{};
  getrlimit(RLIMIT_AS, &limit);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)  // these have most of the addresses
  long pages = 0;
  std::ifstream("/proc/self/statm") >> pages;
  const rlimit tight{static_cast<rlim_t>(pages) * static_cast<rlim_t>(sysconf(_SC_PAGESIZE)) + (1 << 25),
                     limit.rlim_max};
  setrlimit(RLIMIT_AS, &tight);
#endif
  for (const char* name : {"a", "a", "b"}) standin::post(1, name, "");
  run_to_quit();
  setrlimit(RLIMIT_AS, &limit);
  EXPECT_EQ(standin::log_lines_with("trace: "),
            (Lines{"<1> lua-trace: next", "<1> lua-trace: next", "<1> lua-trace: b"}));
  EXPECT_EQ(standin::log_lines_with("error[etype:1] - ").size(), 2u);
}

TEST_F(EventLoop, CountsByTypeAndTag) {
  script->clock.milliseconds = [] { return static_cast<int>(now_ms); };
  write("scripts/a.lua",
        "script_define('count', 0)"
        "es_c1 = { list_func = { { 'count1', function() end }, { 'count2', function() error('planted') end } } }"
        "on('c2', function() error('told by the default scripts') end)"
        "on('c3', function() cr_add(function() cr_yield(1) error('in a coroutine', 0) end, 0, 0) end)");
  load();
  for (const char* name : {"c1", "c1", "c4", "c2", "c3"}) standin::post(1, name, "");
  const uint64_t late = g_loop_stats.coroutine_lateness.count();
  EventRing ring(4096);
  g_event_ring = &ring;
  run_to_quit();
  g_event_ring = nullptr;
  EventRecordCopy last;
  uint64_t next = ring.last();
  uint64_t lost = 0;
  EXPECT_EQ(ring.read(next, last, lost), EventRing::Read::entry);
  EXPECT_EQ(last.name, "quit");
  pass(10);
  EXPECT_EQ(g_loop_stats.activity().activity, Activity::stopped);  // also after what runs then
  std::string text;
  const LoopStats& stats = g_loop_stats;
  for (int i = 0; i < stats.event_names.size(); ++i) {
    const EventStats& event = stats.events[i];
    const std::string name = stats.event_names.name(i);
    if (name.size() != 2 || name[0] != 'c') continue;  // of other tests
    text += sstr("%s:%d,%d,%d,%d ", name.c_str(), static_cast<int>(event.events.get()),
                 static_cast<int>(event.unknown.get()), static_cast<int>(event.errors.get()),
                 static_cast<int>(event.run.count()));
  }
  EXPECT_EQ(text, "c1:2,0,2,2 c4:1,1,0,0 c2:1,0,1,1 c3:1,0,0,1 ");
  text.clear();
  for (int i = 0; i < stats.tag_names.size(); ++i) {
    const std::string name = stats.tag_names.name(i);
    if (name.rfind("count", 0) != 0) continue;
    text += sstr("%s:%d,%d ", name.c_str(), static_cast<int>(stats.tags[i].run.count()),
                 static_cast<int>(stats.tags[i].errors.get()));
  }
  EXPECT_EQ(text, "count1:2,0 count2:2,2 count:3,2 ");
  EXPECT_EQ(stats.last_error().text, "in a coroutine");
  EXPECT_EQ(stats.last_error().tag, "count");
  EXPECT_EQ(stats.coroutine_lateness.count(), late + 1);

  NameTable table;
  for (int round = 0; round < 2; ++round) {
    for (int i = 0; i < 200; ++i) EXPECT_EQ(table.entry_of(std::to_string(i)), std::min(i, NameTable::kOther));
  }
  EXPECT_EQ(table.name(table.entry_of(std::string(300, 'x'))), std::string("(other)"));

  // Names that nobody handles leave room for those that scripts handle.
  auto fresh = std::make_unique<LoopStats>();
  const auto handle = [&](const std::string& name, bool known) {
    fresh->takes_event(name.c_str());
    fresh->begin_dispatch();
    fresh->end_dispatch(known, name.c_str());
  };
  for (int i = 0; i < 200; ++i) handle("junk" + std::to_string(i), false);
  handle("door", true);
  handle("door", true);
  EXPECT_EQ(fresh->event_names.size(), NameTable::kMost / 2 + 1);
  EXPECT_EQ(fresh->events[NameTable::kMost / 2].run.count(), 1u);
}

TEST_F(EventLoop, ReportsWhatScriptsHave) {
  write("scripts/a.lua",
        "script_define('mod', 0)\n"
        "on('door', function() end)\n"
        "every(60, function() end)\n"
        "after(1, function() end)\n"
        "task(function()\n"
        "  wait_event('door', 5)\n"
        "end)\n"
        "es_raw = { list_func = { { 'my tag', function() end }, 'rubbish', { {}, print } } }\n"
        "setmetatable(_G, { __index = error })");
  load();
  ASSERT_EQ(script->start_thread(), 1);
  standin::wait_until_idle();
  std::string report = script->report(10000).value_or("none");
  script->stop_thread();
  Lines lines;
  std::istringstream text(under_opt(report));
  for (std::string line; std::getline(text, line);) {
    if (line.find("tag=init_base.lua") != std::string::npos) continue;  // it may have run already
    const bool in_default_script = line.find("init_base.lua:") != std::string::npos;
    lines.push_back(in_default_script ? line.substr(0, line.find("where=")) + "where=INIT" : line);
  }
  std::sort(lines.begin() + 2, lines.end());
  const std::string at = "where=/opt/scripts/a.lua:";
  EXPECT_EQ(
      lines,
      (Lines{"round n=1", "file path=/opt/scripts/a.lua module=mod round=1",
             "handler event=door tag=mod module=mod " + at + "2", "handler event=door tag=mod module=mod where=INIT",
             "handler event=raw tag= module= where=", "handler event=raw tag=my%20tag module=mod " + at + "8",
             "task tag=mod " + at + "6", "timer tag=mod every_ms=0 due_in_ms=1000 " + at + "4",
             "timer tag=mod every_ms=0 due_in_ms=5000 where=INIT",
             "timer tag=mod every_ms=60000 due_in_ms=60000 " + at + "3"}));
}

// Each level takes 8 KiB of the C stack, and Lua allows 200.
TEST_F(EventLoop, AHandlerMayRecurseThroughC) {
  run_lua(
      "local function deep(n) return n == 0 and 'deep' or (('x'):gsub('x', function() return deep(n - 1) end)) end "
      "es_a = { list_func = { { 't', function() trace(1, deep(180)) end } } }");
  ASSERT_EQ(script->start_thread(), 1);
  standin::post(1, "a", "");
  EXPECT_TRUE(standin::wait_for_line("lua-trace: deep"));
  script->stop_thread();
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
