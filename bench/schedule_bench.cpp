// Timers and coroutines: what a pass costs for those that are not due, and how late a coroutine is resumed.

#include <poll.h>

#include <ctime>

#include "bench/benchmarks.h"
#include "bench/figures.h"
#include "bench/loop_here.h"
#include "device/event_queue.h"
#include "script/event_loop.h"

namespace {

constexpr int kRecords = 10000;
constexpr int kPasses = 200;

// ns per record of kPasses calls of `pass`.
template <typename Pass>
double ns_per_record(Pass&& pass) {
  const Stopwatch watch;
  for (int i = 0; i < kPasses; ++i) pass();
  return watch.seconds() * 1e9 / kPasses / kRecords;
}

void timer_pass(Figures& figures) {
  LoopHere loop("for i = 1, 10000 do tmr_add(function() end, 1000000, os.time(), nil) end");
  ManagerScript& script = loop.script;
  const double ns = ns_per_record([&] {
    const LuaTurn turn(script.gate);
    script.run_timers();
  });
  const double floor_ns = ns_per_record([&] {
    const int now = script.clock.seconds();
    int due = 0;
    for (const auto& timer : script.timers) due += timer.next_due <= now ? 1 : 0;
    benchmark::DoNotOptimize(due);
  });
  figures["ns"] = ns;
  figures["floor_ns"] = floor_ns;
  figures["ratio"] = ns / floor_ns;
}

void coroutine_pass(Figures& figures) {
  LoopHere loop("for i = 1, 10000 do cr_add(function() cr_yield(1000000) end, 0, nil) end");
  ManagerScript& script = loop.script;
  const double ns = ns_per_record([&] {
    const LuaTurn turn(script.gate);
    script.resume_coroutines();
    benchmark::DoNotOptimize(next_wait_ms(script.coroutines, script.clock.milliseconds()));
  });
  const double floor_ns = ns_per_record([&] {
    const int now = script.clock.milliseconds();
    int due = 0;
    for (const auto& coroutine : script.coroutines) due += now - coroutine.last_resume > coroutine.wait ? 1 : 0;
    benchmark::DoNotOptimize(due);
  });
  figures["ns"] = ns;
  figures["floor_ns"] = floor_ns;
  figures["ratio"] = ns / floor_ns;
}

// Eight coroutines that wait 3 to 24 ms in turn, 120 times each; the last one to end ends the loop.
constexpr char kSleepers[] = R"(
  local left = 8
  local function sleeper(first)
    for i = first, first + 119 do
      local wait, before = 3 + i * 5 % 22, wall_us()
      cr_yield(wait)
      note_lateness(wall_us() - before - wait * 1000)
    end
    left = left - 1
    if left == 0 then event_post(9999, 'quit') end
  end
  for i = 1, 8 do cr_add(sleeper, 0, i * 7) end)";

double wall_us() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  return static_cast<double>(now.tv_sec) * 1e6 + static_cast<double>(now.tv_nsec) / 1000;
}

int lua_wall_us(lua_State* L) {
  lua_pushnumber(L, wall_us());
  return 1;
}

std::vector<double> g_lateness;  // us

int note_lateness(lua_State* L) {
  g_lateness.push_back(lua_tonumber(L, 1));
  return 0;
}

// The same waits, of the kernel alone.
std::vector<double> bare_lateness() {
  std::vector<double> lateness;
  for (int i = 0; i < 120; ++i) {
    const int wait = 3 + i * 5 % 22;
    const double before = wall_us();
    poll(nullptr, 0, wait);
    lateness.push_back(wall_us() - before - wait * 1000);
  }
  return lateness;
}

void coroutine_lateness(Figures& figures) {
  std::vector<double> bare = bare_lateness();
  g_lateness.clear();
  LoopHere loop("");
  loop.add_function("wall_us", lua_wall_us);
  loop.add_function("note_lateness", note_lateness);
  loop.run_lua(kSleepers);
  loop.run_to_quit();
  figures["p50_us"] = percentile(g_lateness, 0.5);
  figures["p99_us"] = percentile(g_lateness, 0.99);
  figures["max_us"] = percentile(g_lateness, 1);
  figures["min_us"] = percentile(g_lateness, 0);
  figures["floor_p50_us"] = percentile(bare, 0.5);
  figures["floor_p99_us"] = percentile(bare, 0.99);
}

}  // namespace

void add_schedule_benchmarks() {
  add_benchmark("timer_pass", 9, timer_pass);
  add_benchmark("coroutine_pass", 9, coroutine_pass);
  add_benchmark("coroutine_lateness", 5, coroutine_lateness);
}
