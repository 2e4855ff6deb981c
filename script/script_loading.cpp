#include "script/script_loading.h"

#include <sys/stat.h>

#include "device/log.h"
#include "script/trial_guards.h"
#include "util/except.h"
#include "util/lua_binding.h"
#include "util/script_files.h"

void load_file(lua_State* L, const std::string& path) {
  elog(2, "lua script:script_load - %s\n", path.c_str());
  bool compiled = false;
  std::string error;
  struct stat status {};
  const bool is_there = stat(path.c_str(), &status) == 0;
  if (is_there && !S_ISREG(status.st_mode) && !S_ISDIR(status.st_mode)) {  // Lua might read it for ever
    throw except_base("could not load file[%s] -- it is not a regular file", path.c_str());
  }
  const char* const file = path.c_str();
  const bool done = protect(L, error, [&](lua_State* state) {
    if (luaL_loadfile(state, file) != 0) lua_error(state);
    compiled = true;
    call_traced_in_trial(state);
  });
  if (done) return;
  if (!compiled) throw except_base("could not load file[%s] -- %s", file, error.c_str());
  throw except_base("could not execute script[%s] -- %s", file, error.c_str());
}

void ScriptModules::load_one(lua_State* L, const std::string& path) {
  modules.emplace_back().path = path;
  loading = &modules.back();
  try {
    load_file(L, path);
  } catch (...) {
    loading = nullptr;
    modules.pop_back();
    throw;
  }
  loading = nullptr;
}

void ScriptModules::load(lua_State* L, const char* script_path, const char* external_path) {
  ++loads;
  elog(2, "mscript: load script files from %s, %s...", script_path, external_path);
  const DirectoryScripts found = directory_scripts(script_path, external_path);
  if (!found.ignored.empty()) elog(1, "mscript: Ignored - %s", found.ignored.c_str());
  for (const std::string& path : found.paths) load_one(L, path);
}

void ScriptModules::clear(lua_State* L) {
  if (L != nullptr) {
    std::string error;
    const bool done = protect(L, error, [this](lua_State* state) {
      for (const ScriptModule& module : modules) luaL_unref(state, LUA_REGISTRYINDEX, module.module_ref);
    });
    if (!done) elog(1, "mscript: failed to release script values - %s", error.c_str());
  }
  modules.clear();
}
