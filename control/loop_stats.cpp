#include "control/loop_stats.h"

#include <algorithm>

#include "device/event_source.h"
#include "util/text.h"

LoopStats g_loop_stats;

const char* activity_name(Activity activity) {
  constexpr const char* kNames[] = {"starting",  "idle",       "forwarding", "handler", "timer",
                                    "coroutine", "collecting", "loading",    "stopped"};
  return kNames[static_cast<int>(activity)];
}

// What is newer than this reader's look at the clock is 0 ns old.
ActivityNow LoopStats::read(uint64_t word) {
  const uint64_t reading = static_cast<uint64_t>(steady_ns()) >> 10;
  const int64_t age = static_cast<int64_t>((reading - (word >> 20)) << 20) >> 20;  // of 44 bits
  const Activity activity = activity_of(word);
  const bool has_event = activity == Activity::forwarding || activity == Activity::handler;
  const bool has_begun = activity != Activity::starting;
  return {activity, has_event ? static_cast<int>(word >> 12 & 255) : -1,
          is_call(word) ? static_cast<int>(word >> 4 & 255) : -1, has_begun && age > 0 ? age << 10 : 0};
}

ActivityNow LoopStats::activity() const {
  const ActivityNow loop = read(word());
  const int64_t since = loading_since.load(std::memory_order_relaxed);
  if (since == 0 || loop.activity == Activity::forwarding) return loop;
  return {Activity::loading, -1, -1, steady_ns() - since};
}

int64_t LoopStats::silent_ns() const {
  const int64_t last = last_look.load(std::memory_order_relaxed);
  return last == 0 ? 0 : std::max<int64_t>(steady_ns() - last, 0);
}

LastError LoopStats::last_error() const {
  const MutexLock lock(mutex);
  return {error_time, error_tag, error_event, error_text};
}

LastReload LoopStats::last_reload() const {
  const MutexLock lock(mutex);
  return {reload_time, reload_text};
}

uint64_t LoopStats::all_events() const {
  uint64_t sum = 0;
  for (const EventStats& event : events) sum += event.events.get();
  return sum;
}

uint64_t LoopStats::all_errors() const {
  uint64_t sum = 0;
  for (const TagStats& tag : tags) sum += tag.errors.get();
  return sum;
}

void LoopStats::take_sample() {
  const int waiting = event_pending == nullptr ? 0 : event_pending();
  history.add(last_reading.load(std::memory_order_relaxed),
              {all_events(), all_errors(), static_cast<uint64_t>(waiting), timers.get(), coroutines.get()});
}

void LoopStats::looks_around() {
  const int64_t reading = read_clock();
  last_look.store(reading, std::memory_order_relaxed);
  if (history.is_due(reading)) take_sample();
  // So `idle` lasts from the end of the last work on.
  if (activity_of(word()) != Activity::idle) set_activity(Activity::idle);
}

void LoopStats::begin_collection() {
  set_activity(Activity::collecting);
}

void LoopStats::end_collection() {
  read_clock();
  set_activity(Activity::idle);
}

void LoopStats::failed(const char* tag, const char* text) {
  tags[tag_names.entry_of(tag)].errors.add();
  const char* event = "";
  if (dispatching) {
    ++errors_in_dispatch;
    events[current_event].errors.add();
    event = event_names.name(current_event);
  }
  const MutexLock lock(mutex);
  error_time = time(nullptr);
  copy_text(error_tag, sizeof(error_tag), tag);
  copy_text(error_event, sizeof(error_event), event);
  copy_text(error_text, sizeof(error_text), text);
}

void LoopStats::set_loading(bool on) {
  loading_since.store(on ? steady_ns() : 0, std::memory_order_relaxed);
}

void LoopStats::reload_ended(const char* text) {
  (text == nullptr ? reloads_done : reloads_failed).add();
  const MutexLock lock(mutex);
  reload_time = time(nullptr);
  copy_text(reload_text, sizeof(reload_text), text == nullptr ? "" : text);
}
