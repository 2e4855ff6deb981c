// The end of the daemon's patience with a script that never returns.
//
// The event loop can be told to end between two script calls only, and a load or a reload between two files; a loop
// that does not end would keep it for good. So a count hook stands in the Lua state before any script runs, and every
// coroutine inherits it from the one that creates it. All it does is to look at one word; once a stop has waited long
// enough, it raises an error in whatever script runs. It cannot help against a script that catches the error and goes
// on, against C code that does not return, and in finalizers, where Lua runs no hooks: those are left to whoever
// supervises the daemon.
#pragma once

#include <atomic>
#include <cstdint>
#include <lua.hpp>

#include "util/rate_limit.h"

class ScriptStop {
 public:
  // Sets the hook in a fresh state. Only the thread that has the state; g_mscript must own this object.
  static void watch(lua_State* L);

  // Looks at once, where a script has waited in C. May raise the error, which ends the caller. Only where scripts run.
  static void check(lua_State* L);

  // Scripts that run `patience` ms from now, or later, meet the error. Main thread, as all that follows.
  void raise_after(int patience);

  // As raise_after, counted from when wanted() is found to be true, which running scripts look at now and then.
  void raise_once_wanted(int patience);

  // Takes either back.
  void forget();

  // Whether the daemon has been asked to end. Any thread; set before scripts run.
  bool (*wanted)() = [] { return false; };

 private:
  static void look(lua_State* L, lua_Debug* at);
  bool is_due() const;
  void ask();
  void say_stopped(const lua_Debug& at);

  static constexpr int64_t kNever = INT64_MAX;
  std::atomic<int64_t> deadline_ms{kNever};  // of steady_ms
  // Until it is due, the main thread's; then whose script runs:
  int patience_ms = 0;  // not 0: no stop is wanted yet, and what is due is a look whether one is
  RateLimit said;
};

// Has raise_once_wanted as long as it lives.
class StopsWhenWanted {
 public:
  StopsWhenWanted(ScriptStop& the_stop, int patience) : stop(the_stop) { stop.raise_once_wanted(patience); }
  StopsWhenWanted(const StopsWhenWanted&) = delete;
  StopsWhenWanted& operator=(const StopsWhenWanted&) = delete;
  ~StopsWhenWanted() { stop.forget(); }

 private:
  ScriptStop& stop;
};
