// Cooperative tasks of the scripts, in milliseconds of the wall clock.
//
// cr_add runs a function in a coroutine up to its first cr_yield; the event loop resumes it when the wait it asked for
// has passed and no event is there. The pass is ManagerScript::resume_coroutines. The 32-bit clock wraps every 49.7
// days and may be stepped: due times are compared by differences only.
#pragma once

#include <cstddef>
#include <cstdint>
#include <lua.hpp>
#include <string>

struct ScriptCoroutine {
  lua_State* thread;
  int last_resume;  // reading of the millisecond clock
  int wait;         // ms after last_resume; 0 after a run: it asked for no further one
  int thread_ref;   // registry reference that keeps the thread alive
  std::string tag;  // never empty

  // How many ms of the wait are left at `now`; below 0 it is due. When the last resume lies after `now`, the clock was
  // set back: it counts as `now` from then on.
  int64_t remaining_ms(int now);
};

// How many coroutines there may be at once.
constexpr size_t kMaxCoroutines = 65536;

// The Lua functions; script/script_api.cpp registers them.
int cr_add(lua_State* L);
int cr_yield(lua_State* L);
