// coroutine_lateness: how late a coroutine is resumed.

#include <poll.h>

#include <ctime>

#include "bench/benchmarks.h"
#include "bench/figures.h"
#include "bench/loop_here.h"

namespace {

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

void add_lateness_benchmark() {
  add_benchmark("coroutine_lateness", 5, coroutine_lateness);
}
