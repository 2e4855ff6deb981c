// The end of the daemon's patience with a script that never returns.
//
// The event loop can end only between two script calls, and a load or a reload only between two files; a script that
// never returns would hold up the stop for good. So a count hook is set in the Lua state before any script runs, and
// every coroutine inherits it from its creator. The hook looks at one word; once a stop has waited long enough, it
// raises an error in the script that runs. Others that must reach a running script set bits in that word too. This does
// not help against a script that catches the error and goes on, C code that does not return, and finalizers, in which
// Lua runs no hooks: the daemon's supervisor must end those.
#pragma once

#include <atomic>
#include <cstdint>
#include <lua.hpp>

#include "util/rate_limit.h"

class ScriptStop {
 public:
  enum class Phase {
    off,       // scripts run as long as they like
    watching,  // no stop is wanted yet; the hook asks now and then
    patient,   // a stop is wanted; scripts have some time left
    raising,   // that time is over: scripts get errors
  };

  // What the hook is asked for; the bits are cleared by who asked, or who has answered.
  enum Ask : unsigned {
    kStop = 1,  // a phase other than `off`
    kTellPlace = 2,
    kNameCall = 4,
    kEndCall = 8,
    kCollect = 16,
  };

  // Between two errors, in ms: code that catches one has this long to report it, and so has the rest of the pass.
  static constexpr int kRespiteMs = 500;

  // Any thread.
  void ask(unsigned bits) { asked.fetch_or(bits, std::memory_order_release); }
  void unask(unsigned bits) { asked.fetch_and(~bits, std::memory_order_relaxed); }

  // The phase that follows `phase`, given whether a stop is wanted and whether the phase's time is over. Any thread.
  static Phase next(Phase phase, bool wanted, bool over);

  // Sets the hook in a fresh state. Only the thread that has the state; g_mscript must own this object.
  static void watch(lua_State* L);

  // Sets the hook again where a script has removed it; a hook of the script's own stays. Only the thread that has the
  // state.
  static void keep_watching(lua_State* L) {
    if (lua_gethook(L) == nullptr) watch(L);
  }

  // Does at once what the hook does, for functions in which a script waits in C. May raise the error, which ends the
  // caller. Only the thread that has the state.
  static void check(lua_State* L);

  // Enters `patient` now, for patience_ms. Main thread, like begin_to_watch and end.
  void begin_patience();

  // Enters `watching`: `patient` follows when wanted() returns true.
  void begin_to_watch();

  // Enters `patient` for `ms` ms, in the copy of the daemon that tries a reload. Then the script that runs gets an
  // error like at a stop, and `late` is told its place, "FILE:LINE".
  void begin_trial(int ms, void (*late)(const char* place));

  // Enters `off`. Only when no other thread runs scripts.
  void end();

  // Returns true when the daemon has been asked to end. Called on any thread; set before scripts run.
  bool (*wanted)() = [] { return false; };

  // How long scripts may go on when a stop is wanted, in ms. Set before scripts run.
  int patience_ms = 10000;

 private:
  static void look(lua_State* L, lua_Debug* at);
  void begin(Phase first, int ms);
  bool is_time_to_raise();
  void say_stopped(const lua_Debug& at);

  std::atomic<unsigned> asked{0};
  std::atomic<Phase> phase{Phase::off};
  // Written by the main thread before the phase leaves `off`, then by the thread that has the state.
  int64_t over_at_ms = 0;  // steady_ms: when the phase's time is over
  RateLimit said;
  void (*tell_late)(const char* place) = nullptr;  // null: not a trial
};

// Watches until destroyed.
class StopsWhenWanted {
 public:
  explicit StopsWhenWanted(ScriptStop& the_stop) : stop(the_stop) { stop.begin_to_watch(); }
  StopsWhenWanted(const StopsWhenWanted&) = delete;
  StopsWhenWanted& operator=(const StopsWhenWanted&) = delete;
  ~StopsWhenWanted() { stop.end(); }

 private:
  ScriptStop& stop;
};
