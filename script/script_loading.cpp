// Loading: running the script files in their order.

#include "util/except.h"
#include "util/exe_dir.h"
#include "device/log.h"
#include "script/clua.h"
#include "script/manager_script.h"
#include "util/script_files.h"
#include "util/lua_binding.h"
#include "util/service_thread.h"

void ManagerScript::load_file(const std::string& path) {
  elog(2, "lua script:script_load - %s\n", path.c_str());
  bool compiled = false;
  std::string error;
  const char* const file = path.c_str();
  const bool done = protect(lua_state, error, [&](lua_State* L) {
    if (luaL_loadfile(L, file) != 0) lua_error(L);
    compiled = true;
    lua_call(L, 0, 0);
  });
  if (done) return;
  if (!compiled) throw except_base("could not load file[%s] -- %s", file, error.c_str());
  throw except_base("could not execute script[%s] -- %s", file, error.c_str());
}

void ManagerScript::load_directory_file(const std::string& path) {
  auto module = std::make_unique<ScriptModule>();
  module->path = path;
  current_script = module.get();
  try {
    load_file(path);
    scripts.push_back(std::move(module));
  } catch (...) {
    current_script = nullptr;
    throw;
  }
  current_script = nullptr;
}

// Scripts run on the main thread here. A signal must not cut their reads and sleeps short: the error that follows would
// end the daemon.
void ManagerScript::load_scripts(const char* script_path, const char* external_path) {
  const RunSignalsBlocked undisturbed;
  const LuaTurn turn(gate);
  const StopsWhenWanted limited(stop, stop_patience_ms);
  load_file(script_in(exe_dir(), "init_base.lua"));
  elog(2, "mscript: load script files...");
  elog(2, "mscript: loading config.lua file...");
  load_file(base_script("config.lua", script_path, external_path));
  elog(2, "mscript: loading event_server.lua file...");
  load_file(base_script("server_event.lua", script_path, external_path));
  elog(2, "mscript: event_server.init()");
  const int top = lua_gettop(lua_state);
  if (clua_run_string(lua_state, "event_server.init()") < 0) {
    const std::string error = clua_error_text(lua_state);
    lua_settop(lua_state, top);
    throw except_base("mscript: failed to run event_server.init() - %s", error.c_str());
  }
  load_script_files(script_path, external_path);
}

void ManagerScript::load_script_files(const char* script_path, const char* external_path) {
  elog(2, "mscript: load script files from %s, %s...", script_path, external_path);
  const DirectoryScripts found = directory_scripts(script_path, external_path);
  if (!found.ignored.empty()) elog(1, "mscript: Ignored - %s", found.ignored.c_str());
  for (const std::string& path : found.paths) load_directory_file(path);
}

void ManagerScript::clear_scripts() {
  if (lua_state != nullptr) {
    std::string error;
    const bool done = protect(lua_state, error, [this](lua_State* L) {
      for (const auto& module : scripts) luaL_unref(L, LUA_REGISTRYINDEX, module->module_ref);
    });
    if (!done) elog(1, "mscript: failed to release script values - %s", error.c_str());
  }
  scripts.clear();
}

void ManagerScript::reload(const char* script_path, const char* external_path) {
  // A script that never returns keeps the state from us; a stop that is asked for meanwhile must end it all the same.
  stop.raise_once_wanted(stop_patience_ms);
  const LuaTurn turn(gate, LuaGate::Turn::next);
  const RunSignalsBlocked undisturbed;
  const StopsWhenWanted limited(stop, stop_patience_ms);  // in place of the former: what is loaded has its own time
  clear_scripts();
  load_script_files(script_path, external_path);
}
