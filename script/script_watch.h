// The watch over script calls that hold up the event loop: handlers, timers and coroutines. One that takes too long is
// named in the log while it runs, and when it has returned; with a limit, it is ended. The same way, anybody can ask
// where the script is.
//
// The main thread has the clock, the thread that runs the script knows the place. So the main thread looks at the word
// that stands for the call in progress (control/loop_stats.h) and asks the count hook (script_stop.h) for the rest. A
// call costs two comparisons for it.
//
// The main thread must not wake by the clock while the loop is at rest. It looks once a period, which is the shortest
// time that matters; after a look that finds no change, it announces that it will sleep, and after another one it
// sleeps without an end. The next call then wakes it. The look between is for a call that begins just when it announces
// that: that call may not see the announcement.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <lua.hpp>
#include <string>

#include "control/loop_stats.h"
#include "util/mutex.h"
#include "util/rate_limit.h"

class ScriptWatch {
 public:
  // Set before the script thread starts. `wake` ends the main thread's sleep; the script thread calls it.
  int warn_ms = 0;   // a call that takes longer is named; 0: none
  int limit_ms = 0;  // a call that takes longer is ended; 0: none
  void (*wake)() = [] {};

  // Names and ends calls. Returns for how many ms the main thread may sleep until it must call this again; -1: until it
  // is woken. Main thread.
  int look();

  // Where the script is that runs now, as "FILE:LINE"; empty when none runs, or when there is no answer within
  // timeout_ms: then it is in C code. Any thread but the one that runs the script.
  std::string where(int timeout_ms);

  // What the count hook does for this class, asked with the bits of ScriptStop::Ask; `at` has source and line. May
  // raise an error, which ends the call. The thread that has the Lua state.
  void look_inside(lua_State* L, const lua_Debug& at, unsigned asked);

 private:
  friend class LoopCall;
  void call_begins() {
    if (asleep.load(std::memory_order_relaxed)) wake_up();
  }
  void call_ends(uint64_t call, int64_t ns) {
    if (call == noted.load(std::memory_order_relaxed)) say_returned(call, ns);
  }
  void wake_up();
  void say_returned(uint64_t call, int64_t ns);

  int look_at_call(uint64_t call);
  void begin_to_name(uint64_t call, int64_t now_ms);
  void say_slow(uint64_t call, const char* where_it_is);
  void tell_place(const lua_Debug& at);
  void end_slow(lua_State* L, const lua_Debug& at);

  std::atomic<bool> asleep{false};      // the next call wakes the main thread
  std::atomic<uint64_t> noted{0};       // the call that is named when it returns
  std::atomic<uint64_t> to_name{0};     // the call whose line is due: the hook writes it, else the main thread
  std::atomic<uint64_t> over_limit{0};  // the call that is to end

  // Main thread.
  uint64_t seen = 0;        // LoopStats::word() at the last look
  bool is_decided = false;  // whether that call is named
  bool is_over = false;     // that call is to end
  int64_t name_by_ms = 0;   // steady_ms: until then the hook may name that call; 0: nothing to wait for
  struct NamedTag {
    int64_t at_ms = -kOncePerMs;  // steady_ms of the last line
    int left_out = 0;             // since then
  };
  static constexpr int64_t kOncePerMs = 60000;
  NamedTag named[NameTable::kEntries];

  // The thread that runs the script.
  uint64_t raised_in = 0;      // the call that was last given an error,
  int64_t raise_after_ms = 0;  // and the steady_ms at which it gets another one
  RateLimit ended_limit;

  Mutex mutex;
  std::condition_variable_any answered;
  uint64_t answers GUARDED_BY(mutex) = 0;
  char place[256] GUARDED_BY(mutex) = "";
  LeftOut left_out GUARDED_BY(mutex);  // of the line that is due
};

// A call into a script: a handler, a timer or a coroutine, counted and watched over while this object lives. Inside
// another one, and while script files run, it does nothing. `tag` is read at once. The thread that has the Lua state.
class LoopCall {
 public:
  LoopCall(ScriptWatch& the_watch, Activity activity, const char* tag)
      : watch(the_watch), call(g_loop_stats.begin_call(activity, tag) ? g_loop_stats.call() : 0) {
    if (call != 0) watch.call_begins();
  }
  LoopCall(const LoopCall&) = delete;
  LoopCall& operator=(const LoopCall&) = delete;
  ~LoopCall() {
    if (call != 0) watch.call_ends(call, g_loop_stats.end_call());
  }

 private:
  ScriptWatch& watch;
  const uint64_t call;  // the word that stands for it; 0 inside another one
};
