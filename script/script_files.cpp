// Loading: which script files there are, and in which order they run.

#include <dirent.h>
#include <unistd.h>

#include <algorithm>

#include "app/except.h"
#include "app/exe_dir.h"
#include "device/log.h"
#include "script/clua.h"
#include "script/manager_script.h"
#include "util/lua_binding.h"
#include "util/service_thread.h"
#include "util/text.h"

namespace {

using Names = std::vector<std::string>;

bool ends_in_lua(const std::string& name) {
  return name.size() >= 4 && name.compare(name.size() - 4, 4, ".lua") == 0;
}

// The entry's type does not matter: a folder x.lua is listed, and fails to load with its name in the error.
Names list_script_files(const char* dir) {
  const std::unique_ptr<DIR, int (*)(DIR*)> folder(opendir(dir), closedir);
  if (folder == nullptr) throw except_base("Failed to get script file list in path[%s]", dir);
  Names names;
  while (const dirent* entry = readdir(folder.get())) {
    if (ends_in_lua(entry->d_name)) names.emplace_back(entry->d_name);
  }
  std::sort(names.begin(), names.end());
  return names;
}

Names list_external_files(const char* external_path) {
  if (*external_path == '\0') return {};
  try {
    return list_script_files(external_path);
  } catch (const std::exception& error) {
    elog(1, "mscript: Ignored - %s", error.what());
    return {};
  }
}

void remove_names(Names& names, const Names& unwanted) {
  const auto is_unwanted = [&](const std::string& name) {
    return std::find(unwanted.begin(), unwanted.end(), name) != unwanted.end();
  };
  names.erase(std::remove_if(names.begin(), names.end(), is_unwanted), names.end());
}

std::string path_of(const char* dir, const std::string& name) {
  return std::string(dir) + "/" + name;
}

std::string external_first(const char* name, const char* script_path, const char* external_path) {
  const std::string external = path_of(external_path, name);
  return access(external.c_str(), F_OK) == 0 ? external : path_of(script_path, name);
}

}  // namespace

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
  load_file(path_of(exe_dir().c_str(), "init_base.lua"));
  elog(2, "mscript: load script files...");
  elog(2, "mscript: loading config.lua file...");
  load_file(external_first("config.lua", script_path, external_path));
  elog(2, "mscript: loading event_server.lua file...");
  load_file(external_first("server_event.lua", script_path, external_path));
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
  Names script_names = list_script_files(script_path);
  Names external_names = list_external_files(external_path);
  const Names loaded_before = {"server_event.lua", "config.lua"};
  remove_names(external_names, loaded_before);
  remove_names(script_names, loaded_before);
  remove_names(script_names, external_names);
  for (const std::string& name : external_names) load_directory_file(path_of(external_path, name));
  for (const std::string& name : script_names) load_directory_file(path_of(script_path, name));
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
  const RunSignalsBlocked undisturbed;
  const LuaTurn turn(gate, LuaGate::Turn::next);
  clear_scripts();
  load_script_files(script_path, external_path);
}
