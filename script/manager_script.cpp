#include "script/manager_script.h"

#include <algorithm>
#include <cassert>
#include <chrono>
#include <cstdlib>

#include "device/config_store.h"
#include "device/event_source.h"
#include "device/log.h"
#include "script/event_loop.h"
#include "script/script_api.h"
#include "script/script_lib.h"
#include "script/script_report.h"
#include "script/trial_guards.h"
#include "util/except.h"
#include "util/exe_dir.h"
#include "util/lua_binding.h"
#include "util/rate_limit.h"
#include "util/script_files.h"
#include "util/service_thread.h"

ManagerScript* g_mscript = nullptr;

namespace {

constexpr int kLongestWaitMs = 1000;

RateLimit g_collection_lines;  // of the thread that has the Lua state

int panic(lua_State* L) {
  elog(1, "mscript: Lua error outside any protected call - %s", error_value_text(L, -1).c_str());
  abort();
}

// Counts as loading while it lives.
class Loading {
 public:
  Loading() { g_loop_stats.set_loading(true); }
  Loading(const Loading&) = delete;
  Loading& operator=(const Loading&) = delete;
  ~Loading() { g_loop_stats.set_loading(false); }
};

// Ends the loop's wait for an event, if it waits: there is something to do.
void wake_loop() {
  if (event_wake != nullptr) event_wake();
}

// No exception may leave a thread. Memory can run short anywhere in a pass; by the time of the catch, the pass has
// released what it held, and the loop goes on with the next one.
void* thread_main(void* instance) {
  ManagerScript& script = *static_cast<ManagerScript*>(instance);
  RateLimit limit;
  for (bool ended = false; !ended;) {
    try {
      event_loop(script);
      ended = true;
    } catch (...) {
      if (const auto left_out = limit.allow()) {
        elog(1, "mscript: no memory for a pass of the event loop%s", left_out->text);
      }
    }
  }
  return reinterpret_cast<void*>(1);
}

}  // namespace

int watch_meanwhile() {
  constexpr int kLongestMs = 1000;  // nobody wakes it
  const int wait_ms = g_mscript->watch.look();
  return wait_ms < 0 ? kLongestMs : std::min(wait_ms, kLongestMs);
}

ManagerScript::ManagerScript() {
  g_mscript = this;
}

ManagerScript::~ManagerScript() {
  close_state();
  g_mscript = nullptr;
}

void ManagerScript::init() {
  elog(2, "mscript: init...");
  const LuaTurn turn(gate);
  scripts.clear(lua_state);
  lua_state = memory.new_state();
  if (lua_state == nullptr) throw except_base("mscript: no memory for the Lua state");
  lua_atpanic(lua_state, panic);
  ScriptStop::watch(lua_state);
  std::string error;
  const bool done = protect(lua_state, error, [](lua_State* L) {
    luaL_openlibs(L);
    register_lua_utilities(L);
    helper_init(L);
    lua_settop(L, 0);  // whatever the device's library left there
    econf_init(L);
    lua_settop(L, 0);
    register_script_api(L);
    wrap_outside_functions(L);
    register_script_helpers(L);
  });
  if (!done) throw except_base("mscript: failed to set up the Lua state - %s", error.c_str());
}

// Scripts run on the main thread here. A signal must not interrupt their reads and sleeps: the error that follows would
// end the daemon.
void ManagerScript::load_scripts(const char* script_path, const char* external_path) {
  const RunSignalsBlocked undisturbed;
  const LuaTurn turn(gate);
  const StopsWhenWanted limited(stop);
  const Loading counted;
  search_lib_folders(lua_state, script_path, external_path);
  load_file(lua_state, script_in(exe_dir(), "init_base.lua"));
  elog(2, "mscript: load script files...");
  elog(2, "mscript: loading config.lua file...");
  load_file(lua_state, base_script("config.lua", script_path, external_path));
  elog(2, "mscript: loading event_server.lua file...");
  load_file(lua_state, base_script("server_event.lua", script_path, external_path));
  elog(2, "mscript: event_server.init()");
  const int top = lua_gettop(lua_state);
  if (clua_run_string(lua_state, "event_server.init()") < 0) {
    const std::string error = clua_error_text(lua_state);
    lua_settop(lua_state, top);
    throw except_base("mscript: failed to run event_server.init() - %s", error.c_str());
  }
  scripts.load(lua_state, script_path, external_path);
  update_gauges();
}

void ManagerScript::reload(const char* script_path, const char* external_path) {
  // A script that never returns keeps the state: a stop that is asked for meanwhile must be able to end it.
  stop.begin_to_watch();
  const LuaTurn turn(gate, watch_meanwhile);
  const RunSignalsBlocked undisturbed;
  const StopsWhenWanted limited(stop);  // starts over: the files that are loaded have their own time
  const Loading counted;
  try {
    load_again(script_path, external_path);
  } catch (const std::exception& error) {
    g_loop_stats.reload_ended(error.what());
    throw;
  }
  g_loop_stats.reload_ended(nullptr);
  update_gauges();
  if (stop.wanted()) running = false;  // the loop is let in again, to end and not for another pass
  wake_loop();                         // the files may have started coroutines that are due before its wait ends
}

void ManagerScript::load_again(const char* script_path, const char* external_path) {
  scripts.clear(lua_state);
  forget_lib_modules(lua_state);
  scripts.load(lua_state, script_path, external_path);
}

