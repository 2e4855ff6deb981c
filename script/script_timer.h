// Periodic timers of the scripts, in whole seconds of the wall clock.
//
// A timer runs at the instants that differ from its origin by whole intervals, until its own callback deletes it. A
// timer that is late by several intervals runs once; missed runs are not made up. When the clock is set, the next run
// is at most one interval away.
#pragma once

#include <cstddef>
#include <list>
#include <lua.hpp>
#include <string>
#include <utility>

struct ScriptTimer {
  int interval;      // s, at least 1
  int origin;        // s since the epoch
  int next_due;      // s since the epoch
  int callback_ref;  // registry reference
  int argument_ref;  // registry reference
  std::string tag;   // never empty
};

// The first instant after `now` that differs from `origin` by a whole number of intervals, in s since the epoch; at
// most INT_MAX. `interval` must be at least 1. Any thread.
int get_target_time(int now, int interval, int origin);

// All timers, in creation order. Only the thread that has the Lua state.
class ScriptTimers {
 public:
  static constexpr size_t kMost = 65536;  // at once

  size_t size() const { return timers.size(); }

  // Takes over a timer with its two registry references. At most kMost.
  void add(ScriptTimer timer) { timers.push_back(std::move(timer)); }

  // Calls those that are due at `now`, in s since the epoch, in creation order; failures are logged. Timers that their
  // callbacks add wait for the next call. A second call for the same second finds nothing to do.
  void run_due(lua_State* L, int now);

  // The timer whose callback runs, or null, also when that callback has deleted it.
  const ScriptTimer* current() const { return current_timer; }

  // Deletes that timer. Returns false when there is none.
  bool delete_current(lua_State* L);

  // For the report.
  const std::list<ScriptTimer>& all() const { return timers; }

  // Forgets all of them; their references die with the state.
  void clear() { timers.clear(); }

 private:
  std::list<ScriptTimer> timers;
  ScriptTimer* current_timer = nullptr;
};

// The Lua functions; script/script_api.cpp registers them.
int tmr_add(lua_State* L);
int tmr_delete(lua_State* L);
int timer_time(lua_State* L);
