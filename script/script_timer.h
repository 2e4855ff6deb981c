// Periodic timers of the scripts, in whole seconds of the wall clock.
//
// A timer runs at the instants that differ from its phase origin by whole intervals, until its own callback deletes it.
// One that is late by several intervals runs once; missed runs are not made up. A step of the clock costs at most one
// interval. The pass is ManagerScript::run_timers.
#pragma once

#include <cstddef>
#include <lua.hpp>
#include <string>

struct ScriptTimer {
  int interval;      // s, at least 1
  int origin;        // s since the epoch
  int next_due;      // s since the epoch
  int callback_ref;  // registry reference
  int argument_ref;  // registry reference
  std::string tag;   // never empty
};

// The first instant after `now` that differs from `origin` by a whole number of intervals, in s since the epoch; cut at
// the last second that 32 bits hold. `interval` must be at least 1.
int get_target_time(int now, int interval, int origin);

// How many timers there may be at once.
constexpr size_t kMaxTimers = 65536;

// The Lua functions; script/script_api.cpp registers them.
int tmr_add(lua_State* L);
int tmr_delete(lua_State* L);
int timer_time(lua_State* L);
