#include "control/loop_stats.h"

#include "util/text.h"

LoopStats g_loop_stats;

const char* activity_name(Activity activity) {
  constexpr const char* kNames[] = {"starting",  "idle",       "forwarding", "handler", "timer",
                                    "coroutine", "collecting", "loading",    "stopped"};
  return kNames[static_cast<int>(activity)];
}

// A word that is written after this reader's look at the clock counts as written at that moment.
ActivityNow LoopStats::activity() const {
  const uint64_t word = now.load(std::memory_order_relaxed);
  const int64_t loading = loading_since.load(std::memory_order_relaxed);
  const int64_t alive = last_reading.load(std::memory_order_relaxed);
  const uint64_t read_at = static_cast<uint64_t>(steady_ns());
  const int64_t age = static_cast<int64_t>(((read_at >> 10) - (word >> 20)) << 20) >> 20;  // of 44 bits
  const int64_t since = static_cast<int64_t>(read_at) - (age > 0 ? age << 10 : 0);
  const Activity what = static_cast<Activity>(word & 15);
  if (loading != 0 && what != Activity::forwarding) return {Activity::loading, -1, -1, loading, alive};
  const bool has_event = what == Activity::forwarding || what == Activity::handler;
  const bool has_tag = what == Activity::handler || what == Activity::timer || what == Activity::coroutine;
  return {what, has_event ? static_cast<int>(word >> 12 & 255) : -1, has_tag ? static_cast<int>(word >> 4 & 255) : -1,
          what == Activity::starting ? 0 : since, alive};
}

LastError LoopStats::last_error() const {
  const MutexLock lock(mutex);
  return {error_time, error_tag, error_event, error_text};
}

LastReload LoopStats::last_reload() const {
  const MutexLock lock(mutex);
  return {reload_time, reload_text};
}

void LoopStats::begin_collection() {
  set_activity(Activity::collecting);
}

void LoopStats::end_collection() {
  const int64_t began = last_reading.load(std::memory_order_relaxed);
  collections.add(read_clock() - began);
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
