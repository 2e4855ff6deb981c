#include "script/event_loop.h"

#include <algorithm>
#include <cassert>

#include "device/event_queue.h"
#include "device/log.h"
#include "device/service.h"
#include "listener/manager_listener.h"
#include "script/event_dispatch.h"
#include "script/manager_script.h"
#include "util/clock.h"
#include "util/lua_binding.h"
#include "util/rate_limit.h"

namespace {

constexpr int kLongestWaitMs = 1000;
constexpr int kArrangeEveryS = 30;
constexpr uint32_t kEventsPerCollection = 20;

uint32_t g_dispatch_count = 0;  // events dispatched since the process started; only the script thread touches these
int g_last_arrange = 0;         // s since the epoch
RateLimit g_finalizer_lines;

struct GiveBack {
  void operator()(event_item* event) const { event_item_free(event); }
};
using Event = std::unique_ptr<event_item, GiveBack>;

enum class Next { pass, quit };

void collect(ManagerScript& script) {
  std::string error;
  const bool done = protect(script.lua_state, error, [](lua_State* L) { lua_gc(L, LUA_GCCOLLECT, 0); });
  if (done) return;
  if (const auto left_out = g_finalizer_lines.allow()) {
    elog(1, "mscript: a finalizer failed - %s%s", error.c_str(), left_out->text);
  }
}

int run_timers_first(ManagerScript& script) {
  const LuaTurn turn(script.gate);
  if (script.memory.is_short()) {
    collect(script);
    script.memory.lay_in();
  }
  script.run_timers();
  assert(lua_gettop(script.lua_state) == 0);
  if (script.coroutines.empty()) return kLongestWaitMs;  // without a look at the clock, which costs every event
  return next_wait_ms(script.coroutines, script.clock.milliseconds());
}

void idle_pass(ManagerScript& script) {
  const int now = script.clock.seconds();
  if (int64_t{now} > int64_t{g_last_arrange} + kArrangeEveryS || now < g_last_arrange) {  // or the clock was set back
    g_last_arrange = now;
    event_arrange();
  }
  const LuaTurn turn(script.gate);
  script.resume_coroutines();
  assert(lua_gettop(script.lua_state) == 0);
}

// Counts a dispatched event; the 1st, 21st, 41st ... is followed by a full collection.
void collect_now_and_then(ManagerScript& script) {
  if (g_dispatch_count++ % kEventsPerCollection != 0) return;
  elog(3, "mscript: repair lua");
  collect(script);
}

// Everything up to the dispatch needs no Lua state: a client that keeps forward_event waiting holds up no reload.
Next handle_event(ManagerScript& script, Event event) {
  if (g_listener != nullptr) g_listener->forward_event(event.get());
  elog(3, "mscript: event(%s) - %s", event->type_name, event->info);
  if (event->type == EVENT_TYPE_QUIT) return Next::quit;
  const LuaTurn turn(script.gate);
  const bool dispatched = dispatch_event(script, *event);
  event.reset();
  if (dispatched) collect_now_and_then(script);
  assert(lua_gettop(script.lua_state) == 0);
  return Next::pass;
}

}  // namespace

int next_wait_ms(std::list<ScriptCoroutine>& coroutines, int now) {
  int64_t wait = kLongestWaitMs;
  for (ScriptCoroutine& coroutine : coroutines) wait = std::min(wait, coroutine.remaining_ms(now));
  return static_cast<int>(std::max<int64_t>(wait, 0));
}

void event_loop(ManagerScript& script) {
  while (script.running) {
    const int wait_ms = run_timers_first(script);
    tell_service(SERVICE_ALIVE);
    Event event(event_dequeue(wait_ms));  // the state is given away while it waits
    if (event == nullptr) {
      idle_pass(script);
    } else if (handle_event(script, std::move(event)) == Next::quit) {
      return;
    }
  }
}
