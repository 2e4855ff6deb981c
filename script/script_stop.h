// The end of the daemon's patience with a script that never returns.
//
// The event loop can end between two script calls only, and a load or a reload between two files; a script that never
// returns would hold it up for good. So a count hook is set in the Lua state before any script runs, and every
// coroutine inherits it from its creator. The hook looks at one word; once a stop has waited long enough, it raises an
// error in the script that runs. It does not help against a script that catches the error and goes on, against C code
// that does not return, or in finalizers, where Lua runs no hooks: those are left to the daemon's supervisor.
#pragma once

#include <atomic>
#include <cstdint>
#include <lua.hpp>

#include "util/rate_limit.h"

class ScriptStop {
 public:
  enum class Phase {
    off,       // scripts run as long as they like
    watching,  // no stop is wanted yet; looks now and then whether one is
    patient,   // a stop is wanted; scripts have some time left
    raising,   // that time is over: scripts get errors
  };

  // The phase that follows `phase`, given whether a stop is wanted and whether the phase's time is over.
  static Phase next(Phase phase, bool wanted, bool over);

  // Sets the hook in a fresh state. Only the thread that has the state; g_mscript must own this object.
  static void watch(lua_State* L);

  // Looks at once, for functions in which a script waits in C. May raise the error, which ends the caller. Only the
  // thread that has the state.
  static void check(lua_State* L);

  // Begins to be patient now, for patience_ms. Main thread, as begin_to_watch and end.
  void begin_patience();

  // Begins to watch: patience begins when wanted() is found to be true.
  void begin_to_watch();

  // Takes either back. Only when no other thread runs scripts.
  void end();

  // Whether the daemon has been asked to end. Any thread; set before scripts run.
  bool (*wanted)() = [] { return false; };

  // How long scripts may go on when a stop is wanted, in ms. Set before scripts run.
  int patience_ms = 10000;

 private:
  static void look(lua_State* L, lua_Debug* at);
  void begin(Phase first, int ms);
  bool is_time_to_raise();
  void say_stopped(const lua_Debug& at);

  std::atomic<Phase> phase{Phase::off};
  // Written by the main thread before it leaves `off`, then by the thread that has the state.
  int64_t over_at_ms = 0;  // of steady_ms: when the phase's time is over
  RateLimit said;
};

// Watches as long as it lives.
class StopsWhenWanted {
 public:
  explicit StopsWhenWanted(ScriptStop& the_stop) : stop(the_stop) { stop.begin_to_watch(); }
  StopsWhenWanted(const StopsWhenWanted&) = delete;
  StopsWhenWanted& operator=(const StopsWhenWanted&) = delete;
  ~StopsWhenWanted() { stop.end(); }

 private:
  ScriptStop& stop;
};
