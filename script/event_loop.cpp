#include "script/event_loop.h"

#include <cassert>
#include <memory>
#include <optional>

#include "control/event_ring.h"
#include "control/loop_stats.h"
#include "device/event_queue.h"
#include "device/event_source.h"
#include "device/log.h"
#include "device/service.h"
#include "listener/manager_listener.h"
#include "script/manager_script.h"

namespace {

constexpr int kArrangeEveryS = 30;

uint32_t g_dispatch_count = 0;  // events dispatched since the process started; only the script thread touches these
int g_last_arrange = 0;         // s since the epoch

struct GiveBack {
  void operator()(event_item* event) const { event_item_free(event); }
};
using Event = std::unique_ptr<event_item, GiveBack>;

enum class Next { pass, quit };

// Holds the Lua state for a part of a pass. First does what is due at every turn: the reserve of memory, the report.
class LoopTurn {
 public:
  explicit LoopTurn(ManagerScript& the_script) : script(the_script), turn(script.gate) {
    if (script.memory.is_short()) script.refill_memory();
    script.answer_others();
  }
  LoopTurn(const LoopTurn&) = delete;
  LoopTurn& operator=(const LoopTurn&) = delete;
  ~LoopTurn() { assert(lua_gettop(script.lua_state) == 0); }

 private:
  ManagerScript& script;
  const LuaTurn turn;
};

// Runs the timers, unless they have run in this second: none is due twice in one. And the alarms. Returns how long the
// pass may wait for an event, in ms; while events wait, that is 0 and needs no look at the coroutines.
int begin_pass(ManagerScript& script, std::optional<int>& timers_ran_at) {
  const int now = script.clock.seconds();
  const bool event_waits = event_pending != nullptr && event_pending() > 0;
  if (event_waits && timers_ran_at == now && !script.is_alarm_due()) return 0;
  const LoopTurn turn(script);
  timers_ran_at == now ? script.run_alarms() : script.run_timers();
  timers_ran_at = now;
  return event_waits ? 0 : script.next_wait_ms();
}

void idle_pass(ManagerScript& script) {
  const int now = script.clock.seconds();
  if (int64_t{now} > int64_t{g_last_arrange} + kArrangeEveryS || now < g_last_arrange) {  // or the clock was set back
    g_last_arrange = now;
    event_arrange();
  }
  const LoopTurn turn(script);
  script.resume_coroutines();
}

// Counts a dispatched event; with 20, a full collection follows the 1st, 21st, 41st ...
void collect_now_and_then(ManagerScript& script) {
  if (g_dispatch_count++ % static_cast<uint32_t>(script.collect_every) != 0) return;
  elog(3, "mscript: repair lua");
  script.collect_garbage();
}

// Nothing before the dispatch needs the Lua state: a client that makes forward_event wait does not hold up a reload.
Next handle_event(ManagerScript& script, Event event) {
  g_loop_stats.takes_event(event->type_name);
  if (g_listener != nullptr) g_listener->forward_event(event.get());
  elog(3, "mscript: event(%s) - %s", event->type_name, event->info);
  if (event->type == EVENT_TYPE_QUIT) {
    EventDispatch::record(*event, steady_ns(), 0, 0);
    return Next::quit;
  }
  const LoopTurn turn(script);
  const bool dispatched = script.dispatch_event(*event);
  event.reset();
  if (dispatched) collect_now_and_then(script);
  script.resume_impatient_coroutines();
  return Next::pass;
}

}  // namespace

void event_loop(ManagerScript& script) {
  std::optional<int> timers_ran_at;  // s since the epoch
  g_loop_stats.looks_around();
  while (script.running) {
    const int wait_ms = begin_pass(script, timers_ran_at);
    tell_service(SERVICE_ALIVE);
    Event event(event_dequeue(wait_ms));  // without the Lua state
    if (event == nullptr || wait_ms > 0) g_loop_stats.looks_around();
    if (event == nullptr) {
      idle_pass(script);
    } else if (handle_event(script, std::move(event)) == Next::quit) {
      elog(1, "mscript: quit event, the event loop has ended");
      tell_service(SERVICE_ENDED);
      if (g_event_ring != nullptr) g_event_ring->end();
      break;
    }
  }
  g_loop_stats.stops();
}
