#include "script/script_coroutine.h"

#include <algorithm>
#include <cassert>
#include <climits>
#include <iterator>

#include "device/log.h"
#include "script/manager_script.h"
#include "util/lua_binding.h"

namespace {

// A wait beyond what differences of the clock can tell would never be over; it ends a minute early.
constexpr int kLongestWaitMs = INT_MAX - 60000;

}  // namespace

int64_t ScriptCoroutine::remaining_ms(int now) {
  if (ms_between(last_resume, now) < 0) last_resume = now;
  return int64_t{std::min(wait, kLongestWaitMs)} - ms_between(last_resume, now);
}

namespace {

using Position = std::list<ScriptCoroutine>::iterator;

// Runs the thread until it yields or ends; `arguments` values are on its stack. An error in it only ends it.
void run_until_yield(lua_State* from, lua_State* thread, int arguments) {
  lua_setlevel(from, thread);  // coroutines that start coroutines meet Lua's limit for C calls before the stack's end
  if (lua_resume(thread, arguments) == LUA_YIELD) lua_settop(thread, 0);  // nobody takes what it yielded
}

// A C function at the bottom of a thread cannot be resumed after it yielded; a Lua function below it can.
void put_below_lua_function(lua_State* thread) {
  if (luaL_loadstring(thread, "local f, a = ... f(a)") != 0) throw ScriptError("not enough memory");
  lua_insert(thread, 1);
}

Position drop_record(ManagerScript& script, lua_State* L, Position coroutine) {
  luaL_unref(L, LUA_REGISTRYINDEX, coroutine->thread_ref);
  return script.coroutines.erase(coroutine);
}

}  // namespace

int cr_add(lua_State* L) {
  lua_settop(L, 3);
  ManagerScript& script = *g_mscript;
  const int delay = int_arg(L, 2);
  const int now = script.clock.milliseconds();
  if (script.current_tag_name().empty()) throw ScriptError("not set script tag name yet");
  if (script.coroutines.size() >= kMaxCoroutines) throw ScriptError("too many coroutines");
  lua_State* const thread = lua_newthread(L);
  const int thread_ref = luaL_ref(L, LUA_REGISTRYINDEX);
  script.coroutines.push_back({thread, now, delay, thread_ref, script.current_tag_name()});
  const Position coroutine = std::prev(script.coroutines.end());
  elog(2, "corutine add2: %d", static_cast<int>(script.coroutines.size()));
  lua_remove(L, 2);
  lua_xmove(L, thread, 2);
  if (!lua_isfunction(thread, 1)) {
    elog(1, "Invalid function for coroutine!!!!!!!!!!!!!!!!");
    drop_record(script, L, coroutine);
    throw ScriptError("Invalid function for coroutine");
  }
  const bool is_c_function = lua_iscfunction(thread, 1) != 0;
  if (is_c_function) put_below_lua_function(thread);
  ScriptCoroutine* const caller = script.current_coroutine;
  script.current_coroutine = &*coroutine;
  run_until_yield(L, thread, is_c_function ? 2 : 1);
  script.current_coroutine = caller;
  lua_rawgeti(L, LUA_REGISTRYINDEX, thread_ref);
  return 1;
}

int cr_yield(lua_State* L) {
  ScriptCoroutine* const coroutine = g_mscript->current_coroutine;
  if (coroutine == nullptr) throw ScriptError("cr_yield outside a coroutine");
  coroutine->wait = int_arg(L, 1);
  return lua_yield(L, 0);
}

void ManagerScript::resume_coroutines() {
  assert(gate.held_here());
  const int now = clock.milliseconds();
  Position coroutine = coroutines.begin();
  for (size_t left = coroutines.size(); left > 0; --left) {  // those that are added meanwhile wait for the next pass
    if (coroutine->remaining_ms(now) >= 0) {
      ++coroutine;
      continue;
    }
    coroutine->wait = 0;
    coroutine->last_resume = now;
    // A thread that has ended would run whatever lies on top of its stack.
    if (lua_status(coroutine->thread) == LUA_YIELD) {
      current_coroutine = &*coroutine;
      run_until_yield(lua_state, coroutine->thread, 0);
      current_coroutine = nullptr;
    }
    if (coroutine->wait != 0 && lua_status(coroutine->thread) == LUA_YIELD) {
      ++coroutine;
      continue;
    }
    std::string error;
    const bool dropped = protect(lua_state, error, [&](lua_State* L) { coroutine = drop_record(*this, L, coroutine); });
    if (!dropped) ++coroutine;  // no memory: a later pass does it
  }
}
