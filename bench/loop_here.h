// The daemon's event loop inside the benchmark's process: the real script manager over the embedded device layer, with
// the event socket below the benchmark's own DEVICE_ROOT. One at a time.
#pragma once

#include <cstdint>
#include <string>

#include "control/event_ring.h"
#include "script/manager_script.h"

class LoopHere {
 public:
  // Runs `lua` once the script API is there.
  explicit LoopHere(const std::string& lua);
  ~LoopHere();
  LoopHere(const LoopHere&) = delete;
  LoopHere& operator=(const LoopHere&) = delete;

  // Adds the Lua function `name`. Before anything runs.
  void add_function(const char* name, lua_CFunction function);

  // Runs Lua code under a tag, as a handler would. Not while the loop runs.
  void run_lua(const std::string& lua);

  // Runs the loop on this thread until the quit event. Returns the seconds that it took.
  double run_to_quit();

  // The loop on a thread of its own, until stop posts the quit event.
  void start();
  void stop();

  ManagerScript script;

 private:
  EventRing ring{size_t{256} * 1024};  // as in the daemon
};

// Posts an event inside this process; throws when it is refused.
void post(int type, const char* name, const char* info = "");

// A handler table for `type_name` with one handler, in Lua.
std::string handler_of(const char* type_name, const char* body);

// Where the benchmark keeps its files: its DEVICE_ROOT.
std::string bench_root();

// Writes the settings file that a daemon below `root` reads.
void write_settings(const std::string& root, const std::string& settings);
