#include "script/script_timer.h"

#include <algorithm>
#include <climits>
#include <cstdint>
#include <ctime>
#include <iterator>

#include "device/log.h"
#include "script/manager_script.h"
#include "util/lua_binding.h"

int get_target_time(int now, int interval, int origin) {
  const int64_t distance = int64_t{now} - origin;
  const int64_t since_point = (distance % interval + interval) % interval;  // s since the last instant of the grid
  return static_cast<int>(std::min<int64_t>(int64_t{now} + interval - since_point, INT_MAX));
}

int tmr_add(lua_State* L) {
  ManagerScript& script = *g_mscript;
  if (lua_isnone(L, 1)) throw ArgumentError(1, "function expected, got no value");
  const int interval = int_arg(L, 2);
  if (interval < 1) throw ArgumentError(2, "an interval of at least 1 s expected");
  const int origin = int_arg(L, 3);
  if (script.current_tag_name().empty()) throw ScriptError("not set script tag name yet");
  if (script.timers.size() >= ScriptTimers::kMost) throw ScriptError("too many timers");
  lua_pushvalue(L, 1);
  const int callback_ref = luaL_ref(L, LUA_REGISTRYINDEX);
  const int argument_ref = luaL_ref(L, LUA_REGISTRYINDEX);  // the last argument, whichever it is
  const int next_due = get_target_time(script.clock.seconds(), interval, origin);
  script.timers.add({interval, origin, next_due, callback_ref, argument_ref, script.current_tag_name()});
  return 0;
}

int tmr_delete(lua_State* L) {
  if (!g_mscript->timers.delete_current(L)) throw ScriptError("This is not timer callback");
  return 0;
}

int timer_time(lua_State* L) {
  constexpr int kFields = 6;  // year, month from 0, day of month, hour, minute, second
  const int given = lua_gettop(L);
  if (given > kFields) throw ScriptError("timer_time takes at most six arguments");
  int fields[kFields] = {-1, -1, -1, -1, -1, -1};
  for (int i = 0; i < given; ++i) fields[kFields - given + i] = int_arg(L, i + 1);
  const time_t now = g_mscript->clock.seconds();
  tzset();  // localtime_r does not notice a change of the device's time zone, mktime does
  tm local{};
  localtime_r(&now, &local);
  if (fields[0] != -1) local.tm_year = static_cast<int>(std::max<int64_t>(int64_t{fields[0]} - 1900, INT_MIN));
  if (fields[1] != -1) local.tm_mon = fields[1];
  if (fields[2] != -1) local.tm_mday = fields[2];
  if (fields[3] != -1) local.tm_hour = fields[3];
  if (fields[4] != -1) local.tm_min = fields[4];
  if (fields[5] != -1) local.tm_sec = fields[5];
  lua_pushinteger(L, static_cast<int>(mktime(&local)));
  return 1;
}

namespace {

void call_back(lua_State* L, const ScriptTimer& timer) {
  const LoopCall counted(g_mscript->watch, Activity::timer, timer.tag.c_str());
  std::string error;
  const bool done = protect(L, error, [&](lua_State* state) {
    lua_rawgeti(state, LUA_REGISTRYINDEX, timer.callback_ref);
    lua_rawgeti(state, LUA_REGISTRYINDEX, timer.argument_ref);
    lua_call(state, 1, 0);
  });
  if (done) return;
  elog(1, "mscript: Could not execute timer -- %s\n", error.c_str());
  g_loop_stats.failed(timer.tag.c_str(), error.c_str());
}

}  // namespace

void ScriptTimers::run_due(lua_State* L, int now) {
  auto timer = timers.begin();
  for (size_t left = timers.size(); left > 0; --left) {      // callbacks append timers
    if (int64_t{timer->next_due} - now > timer->interval) {  // the clock was set back
      timer->next_due = get_target_time(now, timer->interval, timer->origin);
    }
    bool deleted = false;
    if (timer->next_due <= now) {
      g_loop_stats.timer_lateness.add((int64_t{now} - timer->next_due) * 1000000000);
      timer->next_due = get_target_time(now, timer->interval, timer->origin);
      current_timer = &*timer;
      call_back(L, *timer);
      deleted = current_timer == nullptr;
    }
    timer = deleted ? timers.erase(timer) : std::next(timer);
  }
  current_timer = nullptr;
}

// The walk removes the record when the callback has returned.
bool ScriptTimers::delete_current(lua_State* L) {
  if (current_timer == nullptr) return false;
  luaL_unref(L, LUA_REGISTRYINDEX, current_timer->callback_ref);
  luaL_unref(L, LUA_REGISTRYINDEX, current_timer->argument_ref);
  current_timer = nullptr;
  return true;
}
