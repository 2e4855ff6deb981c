// The owner of the daemon's one Lua state and of all that scripts keep in it.
//
// It creates the state, loads the script files in their fixed order, runs the script thread, whose event loop calls the
// handlers, reloads the script directories and closes the state. The hard part: one Lua state, two threads. The script
// thread has the state during the Lua work of a pass; the main thread has it before the script thread starts, for a
// reload, and after the join. `gate` hands it over.
#pragma once

#include <pthread.h>

#include <atomic>
#include <lua.hpp>
#include <optional>
#include <string>

#include "script/event_dispatch.h"
#include "script/lua_gate.h"
#include "script/lua_memory.h"
#include "script/script_coroutine.h"
#include "script/script_keep.h"
#include "script/script_loading.h"
#include "script/script_stop.h"
#include "script/script_timer.h"
#include "script/script_watch.h"
#include "util/clock.h"

// The clocks of timers and coroutines. Tests replace them.
struct ScriptClock {
  // Wall clock in seconds since the epoch: timers.
  int (*seconds)() = [] { return static_cast<int>(time(nullptr)); };
  // now_ms: coroutines and timems().
  int (*milliseconds)() = now_ms;
  // The steady clock, in ms: alarms. And its last tick, for a look before each event.
  int64_t (*steady)() = steady_ms;
  int64_t (*steady_tick)() = steady_tick_ms;
};

class ManagerScript {
 public:
  ManagerScript();
  // Closes a state that is still open, without clean-up calls. The script thread must have been joined.
  ~ManagerScript();
  ManagerScript(const ManagerScript&) = delete;
  ManagerScript& operator=(const ManagerScript&) = delete;

  // What run control calls, on the main thread, in this order. The paths are directories; external_path may be empty.

  // Creates the Lua state with its libraries and the script API. Throws except_base.
  void init();
  // Runs init_base.lua, config.lua and server_event.lua, the scripts' event_server.init(), then the other files of the
  // directories. Throws except_base when one of them fails; what ran before stays.
  void load_scripts(const char* script_path, const char* external_path);
  // Starts the event loop on a thread of its own. Returns 1, or -1 (logged) when no thread can be started.
  int start_thread();
  // Runs the files of the directories once more, on the same state, between two passes of the loop. Throws except_base.
  void reload(const char* script_path, const char* external_path);
  // What a reload does with the Lua state, which the caller has. Throws except_base. Main thread; the trial of a reload
  // calls it too.
  void load_again(const char* script_path, const char* external_path);
  // Asks the loop to end and joins its thread, at the latest after the pass in progress, which no longer waits for
  // events.
  void stop_thread();
  // Runs the scripts' event_server.cleanup(); a failure is logged.
  void call_cleanup();
  // Closes the state, and then the device libraries.
  void cleanup();

  // What the event loop calls, on the thread that has the Lua state.

  // Calls the timers and the alarms that are due by the clock.
  void run_timers();
  // Calls the alarms alone.
  void run_alarms();
  // Whether an alarm is due by the clock's last tick. Needs no Lua state, and no clock when there is no alarm.
  bool is_alarm_due() const {
    const int64_t due_ms = timers.first_alarm_ms();
    return due_ms != ScriptTimers::kNever && clock.steady_tick() >= due_ms;
  }
  // Resumes the coroutines that are due by the clock.
  void resume_coroutines();
  // As resume_coroutines(), once the first of them has been due for coroutine_patience_ms; called after each event.
  void resume_impatient_coroutines() {
    if (coroutine_patience_ms != 0 && coroutines.size() != 0 && clock.steady_tick() >= next_look_ms)
      look_at_coroutines();
  }
  // How long the loop may wait for an event, in ms: until the first coroutine or alarm is due, 0 to 1000.
  int next_wait_ms();
  // Calls the handlers of `event`. Returns false when nobody knows its type (logged).
  bool dispatch_event(const event_item& event);
  // Collects all garbage; a finalizer that fails is logged. Between two calls of scripts.
  void collect_garbage();
  // The same inside a call, on the state or coroutine `L` that runs.
  void collect_inside(lua_State* L);
  // When a request for memory has been refused, collects all garbage and takes the reserve back, as often as the
  // back-off allows.
  void refill_memory();
  // Does what has been asked of the loop since its last turn: the report.
  void answer_others() {
    if (report_wanted.load(std::memory_order_relaxed)) write_report();
  }

  // Any thread but the one that runs the event loop. The answer of the loop at its next turn, which lists the files,
  // handlers, timers and tasks as lines (docs/control.md); nothing when it does not come within timeout_ms: the loop is
  // busy, or has ended. One caller at a time.
  std::optional<std::string> report(int timeout_ms);

  // The tag of the script code that runs; empty when it has none. Read it at once. Only the thread that has the Lua
  // state.
  const char* current_tag_name() const;

  std::atomic<bool> running{false};  // the main thread writes, the loop reads once per pass
  LuaGate gate;
  ScriptStop stop;
  ScriptWatch watch;

  // Set before the script thread starts.
  ScriptClock clock;
  int collect_every = 20;         // dispatched events between two full collections, at least 1
  int coroutine_patience_ms = 0;  // how long due coroutines wait for a pass while events come; 0: until none comes
  LuaMemory memory;               // its limit; the rest is for the thread that has the Lua state

  // The following belong to the thread that has the Lua state.
  lua_State* lua_state = nullptr;
  ScriptModules scripts;
  ScriptTimers timers;
  ScriptCoroutines coroutines;
  ScriptKeep keep;
  EventDispatch dispatch;

 private:
  void close_state();
  void look_at_coroutines();
  void update_gauges() const;
  void write_report();

  int64_t next_look_ms = 0;  // script thread; of the steady clock: when a coroutine may have been due for too long

  std::atomic<bool> report_wanted{false};
  Mutex report_mutex;
  std::condition_variable_any report_written;
  std::optional<std::string> last_report GUARDED_BY(report_mutex);

  pthread_t thread = 0;  // for the main thread; 0 when there is none
};

// The one instance, or null. Set before any other thread starts, cleared after the last has ended.
extern ManagerScript* g_mscript;

// What the main thread does while it waits for a reload or its trial: a call that has the state may be one to name or
// to end. Returns in how many ms it wants to be called again.
int watch_meanwhile();
