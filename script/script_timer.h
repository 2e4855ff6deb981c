// What scripts have called later: timers on the grid of the wall clock, and alarms on a clock that nobody sets.
//
// A timer runs at the instants that differ from its origin by whole intervals, in whole seconds, until it is removed. A
// timer that is late by several intervals runs once; missed runs are not made up. When the clock is set, the next run
// is at most two intervals away: after a step back by less than that, a timer waits and does not repeat its last run.
//
// An alarm runs after a delay, once or again at every interval, in microseconds of the steady clock.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <lua.hpp>
#include <map>
#include <set>
#include <string>
#include <utility>

// What runs, and for whom.
struct TimerCall {
  int callback_ref;  // registry reference
  int argument_ref;  // registry reference
  std::string tag;   // of what the callback makes; never empty for a timer of tmr_add
  int round;         // the load to which it belongs and with which it goes; 0: it stays
};

struct ScriptTimer {
  int interval;  // s, at least 1
  int origin;    // s since the epoch
  int next_due;  // s since the epoch
  TimerCall call;
};

struct ScriptAlarm {
  int64_t due_us;       // of the steady clock
  int64_t interval_us;  // 0: it runs once
  TimerCall call;
};

// The first instant after `now` that differs from `origin` by a whole number of intervals, in s since the epoch; at
// most INT_MAX. `interval` must be at least 1. Any thread.
int get_target_time(int now, int interval, int origin);

// All timers and alarms, known by their numbers, which count up in creation order. Only the thread that has the Lua
// state, except for first_alarm_ms().
class ScriptTimers {
 public:
  static constexpr size_t kMost = 65536;  // timers and alarms at once
  static constexpr int64_t kNever = std::numeric_limits<int64_t>::max();

  size_t size() const { return timers.size() + alarms.size(); }

  // Takes over a timer or an alarm with its two registry references, and returns its number. At most kMost.
  uint64_t add(ScriptTimer timer);
  uint64_t add(ScriptAlarm alarm);

  // Whether the timer or alarm will still run.
  bool has(uint64_t number) const { return timers.count(number) != 0 || alarms.count(number) != 0; }

  // Removes it and releases its references; an unknown number does nothing. May raise a Lua error, for want of memory.
  void remove(lua_State* L, uint64_t number);

  // As remove(), for all that belong to another load than `round`.
  void remove_former(lua_State* L, int round);

  // Calls the timers that are due at `now`, in s since the epoch, in creation order; failures are logged. Timers that
  // their callbacks add wait for the next call. A second call for the same second finds nothing to do.
  void run_due(lua_State* L, int now);

  // Calls the alarms that are due at `now_ms` of the steady clock, the earliest first; otherwise as run_due().
  void run_alarms(lua_State* L, int64_t now_ms);

  // When the first alarm is due, in ms of the steady clock, or kNever. Any thread.
  int64_t first_alarm_ms() const { return first_alarm.load(std::memory_order_relaxed); }

  // What runs, or null, also when its own callback has removed it.
  const TimerCall* current() const { return is_aside ? nullptr : current_call; }

  // While one lives, nothing counts as running: for a coroutine that a callback wakes.
  class Aside {
   public:
    explicit Aside(ScriptTimers& the_timers) : timers(the_timers), before(std::exchange(timers.is_aside, true)) {}
    Aside(const Aside&) = delete;
    Aside& operator=(const Aside&) = delete;
    ~Aside() { timers.is_aside = before; }

   private:
    ScriptTimers& timers;
    const bool before;
  };

  // Removes what runs. Returns false when there is none.
  bool delete_current(lua_State* L);

  // For the report.
  const std::map<uint64_t, ScriptTimer>& all_timers() const { return timers; }
  const std::map<uint64_t, ScriptAlarm>& all_alarms() const { return alarms; }

  // Forgets all of them; their references die with the state.
  void clear();

 private:
  void run(lua_State* L, uint64_t number, const TimerCall& call, bool is_last);
  void run_alarm(lua_State* L, uint64_t number, int64_t now_us);
  void note_first_alarm();

  std::map<uint64_t, ScriptTimer> timers;
  int first_due = std::numeric_limits<int>::max();  // s since the epoch; no timer is due before
  int walked_at = 0;                                // s since the epoch: when timers were looked at last
  std::map<uint64_t, ScriptAlarm> alarms;
  std::set<std::pair<int64_t, uint64_t>> alarm_order;  // due_us and number of each alarm
  std::atomic<int64_t> first_alarm{kNever};
  uint64_t next_number = 1;
  const TimerCall* current_call = nullptr;
  uint64_t current_number = 0;
  bool is_aside = false;
};

// The Lua functions; script/script_api.cpp registers them.
int tmr_add(lua_State* L);
int tmr_delete(lua_State* L);
int timer_time(lua_State* L);

// For the default scripts. add_timer(func, interval_s, origin, tag, round) and
// add_alarm(func, delay_s, interval_s, tag, round) return a number, for has_timer(number) and remove_timer(number).
// remove_former_timers() removes those of other rounds than the present one.
int add_timer(lua_State* L);
int add_alarm(lua_State* L);
int has_timer(lua_State* L);
int remove_timer(lua_State* L);
int remove_former_timers(lua_State* L);
