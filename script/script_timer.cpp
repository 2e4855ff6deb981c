#include "script/script_timer.h"

#include <algorithm>
#include <climits>
#include <cstdint>
#include <ctime>
#include <utility>

#include "device/log.h"
#include "script/manager_script.h"
#include "util/lua_binding.h"

int get_target_time(int now, int interval, int origin) {
  const int64_t distance = int64_t{now} - origin;
  const int64_t since_point = (distance % interval + interval) % interval;  // s since the last instant of the grid
  return static_cast<int>(std::min<int64_t>(int64_t{now} + interval - since_point, INT_MAX));
}

namespace {

int reference(lua_State* L, int index) {
  lua_pushvalue(L, index);
  return luaL_ref(L, LUA_REGISTRYINDEX);
}

void check_room() {
  if (g_mscript->timers.size() >= ScriptTimers::kMost) throw ScriptError("too many timers");
}

uint64_t timer_arg(lua_State* L, int index) {
  return static_cast<uint64_t>(lua_tonumber(L, index));
}

// What add_timer and add_alarm have in common.
TimerCall new_call(lua_State* L) {
  const char* const tag = text_arg(L, 4);
  const int round = int_arg(L, 5);
  check_room();
  return {reference(L, 1), LUA_REFNIL, tag, round};
}

int push_number(lua_State* L, uint64_t number) {
  lua_pushnumber(L, static_cast<lua_Number>(number));
  return 1;
}

int64_t microseconds_arg(lua_State* L, int index) {
  return static_cast<int64_t>(lua_tonumber(L, index) * 1e6);
}

}  // namespace

int tmr_add(lua_State* L) {
  ManagerScript& script = *g_mscript;
  if (lua_isnone(L, 1)) throw ArgumentError(1, "function expected, got no value");
  const int interval = int_arg(L, 2);
  if (interval < 1) throw ArgumentError(2, "an interval of at least 1 s expected");
  const int origin = int_arg(L, 3);
  if (*script.current_tag_name() == '\0') throw ScriptError("not set script tag name yet");
  check_room();
  const int callback_ref = reference(L, 1);
  const int argument_ref = luaL_ref(L, LUA_REGISTRYINDEX);  // the last argument, whichever it is
  const int next_due = get_target_time(script.clock.seconds(), interval, origin);
  script.timers.add({interval, origin, next_due, {callback_ref, argument_ref, script.current_tag_name(), 0}});
  return 0;
}

int add_timer(lua_State* L) {
  const int interval = int_arg(L, 2);
  const int origin = int_arg(L, 3);
  const int next_due = get_target_time(g_mscript->clock.seconds(), interval, origin);
  return push_number(L, g_mscript->timers.add({interval, origin, next_due, new_call(L)}));
}

int add_alarm(lua_State* L) {
  const int64_t delay_us = microseconds_arg(L, 2);
  const int64_t interval_us = microseconds_arg(L, 3);
  // Without a delay, it is due by the tick, and so before the next event.
  const int64_t now_ms = delay_us == 0 ? g_mscript->clock.steady_tick() : g_mscript->clock.steady();
  return push_number(L, g_mscript->timers.add({now_ms * 1000 + delay_us, interval_us, new_call(L)}));
}

int has_timer(lua_State* L) {
  lua_pushboolean(L, g_mscript->timers.has(timer_arg(L, 1)) ? 1 : 0);
  return 1;
}

int remove_timer(lua_State* L) {
  g_mscript->timers.remove(L, timer_arg(L, 1));
  return 0;
}

