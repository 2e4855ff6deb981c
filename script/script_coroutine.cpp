#include "script/script_coroutine.h"

#include <algorithm>
#include <iterator>
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

// Grows by doubling, which reserve() alone does not.
template <typename Vector>
void make_room(Vector& vector, size_t size) {
  if (vector.capacity() < size) vector.reserve(std::max(size, 2 * vector.capacity()));
}

}  // namespace

int cr_add(lua_State* L) {
  lua_settop(L, 3);
  ManagerScript& script = *g_mscript;
  const int delay = int_arg(L, 2);
  const int now = script.clock.milliseconds();
  if (script.current_tag_name().empty()) throw ScriptError("not set script tag name yet");
  if (script.coroutines.size() >= ScriptCoroutines::kMost) throw ScriptError("too many coroutines");
  lua_State* const thread = lua_newthread(L);
  lua_replace(L, 2);  // in place of the delay
  lua_pushvalue(L, 1);
  lua_pushvalue(L, 3);
  lua_xmove(L, thread, 2);
  if (lua_iscfunction(thread, 1) != 0) put_below_lua_function(thread);
  lua_settop(L, 2);
  lua_pushvalue(L, 2);
  const int thread_ref = luaL_ref(L, LUA_REGISTRYINDEX);
  script.coroutines.start(L, thread, thread_ref, now, delay, script.current_tag_name());
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
  for (ScriptCoroutine& coroutine : records) coroutine.last_resume = std::min(coroutine.last_resume, clock_ms);
  for (Waiting& entry : waiting) entry.due = entry.record->last_resume + entry.record->wait;
  std::make_heap(waiting.begin(), waiting.end(), is_later);
}

int ScriptCoroutines::next_wait_ms(int now, int longest) {
  if (waiting.empty()) return longest;
  read_clock(now);
  return static_cast<int>(std::clamp<int64_t>(waiting.front().due - clock_ms, 0, longest));
}

// Does not allocate: start() has made room for an entry for each record.
void ScriptCoroutines::let_wait(Record record) {
  waiting.push_back({record->last_resume + record->wait, record});
  std::push_heap(waiting.begin(), waiting.end(), is_later);
}

void ScriptCoroutines::run(lua_State* L, ScriptCoroutine& coroutine, int arguments) {
  const LoopCall counted(g_mscript->watch, Activity::coroutine, coroutine.tag.c_str());
  ScriptCoroutine* const caller = std::exchange(current_coroutine, &coroutine);
  run_until_yield(L, coroutine.thread, arguments);
  current_coroutine = caller;
  if (lua_status(coroutine.thread) <= LUA_YIELD) return;
  g_loop_stats.failed(coroutine.tag.c_str(), error_value_text(coroutine.thread, -1).c_str());
}

void ScriptCoroutines::start(lua_State* L, lua_State* thread, int thread_ref, int now, int wait,
                             const std::string& tag) {
  read_clock(now);
  make_room(waiting, records.size() + 1);
  records.push_back({thread, clock_ms, wait, thread_ref, next_number++, tag});
  const auto record = std::prev(records.end());
  elog(2, "corutine add2: %d", static_cast<int>(records.size()));
  if (!lua_isfunction(thread, 1)) {
    elog(1, "Invalid function for coroutine!!!!!!!!!!!!!!!!");
    drop(L, record);
    throw ScriptError("Invalid function for coroutine");
  }
  run(L, *record, lua_gettop(thread) - 1);
  let_wait(record);
}

bool ScriptCoroutines::ask_for_run(int wait) {
  if (current_coroutine == nullptr) return false;
  current_coroutine->wait = wait;
  return true;
}

void ScriptCoroutines::resume_due(lua_State* L, int now) {
  if (waiting.empty()) return;
  read_clock(now);
  make_room(due, waiting.size());
  while (!waiting.empty() && waiting.front().due < clock_ms) {
    std::pop_heap(waiting.begin(), waiting.end(), is_later);
    due.push_back(waiting.back().record);
    waiting.pop_back();
  }
  std::sort(due.begin(), due.end(), [](Record a, Record b) { return a->number < b->number; });
  const int64_t pass_ms = clock_ms;
  for (const Record record : due) resume(L, record, pass_ms);
  due.clear();
}

void ScriptCoroutines::resume(lua_State* L, Record record, int64_t pass_ms) {
  g_loop_stats.coroutine_lateness.add((pass_ms - record->last_resume - record->wait) * 1000000);
  record->wait = 0;
  record->last_resume = std::min(pass_ms, clock_ms);  // the clock may have been set back during the pass
  // Resumed, a thread that has ended would call whatever is on top of its stack.
  if (lua_status(record->thread) == LUA_YIELD) run(L, *record, 0);
  if (record->wait != 0 && lua_status(record->thread) == LUA_YIELD) {
    let_wait(record);
  } else {
    drop(L, record);
  }
}

void ScriptCoroutines::drop(lua_State* L, Record record) {
  std::string error;
  const int thread_ref = record->thread_ref;
  if (protect(L, error, [&](lua_State* state) { luaL_unref(state, LUA_REGISTRYINDEX, thread_ref); })) {
    records.erase(record);
  } else {
    let_wait(record);  // no memory: a later pass drops it
  }
}

void ScriptCoroutines::clear() {
  waiting.clear();
  records.clear();
}
