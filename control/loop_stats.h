// What the thread that has the Lua state counts while it works: events, script calls, errors, collections, reloads, and
// what it does at the moment.
//
// The hard part is the cost: an event takes half a microsecond. So the clock is read once before an event's first
// handler and once after each handler; a name becomes the number of its entry by one comparison, as a rule; and
// counting is an addition in plain memory. What a reader copies may be a moment old, and its parts may stem from
// different moments.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <string>

#include "control/counter.h"
#include "control/loop_history.h"
#include "control/name_table.h"
#include "util/clock.h"
#include "util/mutex.h"

// By type name. All that came in count as events; only those with a handler table add to `run`.
struct EventStats {
  Counter events;
  Counter unknown;  // nobody handled the type
  Counter errors;   // of its handlers, and of the coroutines that they resume
  Durations run;    // all handlers of one event
};

// By tag: handlers, timers and coroutines. A coroutine's first run, inside the call that adds it, is a part of that.
struct TagStats {
  Counter errors;
  Durations run;  // one call or resume; the number of runs is run.count()
};

enum class Activity : uint8_t {
  starting,  // the loop has not begun
  idle,      // it waits for an event, or looks for one
  forwarding,
  handler,
  timer,
  coroutine,
  collecting,
  loading,  // script files run on the main thread: the start, a reload
  stopped,  // the loop has ended
};

// "starting", "idle" ... Any thread.
const char* activity_name(Activity activity);

struct ActivityNow {
  Activity activity;
  int event;       // entry of LoopStats::event_names; only while forwarding and in a handler, else -1
  int tag;         // entry of LoopStats::tag_names; only in a handler, timer or coroutine, else -1
  int64_t for_ns;  // for how long already; 0 while starting
};

// The last error that a script made and the daemon, or a default script, caught.
struct LastError {
  time_t time;  // s since the epoch; 0: there was none
  std::string tag;
  std::string event;  // empty outside a dispatch
  std::string text;
};

// How the last reload ended.
struct LastReload {
  time_t time;       // s since the epoch; 0: there was none
  std::string text;  // what went wrong; empty when it is done
};

class LoopStats {
 public:
  // What is counted. Any thread reads.

  NameTable event_names;
  NameTable tag_names;
  EventStats events[NameTable::kEntries];
  TagStats tags[NameTable::kEntries];
  Durations wait;                // of events, from when they came in to their dispatch
  Durations timer_lateness;      // of a timer's runs, behind the second they were due in
  Durations coroutine_lateness;  // of resumes
  Durations collections;         // full ones
  Counter timers;                // how many there are, as of the last look
  Counter coroutines;
  Counter lua_bytes;
  Counter reloads_tried;   // trials of a reload that have begun
  Counter reloads_failed;  // in the trial, or in the load itself
  Counter reloads_done;
  LoopHistory history;

  // The sum over all type names, or over all tags.
  uint64_t all_events() const;
  uint64_t all_errors() const;

  // What the loop does. While script files run, that is `loading`, unless the loop forwards an event meanwhile.
  ActivityNow activity() const;
  // Whether the loop has ended, also while a reload loads files all the same.
  bool has_ended() const { return static_cast<Activity>(word() & 15) == Activity::stopped; }
  // How long ago the loop last looked for an event: at most some 1 s while it is idle. 0 while starting.
  int64_t silent_ns() const;
  LastError last_error() const;
  LastReload last_reload() const;

  // What the thread that runs the event loop says. For an event, in this order: takes_event, then, unless it is the
  // quit event, begin_dispatch, begin_call and end_call for each handler, end_dispatch.

  // An event has been taken from the queue and is about to be forwarded.
  void takes_event(const char* type_name);
  int event_entry() const { return current_event; }
  // Reads the clock.
  void begin_dispatch();
  // `known`: there is a handler table. A name that nobody knows gets an entry of its own only while half of the table
  // is free: names that posters invent must not take the places of those that scripts handle. The times of the last
  // dispatch are there until the next one begins.
  void end_dispatch(bool known, const char* type_name);
  int64_t dispatch_began_ns() const { return dispatch_began; }  // steady_ns
  int64_t dispatch_ns() const { return dispatched_ns; }
  int dispatch_errors() const { return errors_in_dispatch; }

  // A handler, timer or coroutine is about to be called, and has returned. Returns false inside another one, which
  // counts its time already, and while script files run, since that is the main thread; then there is no end_call.
  // Handlers go on from the clock's last reading, the others read it. `tag` is looked up by its address first. end_call
  // returns the time of the call, in ns.
  bool begin_call(Activity activity, const char* tag);
  int64_t end_call();

  // The loop has begun, has waited for an event, or has looked for one in vain: reads the clock.
  void looks_around();

  // Around what the loop does about garbage between two calls.
  void begin_collection();
  void end_collection();
  // The loop has ended.
  void stops() { set_activity(Activity::stopped); }

  // What the thread that has the Lua state says.

  // A script has failed; `tag` is that of the script code that ran.
  void failed(const char* tag, const char* text);
  // Script files are about to run (true), or have run.
  void set_loading(bool on);

  // Main thread: a reload, or its trial, has ended. `text` says what went wrong; null when the reload is done.
  void reload_ended(const char* text);

