// dispatch: what an event costs from the queue to its handler, beside the same Lua work alone. hook: what scripts pay
// for being stoppable.

#include <cstdlib>

#include "bench/benchmarks.h"
#include "bench/figures.h"
#include "bench/loop_here.h"
#include "bench/posters.h"
#include "device/event_queue.h"
#include "util/text.h"

namespace {

constexpr int kEvents = 60000;  // the queue holds 65,536

struct Dispatch {
  double loop_ns;  // per event
  double post_ns;
};

Dispatch measure_loop(LoopHere& loop) {
  const Stopwatch posting;
  for (int i = 0; i < kEvents; ++i) post(1, kEventName, kEventInfo);
  const double post_s = posting.seconds();
  post(EVENT_TYPE_QUIT, "quit");
  return {loop.run_to_quit() * 1e9 / kEvents, post_s * 1e9 / kEvents};
}

const char* bare_field(lua_State* L, char* value) {
  query_field(kEventInfo, lua_tostring(L, 1), value, 1024);
  return value;
}

int bare_str(lua_State* L) {
  char value[1025];
  lua_pushstring(L, bare_field(L, value));
  return 1;
}

int bare_int(lua_State* L) {
  char value[1025];
  lua_pushinteger(L, strtol(bare_field(L, value), nullptr, 10));
  return 1;
}

// Takes the hook that can stop scripts out of the state, as long as it lives.
class WithoutHook {
 public:
  explicit WithoutHook(lua_State* the_state) : L(the_state) { lua_sethook(L, nullptr, 0, 0); }
  WithoutHook(const WithoutHook&) = delete;
  WithoutHook& operator=(const WithoutHook&) = delete;
  ~WithoutHook() { ScriptStop::watch(L); }

 private:
  lua_State* const L;
};

// The same look-ups, call and collections, on the same state, and nothing else.
double measure_floor_ns(LoopHere& loop) {
  const LuaTurn turn(loop.script.gate);
  lua_State* const L = loop.script.lua_state;
  const WithoutHook bare(L);
  const Stopwatch watch;
  for (int i = 0; i < kEvents; ++i) {
    lua_getglobal(L, "es_bare");
    lua_getfield(L, 1, "list_func");
    lua_rawgeti(L, 2, 1);
    lua_rawgeti(L, 3, 2);
    lua_rawgeti(L, 3, 3);
    if (lua_pcall(L, 1, 0, 0) != 0) abort();
    lua_settop(L, 0);
    if (i % 20 == 0) lua_gc(L, LUA_GCCOLLECT, 0);
  }
  return watch.seconds() * 1e9 / kEvents;
}

std::string handlers() {
  return handler_of("bench", "local door, count = evt_field_str('door'), evt_field_int('count')") + "\n" +
         handler_of("bare", "local door, count = bare_str('door='), bare_int('count=')");
}

void dispatch(Figures& figures) {
  LoopHere loop(handlers());
  loop.add_function("bare_str", bare_str);
  loop.add_function("bare_int", bare_int);
  const double floor_ns = measure_floor_ns(loop);
  const Dispatch measured = measure_loop(loop);
  figures["loop_ns"] = measured.loop_ns;
  figures["floor_ns"] = floor_ns;
  figures["ratio"] = measured.loop_ns / floor_ns;
  figures["events_per_s"] = 1e9 / measured.loop_ns;
  figures["post_ns"] = measured.post_ns;
}

double measure_script_ms(LoopHere& loop) {
  const Stopwatch watch;
  loop.run_lua("local t = {} for i = 1, 1000000 do t[i % 16] = i * 2 + #t end");
  return watch.seconds() * 1e3;
}

void hook(Figures& figures) {
  LoopHere loop("");
  const double script_ms = measure_script_ms(loop);
  const WithoutHook bare(loop.script.lua_state);
  const double floor_ms = measure_script_ms(loop);
  figures["script_ms"] = script_ms;
  figures["floor_ms"] = floor_ms;
  figures["ratio"] = script_ms / floor_ms;
}

}  // namespace

double dispatch_rate() {
  LoopHere loop(handlers());
  return 1e9 / measure_loop(loop).loop_ns;
}

void add_dispatch_benchmark() {
  add_benchmark("dispatch", 15, dispatch);
  add_benchmark("hook", 15, hook);
}
