// Cooperative tasks of the scripts, in milliseconds of the wall clock.
//
// cr_add runs a function in a coroutine up to its first cr_yield; the event loop resumes it when the wait it asked for
// is over and no event waits. The hard part is the clock: its 32 bits wrap every 49.7 days, and it may be set. So its
// differences are added up in 64 bits; when it is set back, the waits that began after the new reading start over.
#pragma once

#include <cstddef>
#include <cstdint>
#include <list>
#include <lua.hpp>
#include <string>
#include <vector>

#include "util/clock.h"

struct ScriptCoroutine {
  lua_State* thread;
  int64_t last_resume;  // ms, by ScriptCoroutines::clock_ms
  int wait;             // ms after last_resume; 0 after a run that has not asked for another
  int thread_ref;       // registry reference that keeps the thread alive
  uint64_t number;      // counts up in creation order
  std::string tag;      // never empty
};

// All coroutines: the records in creation order, and those that wait ordered by due time, so that neither an event nor
// a pass costs more when many wait. Only the thread that has the Lua state.
class ScriptCoroutines {
 public:
  static constexpr size_t kMost = 65536;  // at once

  size_t size() const { return records.size(); }

  // How long the loop may wait for an event at clock reading `now`, in ms: until the first coroutine is due, 0 to
  // `longest`.
  int next_wait_ms(int now, int longest);

  // Resumes those that are due at clock reading `now`, in creation order, and drops those that do not ask for another
  // run. Those that they add or that become due meanwhile wait for the next pass.
  void resume_due(lua_State* L, int now);

  // Makes a coroutine of what is on the stack of `thread`, a function below its arguments, and runs it from L up to its
  // first yield. Takes over the registry reference thread_ref, which keeps the thread alive. `wait`, in ms, counts when
  // that run does not ask for another. At most kMost. Throws ScriptError, and keeps nothing, when there is no function.
  void start(lua_State* L, lua_State* thread, int thread_ref, int now, int wait, const std::string& tag);

  // The one that runs, or null.
  const ScriptCoroutine* current() const { return current_coroutine; }

  // The current one asks for its next run in `wait` ms. Returns false when there is none.
  bool ask_for_run(int wait);

  // For the report: all of them, and in how many ms one is due at clock reading `now`.
  const std::list<ScriptCoroutine>& all() const { return records; }
  int64_t due_in_ms(const ScriptCoroutine& coroutine, int now) const {
    return coroutine.last_resume + coroutine.wait - clock_ms - ms_between(last_reading, now);
  }

  // Forgets all of them; their references die with the state.
  void clear();

 private:
  using Record = std::list<ScriptCoroutine>::iterator;
  struct Waiting {
    int64_t due = 0;
    Record record;
  };

  void read_clock(int now);
  void let_wait(Record record);
  void run(lua_State* L, ScriptCoroutine& coroutine, int arguments);
  void resume(lua_State* L, Record record, int64_t pass_ms);
  void drop(lua_State* L, Record record);
  static bool is_later(const Waiting& a, const Waiting& b) { return a.due > b.due; }

  std::list<ScriptCoroutine> records;  // in creation order
  std::vector<Waiting> waiting;        // every record that neither runs nor is in `due`: a heap, the earliest first
  std::vector<Record> due;             // of the pass in progress
  uint64_t next_number = 0;
  int last_reading = 0;  // of the 32-bit clock
  int64_t clock_ms = 0;  // the sum of its differences; not less than any last_resume
  ScriptCoroutine* current_coroutine = nullptr;
};

// The Lua functions; script/script_api.cpp registers them.
int cr_add(lua_State* L);
int cr_yield(lua_State* L);