int remove_former_timers(lua_State* L) {
  g_mscript->timers.remove_former(L, g_mscript->scripts.round());
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

uint64_t ScriptTimers::add(ScriptTimer timer) {
  first_due = std::min(first_due, timer.next_due);
  timers.emplace(next_number, std::move(timer));
  return next_number++;
}

uint64_t ScriptTimers::add(ScriptAlarm alarm) {
  alarm_order.emplace(alarm.due_us, next_number);
  alarms.emplace(next_number, std::move(alarm));
  note_first_alarm();
  return next_number++;
}

void ScriptTimers::note_first_alarm() {
  first_alarm = alarm_order.empty() ? kNever : (alarm_order.begin()->first + 999) / 1000;
}

void ScriptTimers::remove(lua_State* L, uint64_t number) {
  const auto timer = timers.find(number);
  const auto alarm = alarms.find(number);
  if (timer == timers.end() && alarm == alarms.end()) return;
  const TimerCall& call = timer != timers.end() ? timer->second.call : alarm->second.call;
  luaL_unref(L, LUA_REGISTRYINDEX, call.callback_ref);
  luaL_unref(L, LUA_REGISTRYINDEX, call.argument_ref);
  if (current_call == &call) current_call = nullptr;
  if (timer != timers.end()) {
    timers.erase(timer);
  } else {
    alarm_order.erase({alarm->second.due_us, number});
    alarms.erase(alarm);
    note_first_alarm();
  }
}

void ScriptTimers::remove_former(lua_State* L, int round) {
  const auto remove_from = [&](const auto& records) {
    for (auto next = records.begin(); next != records.end();) {
      const auto& [number, record] = *next++;  // before the record goes
      if (record.call.round != 0 && record.call.round != round) remove(L, number);
    }
  };
  remove_from(timers);
  remove_from(alarms);
}

// `call` may be gone when this returns: callbacks remove timers. The references of a last run go before it, so that
// nothing is left to be released afterwards, when memory may be short.
void ScriptTimers::run(lua_State* L, uint64_t number, const TimerCall& call, bool is_last) {
  const std::string tag = call.tag;
  const LoopCall counted(g_mscript->watch, Activity::timer, tag.c_str());
  std::string error;
  current_call = &call;
  current_number = number;
  const bool done = protect(L, error, [&](lua_State* state) {
    lua_rawgeti(state, LUA_REGISTRYINDEX, call.callback_ref);
    lua_rawgeti(state, LUA_REGISTRYINDEX, call.argument_ref);
    if (is_last) {
      luaL_unref(state, LUA_REGISTRYINDEX, call.callback_ref);
      luaL_unref(state, LUA_REGISTRYINDEX, call.argument_ref);
    }
    lua_call(state, 1, 0);
  });
  current_call = nullptr;
  if (done) return;
  elog(1, "mscript: Could not execute timer -- %s\n", error.c_str());
  g_loop_stats.failed(tag.c_str(), error.c_str());
}

// No walk while the clock goes on towards the first due time: that keeps many timers cheap.
void ScriptTimers::run_due(lua_State* L, int now) {
  const bool is_none_due = walked_at <= now && now < first_due;
  walked_at = now;
  if (is_none_due) return;
  first_due = INT_MAX;
  const uint64_t end = next_number;  // callbacks add timers
  for (auto next = timers.begin(); next != timers.end() && next->first < end;) {
    const uint64_t number = next->first;
    ScriptTimer& timer = next->second;
    if (int64_t{timer.next_due} - now > 2 * int64_t{timer.interval}) {  // the clock was set back
      timer.next_due = get_target_time(now, timer.interval, timer.origin);
    }
    const bool is_due = timer.next_due <= now;
    if (is_due) {
      g_loop_stats.timer_lateness.add((int64_t{now} - timer.next_due) * 1000000000);
      timer.next_due = get_target_time(now, timer.interval, timer.origin);
    }
    first_due = std::min(first_due, timer.next_due);
    ++next;
    if (!is_due) continue;
    run(L, number, timer.call, false);
    next = timers.upper_bound(number);  // the callback may have removed any
  }
}

void ScriptTimers::run_alarms(lua_State* L, int64_t now_ms) {
  if (now_ms < first_alarm_ms()) return;
  const int64_t now_us = now_ms * 1000;
  const uint64_t end = next_number;
  for (auto next = alarm_order.begin(); next != alarm_order.end() && next->first <= now_us;) {
    const auto place = *next++;
    if (place.second >= end) continue;  // a callback has added it
    run_alarm(L, place.second, now_us);
    next = alarm_order.upper_bound(place);
  }
}

void ScriptTimers::run_alarm(lua_State* L, uint64_t number, int64_t now_us) {
  const auto found = alarms.find(number);
  ScriptAlarm& alarm = found->second;
  g_loop_stats.timer_lateness.add((now_us - alarm.due_us) * 1000);
  auto place = alarm_order.extract({alarm.due_us, number});
  if (alarm.interval_us == 0) {
    const auto last = alarms.extract(found);
    note_first_alarm();
    return run(L, number, last.mapped().call, true);
  }
  alarm.due_us += ((now_us - alarm.due_us) / alarm.interval_us + 1) * alarm.interval_us;
  place.value().first = alarm.due_us;
  alarm_order.insert(std::move(place));
  note_first_alarm();
  run(L, number, alarm.call, false);
}

bool ScriptTimers::delete_current(lua_State* L) {
  if (current() == nullptr) return false;
  remove(L, current_number);  // what runs for the last time is not there any more
  current_call = nullptr;
  return true;
}

void ScriptTimers::clear() {
  timers.clear();
  alarms.clear();
  alarm_order.clear();
  note_first_alarm();
}
