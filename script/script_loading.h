// Loading: running script files, and the modules of the script directories.
#pragma once

#include <list>
#include <lua.hpp>
#include <string>

// One file loaded from the script directories.
struct ScriptModule {
  std::string module_name;     // given by script_define while the file ran; empty until then
  int module_ref = LUA_NOREF;  // registry reference to the value given to script_define
};

// Compiles and runs one file on L. Throws except_base, which names the file. Only the thread that has the Lua state.
void load_file(lua_State* L, const std::string& path);

// The modules of the script directories, in load order. Only the thread that has the Lua state.
class ScriptModules {
 public:
  size_t size() const { return modules.size(); }

  // How many times load() has been called: the number of the load that goes on, or of the last one.
  int round() const { return loads; }

  // Runs the files of the directories, those of external_path (which may be empty) first. Throws except_base when one
  // fails: the modules before it stay, the failed one is dropped.
  void load(lua_State* L, const char* script_path, const char* external_path);

  // The module whose file runs, or null.
  ScriptModule* current() const { return loading; }

  // Forgets all modules and releases their values; a null L means that the values are gone with the state.
  void clear(lua_State* L);

 private:
  void load_one(lua_State* L, const std::string& path);

  std::list<ScriptModule> modules;
  int loads = 0;
  ScriptModule* loading = nullptr;  // the last of them, or null
};
