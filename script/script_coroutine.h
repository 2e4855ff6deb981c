// Cooperative tasks of the scripts, in milliseconds of the wall clock.
//
// cr_add runs a function in a coroutine up to its first cr_yield; the event loop resumes it when the wait it asked for
// is over and no event waits. The hard part is the clock: its 32 bits wrap every 49.7 days, and it may be set. So its
// differences are added up in 64 bits; when it is set back, the waits that began after the new reading start over.
#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <lua.hpp>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "util/clock.h"

struct ScriptCoroutine {
  using Waiting = std::set<std::pair<int64_t, uint64_t>>;  // due times and numbers

  lua_State* thread;
  int64_t last_resume;       // ms, by ScriptCoroutines::clock_ms
  int wait;                  // ms after last_resume; 0 after a run that has not asked for another
  int thread_ref;            // registry reference that keeps the thread alive
  std::string tag;           // never empty for one of cr_add
  Waiting::node_type place;  // its place among those that wait, which thus need no memory; empty while it waits
  bool runs;                 // or has resumed the one that does
};

// All coroutines: the records by number, which is the creation order, and those that wait ordered by due time, so that
// neither an event nor a pass costs more when many wait. Only the thread that has the Lua state.
class ScriptCoroutines {
 public:
  static constexpr size_t kMost = 65536;  // at once
  static constexpr int64_t kNone = std::numeric_limits<int64_t>::min();

  size_t size() const { return records.size(); }

  // How long the loop may wait for an event at clock reading `now`, in ms: until the first coroutine is due, 0 to
  // `longest`.
  int next_wait_ms(int now, int longest);

  // For how long the first of those that wait has been due at clock reading `now`, in ms; below 0 when it is not yet,
  // kNone when none waits.
  int64_t overdue_ms(int now);

  // Resumes those that are due at clock reading `now`, in creation order, and drops those that do not ask for another
  // run. Those that they add or that become due meanwhile wait for the next pass.
  void resume_due(lua_State* L, int now);

  // Makes a coroutine of what is on the stack of `thread`, a function below its arguments, and runs it from L up to its
  // first yield. Takes over the registry reference thread_ref, which keeps the thread alive. `wait`, in ms, counts when
  // that run does not ask for another. Returns its number. At most kMost. Throws ScriptError, and keeps nothing, when
  // there is no function.
  uint64_t start(lua_State* L, lua_State* thread, int thread_ref, int now, int wait, const std::string& tag);

  // Resumes a coroutine now, whenever it is due; does nothing when it has ended or runs.
  void wake(lua_State* L, uint64_t number, int now);

  // Drops a coroutine and its thread; does nothing when there is none or it runs.
  void remove(lua_State* L, uint64_t number);

  // The one that runs, or null.
  const ScriptCoroutine* current() const { return current_coroutine; }

  // The current one asks for its next run in `wait` ms. Returns false when there is none.
  bool ask_for_run(int wait);

  // For the report: all of them, and in how many ms one is due at clock reading `now`.
  const std::map<uint64_t, ScriptCoroutine>& all() const { return records; }
  int64_t due_in_ms(const ScriptCoroutine& coroutine, int now) const {
    return coroutine.last_resume + coroutine.wait - clock_ms - ms_between(last_reading, now);
  }

  // Forgets all of them; their references die with the state.
  void clear();

 private:
  using Waiting = ScriptCoroutine::Waiting;
  using Record = std::map<uint64_t, ScriptCoroutine>::iterator;

  void read_clock(int now);
  void let_wait(Record record);
  void run(lua_State* L, ScriptCoroutine& coroutine, int arguments);
  void resume(lua_State* L, Record record, int64_t pass_ms);
  void drop(lua_State* L, Record record);
  Record take(uint64_t number);

  std::map<uint64_t, ScriptCoroutine> records;
  Waiting waiting;            // every record that neither runs nor is in `due`
  std::vector<uint64_t> due;  // of the pass in progress
  uint64_t next_number = 1;
  int last_reading = 0;  // of the 32-bit clock
  int64_t clock_ms = 0;  // the sum of its differences; not less than any last_resume
  ScriptCoroutine* current_coroutine = nullptr;
};

// The Lua functions; script/script_api.cpp registers them.
int cr_add(lua_State* L);
int cr_yield(lua_State* L);

// For the default scripts. add_coroutine(func, tag) is cr_add without a delay and returns a number, with which
// wake_coroutine(number) and remove_coroutine(number) go. ask_wait(ms) is cr_yield(ms) without the yield. asked_wait()
// is the wait in ms that the running coroutine has asked for since it was resumed, or 0.
int add_coroutine(lua_State* L);
int wake_coroutine(lua_State* L);
int remove_coroutine(lua_State* L);
int ask_wait(lua_State* L);
int asked_wait(lua_State* L);
