// The end of the daemon's patience with a script that never returns.
//
// The event loop can be told to end between two script calls only; a handler with a loop that does not end would keep
// it for good. So a count hook stands in the Lua state before any script runs, and every coroutine inherits it from the
// one that creates it. All it does is to look at one word; once a stop has waited long enough, it raises an error in
// whatever script runs. It cannot help against a script that catches the error and goes on, against C code that does
// not return, and in finalizers, where Lua runs no hooks: those are left to whoever supervises the daemon.
#pragma once

#include <atomic>
#include <cstdint>
#include <lua.hpp>

#include "util/rate_limit.h"

class ScriptStop {
 public:
  // Sets the hook in a fresh state. Only the thread that has the state; g_mscript must own this object.
  static void watch(lua_State* L);

  // Scripts that run `patience_ms` from now, or later, meet the error. Main thread, as forget().
  void raise_after(int patience_ms);

  // True from raise_after to forget.
  bool is_armed() const { return deadline_ms != kNever; }

  // Takes raise_after back.
  void forget() { deadline_ms = kNever; }

 private:
  static void look(lua_State* L, lua_Debug* at);
  bool is_due() const;
  void say_stopped(const lua_Debug& at);

  static constexpr int64_t kNever = INT64_MAX;
  std::atomic<int64_t> deadline_ms{kNever};  // of steady_ms
  RateLimit said;                            // until it is due, the main thread's; then whose script runs
};