int ManagerScript::start_thread() {
  running = true;
  elog(2, "mscript: thread start...");
  if (start_service_thread(&thread, thread_main, this, kScriptThreadStack) == 0) return 1;
  elog(1, "mscript: failed to run thread");
  return -1;
}

void ManagerScript::stop_thread() {
  running = false;
  elog(2, "mscript: thread stop...");
  if (thread == 0) return;
  stop.begin_patience();
  wake_loop();
  pthread_join(thread, nullptr);
  stop.end();
  thread = 0;
}

void ManagerScript::call_cleanup() {
  const RunSignalsBlocked undisturbed;
  const LuaTurn turn(gate);
  const StopsWhenWanted limited(stop);
  if (lua_state == nullptr) return;
  const int top = lua_gettop(lua_state);
  if (clua_run_string(lua_state, "event_server.cleanup()") < 0) {
    elog(1, "mscript: failed to run event_server.cleanup() - %s", clua_error_text(lua_state).c_str());
  }
  lua_settop(lua_state, top);
}

void ManagerScript::cleanup() {
  elog(2, "mscript: cleanup...");
  const LuaTurn turn(gate);
  if (lua_state != nullptr) {
    close_state();
    helper_cleanup();
    econf_cleanup();
  }
  scripts.clear(lua_state);
}

// Finalizers run in here and may call the whole API; the records they see or make belong to the state that is closed.
void ManagerScript::close_state() {
  if (lua_state != nullptr) {
    keep.finish(lua_state);
    lua_close(lua_state);
  }
  lua_state = nullptr;
  timers.clear();
  coroutines.clear();
  dispatch.clear();
}

void ManagerScript::run_timers() {
  assert(gate.held_here());
  ScriptStop::keep_watching(lua_state);
  timers.run_due(lua_state, clock.seconds());
  timers.run_alarms(lua_state, clock.steady());
  update_gauges();
}

void ManagerScript::run_alarms() {
  assert(gate.held_here());
  timers.run_alarms(lua_state, clock.steady());
}

void ManagerScript::resume_coroutines() {
  assert(gate.held_here());
  coroutines.resume_due(lua_state, clock.milliseconds());
  update_gauges();
}

void ManagerScript::update_gauges() const {
  g_loop_stats.timers.set(timers.size());
  g_loop_stats.coroutines.set(coroutines.size());
  g_loop_stats.lua_bytes.set(memory.in_use());
}

// The next look comes when the first one's patience will be over. One that is made meanwhile is not due before now.
void ManagerScript::look_at_coroutines() {
  assert(gate.held_here());
  if (coroutines.overdue_ms(clock.milliseconds()) >= coroutine_patience_ms) resume_coroutines();
  const int64_t overdue_ms = std::max<int64_t>(coroutines.overdue_ms(clock.milliseconds()), 0);
  next_look_ms = clock.steady() + std::max<int64_t>(coroutine_patience_ms - overdue_ms, 1);
}

int ManagerScript::next_wait_ms() {
  assert(gate.held_here());
  const int64_t alarm_ms = timers.first_alarm_ms();
  const int64_t longest = alarm_ms == ScriptTimers::kNever ? kLongestWaitMs : alarm_ms - clock.steady();
  const int64_t longest_ms = std::clamp<int64_t>(longest, 0, kLongestWaitMs);
  return coroutines.next_wait_ms(clock.milliseconds(), static_cast<int>(longest_ms));
}

bool ManagerScript::dispatch_event(const event_item& event) {
  assert(gate.held_here());
  return dispatch.dispatch(lua_state, event);
}

void ManagerScript::collect_garbage() {
  assert(gate.held_here());
  g_loop_stats.begin_collection();
  collect_inside(lua_state);
  g_loop_stats.end_collection();
}

void ManagerScript::refill_memory() {
  if (!memory.may_collect()) return;
  const int64_t began = steady_ns();
  collect_garbage();
  memory.back_off(steady_ns() - began);
}

void ManagerScript::collect_inside(lua_State* L) {
  const int64_t began = steady_ns();
  std::string error;
  const bool done = protect(L, error, [](lua_State* state) { lua_gc(state, LUA_GCCOLLECT, 0); });
  const int64_t taken = steady_ns() - began;
  memory.collected();
  g_loop_stats.collections.add(taken);
  if (done) return;
  if (const auto left_out = g_collection_lines.allow()) {
    elog(1, "mscript: a collection failed - %s%s", error.c_str(), left_out->text);
  }
}

void ManagerScript::write_report() {
  assert(gate.held_here());
  report_wanted.store(false, std::memory_order_relaxed);
  std::string text = script_report(*this);
  const MutexLock lock(report_mutex);
  last_report = std::move(text);
  report_written.notify_all();
}

std::optional<std::string> ManagerScript::report(int timeout_ms) {
  if (g_loop_stats.has_ended()) return {};
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
  MutexLock lock(report_mutex);
  last_report.reset();
  report_wanted = true;
  wake_loop();
  while (!last_report) {
    if (report_written.wait_until(lock, deadline) == std::cv_status::timeout) return {};
  }
  return last_report;
}

const char* ManagerScript::current_tag_name() const {
  if (scripts.current() != nullptr) return scripts.current()->module_name.c_str();
  if (coroutines.current() != nullptr) return coroutines.current()->tag.c_str();
  if (timers.current() != nullptr) return timers.current()->tag.c_str();
  return dispatch.handler_tag();
}
