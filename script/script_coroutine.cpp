#include "script/script_coroutine.h"

#include <algorithm>
#include <utility>

#include "device/log.h"
#include "script/manager_script.h"
#include "util/clock.h"
#include "util/lua_binding.h"

namespace {

// Runs the thread until it yields or ends; `arguments` values are on its stack. An error in it only ends it.
void run_until_yield(lua_State* from, lua_State* thread, int arguments) {
  lua_setlevel(from, thread);  // nested coroutines reach Lua's limit for C calls before the end of the C stack
  if (lua_resume(thread, arguments) == LUA_YIELD) lua_settop(thread, 0);  // nobody reads what it yielded
}

// A C function at the bottom of a thread cannot be resumed after a yield; above a Lua function it can.
void put_below_lua_function(lua_State* thread) {
  if (luaL_loadstring(thread, "local f, a = ... f(a)") != 0) throw ScriptError("not enough memory");
  lua_insert(thread, 1);
}

// Pushes a thread that is to run the function at stack index 1 with the argument at index 3. Returns a registry
// reference to it.
int push_thread(lua_State* L) {
  lua_State* const thread = lua_newthread(L);
  lua_pushvalue(L, 1);
  lua_pushvalue(L, 3);
  lua_xmove(L, thread, 2);
  if (lua_iscfunction(thread, 1) != 0) put_below_lua_function(thread);
  lua_pushvalue(L, -1);
  return luaL_ref(L, LUA_REGISTRYINDEX);
}

void check_room() {
  if (g_mscript->coroutines.size() >= ScriptCoroutines::kMost) throw ScriptError("too many coroutines");
}

uint64_t number_of(lua_State* L) {
  return static_cast<uint64_t>(lua_tonumber(L, 1));
}

}  // namespace

int cr_add(lua_State* L) {
  lua_settop(L, 3);
  ManagerScript& script = *g_mscript;
  const int delay = int_arg(L, 2);
  const int now = script.clock.milliseconds();
  if (*script.current_tag_name() == '\0') throw ScriptError("not set script tag name yet");
  check_room();
  const int thread_ref = push_thread(L);
  script.coroutines.start(L, lua_tothread(L, -1), thread_ref, now, delay, script.current_tag_name());
  return 1;
}

int add_coroutine(lua_State* L) {
  lua_settop(L, 3);
  const char* const tag = text_arg(L, 2);
  ManagerScript& script = *g_mscript;
  check_room();
  const int thread_ref = push_thread(L);
  const int now = script.clock.milliseconds();
  const uint64_t number = script.coroutines.start(L, lua_tothread(L, -1), thread_ref, now, 0, tag);
  lua_pushnumber(L, static_cast<lua_Number>(number));
  return 1;
}

int wake_coroutine(lua_State* L) {
  g_mscript->coroutines.wake(L, number_of(L), g_mscript->clock.milliseconds());
  return 0;
}

int remove_coroutine(lua_State* L) {
  g_mscript->coroutines.remove(L, number_of(L));
  return 0;
}

int ask_wait(lua_State* L) {
  if (!g_mscript->coroutines.ask_for_run(int_arg(L, 1))) throw ScriptError("a wait outside a coroutine");
  return 0;
}

int asked_wait(lua_State* L) {
  const ScriptCoroutine* const running = g_mscript->coroutines.current();
  lua_pushinteger(L, running == nullptr ? 0 : running->wait);
  return 1;
}

int cr_yield(lua_State* L) {
  if (!g_mscript->coroutines.ask_for_run(int_arg(L, 1))) throw ScriptError("cr_yield outside a coroutine");
  return lua_yield(L, 0);
}

void ScriptCoroutines::read_clock(int now) {
  const int passed_ms = ms_between(last_reading, now);
  last_reading = now;
  clock_ms += passed_ms;
  if (passed_ms >= 0) return;
  for (auto& [number, record] : records) record.last_resume = std::min(record.last_resume, clock_ms);
  Waiting anew;
  while (!waiting.empty()) {
    auto place = waiting.extract(waiting.begin());
    const ScriptCoroutine& record = records.at(place.value().second);
    place.value().first = record.last_resume + record.wait;
    anew.insert(std::move(place));
  }
  waiting.swap(anew);
}

int ScriptCoroutines::next_wait_ms(int now, int longest) {
  if (waiting.empty()) return longest;
  return static_cast<int>(std::clamp<int64_t>(-overdue_ms(now), 0, longest));
}

int64_t ScriptCoroutines::overdue_ms(int now) {
  if (waiting.empty()) return kNone;
  read_clock(now);
  return clock_ms - waiting.begin()->first;
}