  // A word that stands for the call that runs, and for no other one; 0: none runs. Any thread.
  uint64_t call() const;
  // A word that stands for what the loop does; it changes with each event and each call. Any thread.
  uint64_t word() const { return now.load(std::memory_order_relaxed); }
  // What such a word says, seen from now. Any thread.
  static ActivityNow read(uint64_t word);
  static bool is_call(uint64_t word) { return is_call(activity_of(word)); }
  static bool is_call(Activity activity) { return activity >= Activity::handler && activity <= Activity::coroutine; }

  // Hold the lock from before a fork until after it, so that the copy that tries a reload can count too.
  void before_fork() ZELVIND_LOCK_RULE(no_thread_safety_analysis) { mutex.lock(); }
  void after_fork() ZELVIND_LOCK_RULE(no_thread_safety_analysis) { mutex.unlock(); }

 private:
  struct CachedTag {
    const char* text;
    int entry;
  };
  static constexpr uintptr_t kCachedTags = 64;

  static Activity activity_of(uint64_t word) { return static_cast<Activity>(word & 15); }
  int64_t read_clock();
  void take_sample();
  int tag_entry(const char* tag);
  void set_activity(Activity activity);

  // Activity, event, tag and since when, in one word, so that a reader sees them of one moment.
  std::atomic<uint64_t> now{0};
  std::atomic<int64_t> loading_since{0};  // steady_ns; 0 while no script files run
  std::atomic<int64_t> last_reading{0};   // steady_ns, of the loop
  std::atomic<int64_t> last_look{0};      // the last reading at the last look for an event

  // Of the thread that runs the event loop.
  int current_event = 0;  // entries
  int current_tag = 0;
  Activity after_call = Activity::starting;  // the loop may have ended, or not begun
  bool dispatching = false;
  int64_t dispatch_began = 0;
  int64_t dispatched_ns = 0;
  int errors_in_dispatch = 0;
  CachedTag cached_tags[kCachedTags] = {};

  // Texts are cut to these sizes.
  mutable Mutex mutex;
  time_t error_time GUARDED_BY(mutex) = 0;
  char error_tag[128] GUARDED_BY(mutex) = "";
  char error_event[128] GUARDED_BY(mutex) = "";
  char error_text[1024] GUARDED_BY(mutex) = "";
  time_t reload_time GUARDED_BY(mutex) = 0;
  char reload_text[1024] GUARDED_BY(mutex) = "";
};

// The one instance: usable before and after everything else.
extern LoopStats g_loop_stats;

// What each event costs.

inline int64_t LoopStats::read_clock() {
  const int64_t reading = steady_ns();
  last_reading.store(reading, std::memory_order_relaxed);
  return reading;
}

// The time in units of 1024 ns, so that its 44 bits last 208 days; a reader's own clock tells which ones.
inline void LoopStats::set_activity(Activity activity) {
  const uint64_t since = static_cast<uint64_t>(last_reading.load(std::memory_order_relaxed)) >> 10;
  now.store(since << 20 | static_cast<uint64_t>(current_event) << 12 | static_cast<uint64_t>(current_tag) << 4 |
                static_cast<uint64_t>(activity),
            std::memory_order_relaxed);
}

inline uint64_t LoopStats::call() const {
  const uint64_t what = word();
  return is_call(what) ? what : 0;
}

inline int LoopStats::tag_entry(const char* tag) {
  CachedTag& cached = cached_tags[reinterpret_cast<uintptr_t>(tag) / 32 % kCachedTags];
  // Another text may have taken that address since.
  if (cached.text != tag || strcmp(tag_names.name(cached.entry), tag) != 0) cached = {tag, tag_names.entry_of(tag)};
  return cached.entry;
}

inline void LoopStats::takes_event(const char* type_name) {
  if (strcmp(event_names.name(current_event), type_name) != 0) {
    current_event = event_names.entry_of(type_name, NameTable::kMost / 2);
  }
  events[current_event].events.add();
  last_look.store(last_reading.load(std::memory_order_relaxed), std::memory_order_relaxed);
  set_activity(Activity::forwarding);
}

inline void LoopStats::begin_dispatch() {
  dispatch_began = read_clock();
  if (history.is_due(dispatch_began)) take_sample();
  dispatching = true;
  errors_in_dispatch = 0;
}

inline void LoopStats::end_dispatch(bool known, const char* type_name) {
  dispatching = false;
  dispatched_ns = last_reading.load(std::memory_order_relaxed) - dispatch_began;
  EventStats& event = events[current_event];
  if (known) {
    if (current_event == NameTable::kOther) event_names.entry_of(type_name);  // from its next event on
    event.run.add(dispatched_ns);
  } else {
    event.unknown.add();
  }
  set_activity(Activity::idle);
}

inline bool LoopStats::begin_call(Activity activity, const char* tag) {
  const Activity before = activity_of(word());
  if (is_call(before) || loading_since.load(std::memory_order_relaxed) != 0) return false;
  after_call = before == Activity::forwarding ? Activity::idle : before;
  if (activity != Activity::handler) read_clock();
  current_tag = tag_entry(tag);
  set_activity(activity);
  return true;
}

inline int64_t LoopStats::end_call() {
  const int64_t began = last_reading.load(std::memory_order_relaxed);
  const int64_t taken = read_clock() - began;
  tags[current_tag].run.add(taken);
  set_activity(after_call);
  return taken;
}
