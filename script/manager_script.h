// The owner of the daemon's one Lua state and of all that scripts keep in it.
//
// It creates the state, loads the script files in their fixed order, runs the script thread whose event loop calls the
// handlers, reloads the script directories and closes the state. What is hard about it: one Lua state, two threads. The
// script thread has the state during the Lua work of a pass, the main thread before the script thread starts, for a
// reload, and after it has been joined; `gate` hands it over.
#pragma once

#include <pthread.h>

#include <atomic>
#include <list>
#include <lua.hpp>
#include <memory>
#include <string>
#include <vector>

#include "device/event_queue.h"
#include "script/lua_gate.h"
#include "script/lua_memory.h"
#include "script/script_clock.h"
#include "script/script_coroutine.h"
#include "script/script_stop.h"
#include "script/script_timer.h"

// One file loaded from the script directories.
struct ScriptModule {
  std::string path;
  std::string module_name;     // given by script_define while the file ran; empty until then
  int module_ref = LUA_NOREF;  // registry reference to the value given to script_define
};

class ManagerScript {
 public:
  ManagerScript();
  // Closes a state that is still open, without clean-up calls. The script thread must have been joined.
  ~ManagerScript();
  ManagerScript(const ManagerScript&) = delete;
  ManagerScript& operator=(const ManagerScript&) = delete;

  // What run control calls, on the main thread, in this order. The paths are directories; external_path may be empty.

  // Creates the Lua state with its libraries and the script API. Throws except_base.
  void init();
  // Runs init_base.lua, config.lua and server_event.lua, the scripts' event_server.init(), then the other files of the
  // directories. Throws except_base when one of them fails; what ran before stays.
  void load_scripts(const char* script_path, const char* external_path);
  // Starts the event loop on a thread of its own. Returns 1, or -1 (logged) when there is no thread to be had.
  int start_thread();
  // Runs the files of the directories once more, on the same state, between two passes of the loop. Throws except_base.
  void reload(const char* script_path, const char* external_path);
  // Asks the loop to end and joins its thread: at most a pass, so about a second and the script call in progress.
  void stop_thread();
  // Runs the scripts' event_server.cleanup(); a failure is logged.
  void call_cleanup();
  // Closes the state and the device libraries' parts in it.
  void cleanup();

  // What the event loop calls, on the script thread, which must have the Lua state.

  // Runs the timers that are due by the clock.
  void run_timers();
  // Resumes the coroutines that are due by the clock.
  void resume_coroutines();

  // The tag of the script code that runs now; empty when it has none. Only the thread that has the Lua state.
  const std::string& current_tag_name() const;

  std::atomic<bool> running{false};  // main thread writes, the loop reads once per pass
  LuaGate gate;
  ScriptClock clock;  // set before the script thread starts
  // A script that has not returned so long after stop_thread() or, in the calls that run scripts on the main thread or
  // wait for them, after stop.wanted(), gets an error raised in it. Set before any of these.
  int stop_patience_ms = 10000;
  ScriptStop stop;

  // Everything below belongs to the thread that has the Lua state.

  LuaMemory memory;
  lua_State* lua_state = nullptr;
  std::string handler_tag;                             // of the handler entry being run, or by set_handler_tag
  std::vector<std::unique_ptr<ScriptModule>> scripts;  // in load order
  ScriptModule* current_script = nullptr;              // the directory file whose code is being loaded or run
  std::list<ScriptTimer> timers;                       // in creation order
  ScriptTimer* current_timer = nullptr;                // whose callback runs
  bool timers_changed = false;                         // the callback that runs has deleted its timer
  std::list<ScriptCoroutine> coroutines;               // in creation order
  ScriptCoroutine* current_coroutine = nullptr;        // whose thread runs
  const event_item* current_event = nullptr;           // being dispatched

 private:
  void load_file(const std::string& path);
  void load_directory_file(const std::string& path);
  void load_script_files(const char* script_path, const char* external_path);
  void clear_scripts();
  void close_state();

  pthread_t thread = 0;  // main thread; 0 when there is none
};

// The one instance, or null. Set before and cleared after all other threads.
extern ManagerScript* g_mscript;