void ScriptCoroutines::let_wait(Record record) {
  record->second.place.value() = {record->second.last_resume + record->second.wait, record->first};
  waiting.insert(std::move(record->second.place));
}

void ScriptCoroutines::run(lua_State* L, ScriptCoroutine& coroutine, int arguments) {
  const LoopCall counted(g_mscript->watch, Activity::coroutine, coroutine.tag.c_str());
  ScriptCoroutine* const caller = std::exchange(current_coroutine, &coroutine);
  coroutine.runs = true;
  run_until_yield(L, coroutine.thread, arguments);
  coroutine.runs = false;
  current_coroutine = caller;
  if (lua_status(coroutine.thread) <= LUA_YIELD) return;
  g_loop_stats.failed(coroutine.tag.c_str(), error_value_text(coroutine.thread, -1).c_str());
}

uint64_t ScriptCoroutines::start(lua_State* L, lua_State* thread, int thread_ref, int now, int wait,
                                 const std::string& tag) {
  read_clock(now);
  Waiting place;
  place.emplace(0, next_number);
  ScriptCoroutine made{thread, clock_ms, wait, thread_ref, tag, place.extract(place.begin()), false};
  const auto record = records.emplace_hint(records.end(), next_number, std::move(made));
  const uint64_t number = next_number++;
  elog(2, "corutine add2: %d", static_cast<int>(records.size()));
  if (!lua_isfunction(thread, 1)) {
    elog(1, "Invalid function for coroutine!!!!!!!!!!!!!!!!");
    drop(L, record);
    throw ScriptError("Invalid function for coroutine");
  }
  run(L, record->second, lua_gettop(thread) - 1);
  let_wait(record);
  return number;
}

bool ScriptCoroutines::ask_for_run(int wait) {
  if (current_coroutine == nullptr) return false;
  current_coroutine->wait = wait;
  return true;
}

void ScriptCoroutines::resume_due(lua_State* L, int now) {
  if (waiting.empty()) return;
  read_clock(now);
  if (due.capacity() < waiting.size()) due.reserve(2 * waiting.size());  // what follows must not fail half-way
  while (!waiting.empty() && waiting.begin()->first < clock_ms) {
    auto place = waiting.extract(waiting.begin());
    const uint64_t number = place.value().second;
    records.at(number).place = std::move(place);
    due.push_back(number);
  }
  std::sort(due.begin(), due.end());
  const int64_t pass_ms = clock_ms;
  for (const uint64_t number : due) {
    const auto record = records.find(number);
    const bool is_still_due = record != records.end() && !record->second.place.empty();  // no other has changed that
    if (!is_still_due) continue;
    g_loop_stats.coroutine_lateness.add((pass_ms - record->second.last_resume - record->second.wait) * 1000000);
    resume(L, record, pass_ms);
  }
  due.clear();
}

void ScriptCoroutines::resume(lua_State* L, Record record, int64_t pass_ms) {
  ScriptCoroutine& coroutine = record->second;
  coroutine.wait = 0;
  coroutine.last_resume = std::min(pass_ms, clock_ms);  // the clock may have been set back during the pass
  // Resumed, a thread that has ended would call whatever is on top of its stack.
  if (lua_status(coroutine.thread) == LUA_YIELD) run(L, coroutine, 0);
  if (coroutine.wait != 0 && lua_status(coroutine.thread) == LUA_YIELD) {
    let_wait(record);
  } else {
    drop(L, record);
  }
}

void ScriptCoroutines::drop(lua_State* L, Record record) {
  std::string error;
  const int thread_ref = record->second.thread_ref;
  if (protect(L, error, [&](lua_State* state) { luaL_unref(state, LUA_REGISTRYINDEX, thread_ref); })) {
    records.erase(record);
  } else {
    let_wait(record);  // no memory: a later pass drops it
  }
}

// The record, with its place taken out of those that wait; records.end() when there is none or it runs.
ScriptCoroutines::Record ScriptCoroutines::take(uint64_t number) {
  const auto record = records.find(number);
  if (record == records.end() || record->second.runs) return records.end();
  ScriptCoroutine& coroutine = record->second;
  if (coroutine.place.empty()) coroutine.place = waiting.extract({coroutine.last_resume + coroutine.wait, number});
  return record;
}

void ScriptCoroutines::wake(lua_State* L, uint64_t number, int now) {
  read_clock(now);
  const auto record = take(number);
  if (record == records.end()) return;
  const ScriptTimers::Aside aside(g_mscript->timers);
  resume(L, record, clock_ms);
}

void ScriptCoroutines::remove(lua_State* L, uint64_t number) {
  const auto record = take(number);
  if (record != records.end()) drop(L, record);
}

void ScriptCoroutines::clear() {
  waiting.clear();
  records.clear();
}
