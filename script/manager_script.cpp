#include "script/manager_script.h"

#include <cstdlib>

#include "util/except.h"
#include "device/config_store.h"
#include "device/log.h"
#include "script/clua.h"
#include "script/event_loop.h"
#include "script/lua_utilities.h"
#include "script/script_api.h"
#include "util/lua_binding.h"
#include "util/service_thread.h"

ManagerScript* g_mscript = nullptr;

namespace {

int panic(lua_State* L) {
  elog(1, "mscript: Lua error outside any protected call - %s", error_value_text(L, -1).c_str());
  abort();
}

// No exception may leave a thread. Memory can run short anywhere in a pass; what the pass held has been given back by
// then, and the loop goes on with the next one.
void* thread_main(void* instance) {
  ManagerScript& script = *static_cast<ManagerScript*>(instance);
  for (bool ended = false; !ended;) {
    try {
      event_loop(script);
      ended = true;
    } catch (...) {
      elog(1, "mscript: no memory for a pass of the event loop");
    }
  }
  return reinterpret_cast<void*>(1);
}

}  // namespace

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
  clear_scripts();
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
  });
  if (!done) throw except_base("mscript: failed to set up the Lua state - %s", error.c_str());
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
  stop.raise_after(stop_patience_ms);
  pthread_join(thread, nullptr);
  stop.forget();
  thread = 0;
}

void ManagerScript::call_cleanup() {
  const RunSignalsBlocked undisturbed;
  const LuaTurn turn(gate);
  const StopsWhenWanted limited(stop, stop_patience_ms);
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
  clear_scripts();
}

// Finalizers run in here and may still call the whole API; the records they see or make belong to the dying state.
void ManagerScript::close_state() {
  if (lua_state != nullptr) lua_close(lua_state);
  lua_state = nullptr;
  timers.clear();
  coroutines.clear();
}

const std::string& ManagerScript::current_tag_name() const {
  if (current_script != nullptr) return current_script->module_name;
  if (current_coroutine != nullptr) return current_coroutine->tag;
  if (current_timer != nullptr) return current_timer->tag;
  return handler_tag;
}
