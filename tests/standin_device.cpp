#include "tests/standin_device.h"

#include <pthread.h>

#include <chrono>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <utility>

#include "device/config_store.h"
#include "device/event_queue.h"
#include "device/event_source.h"
#include "device/log.h"

namespace {

struct Event : event_item {
  std::string text;
};

struct Device {
  std::deque<std::unique_ptr<Event>> queue;
  std::vector<std::string> lines;
  std::map<std::string, int> numbers;
  std::map<std::string, std::string> texts;
  int refusals = 0, arranged = 0, full_waits = 0;
  bool idle = false, woken = false;
};

// The device, locked as long as this lives; without a name, until the statement ends.
struct Locked {
  Device* operator->() const { return device; }
  std::vector<std::string> lines_with(const std::string& part) const {
    std::vector<std::string> found;
    for (const std::string& line : device->lines) {
      if (line.find(part) != std::string::npos) found.push_back(line);
    }
    return found;
  }
  template <typename Condition>
  bool wait_for(int limit_ms, Condition condition) {
    return changed.wait_for(lock, std::chrono::milliseconds(limit_ms), condition);
  }

  // They outlive every thread.
  static inline Device* const device = new Device;
  static inline std::mutex& mutex = *new std::mutex;
  static inline std::condition_variable& changed = *new std::condition_variable;
  // A forked copy logs, too.
  static inline const int usable_after_fork =
      pthread_atfork([] { mutex.lock(); }, [] { mutex.unlock(); }, [] { mutex.unlock(); });
  std::unique_lock<std::mutex> lock{mutex};
};

}  // namespace

namespace standin {

void post(int type, const std::string& type_name, const std::string& info) {
  auto event = std::make_unique<Event>();
  event->type = type;
  event->timestamp[0] = 1234;
  event->timestamp[1] = -5;
  snprintf(event->type_name, sizeof(event->type_name), "%s", type_name.c_str());
  event->text = info;
  event->info = event->text.c_str();
  const Locked device;
  device->queue.push_back(std::move(event));
  Locked::changed.notify_all();
}

bool wait_for_line(const std::string& part, size_t count) {
  Locked device;
  return device.wait_for(10000, [&] { return device.lines_with(part).size() >= count; });
}

void wait_until_idle() {
  Locked device;
  device.wait_for(10000, [&] { return device->idle; });
}

// clang-format off
void reset() { *Locked().operator->() = Device(); }
void set_number(const std::string& key, int value) { Locked()->numbers[key] = value; }
void set_text(const std::string& key, const std::string& value) { Locked()->texts[key] = value; }
void refuse_posts(int count) { Locked()->refusals = count; }
std::vector<std::string> log_lines() { return Locked()->lines; }
std::vector<std::string> log_lines_with(const std::string& part) { return Locked().lines_with(part); }
int arrange_calls() { return Locked()->arranged; }
int full_waits() { return Locked()->full_waits; }
// clang-format on

}  // namespace standin

extern "C" {

void elog(int level, const char* format, ...) {
  char text[16384];
  va_list arguments;
  va_start(arguments, format);
  vsnprintf(text, sizeof(text), format, arguments);
  va_end(arguments);
  const Locked device;
  device->lines.push_back("<" + std::to_string(level) + "> " + text);
  Locked::changed.notify_all();
}
void elogr(int level, const char* format, ...) __attribute__((alias("elog")));

event_item* event_dequeue(int timeout_ms) {
  Locked device;
  device->idle = device->queue.empty();
  Locked::changed.notify_all();
  const bool in_time = device.wait_for(timeout_ms, [&] { return !device->queue.empty() || device->woken; });
  device->idle = false;
  if (!in_time && timeout_ms == 1000) ++device->full_waits;
  if (std::exchange(device->woken, false) || device->queue.empty()) return nullptr;
  Event* event = device->queue.front().release();
  device->queue.pop_front();
  return event;
}

void event_wake() {
  const Locked device;
  device->woken = true;
  Locked::changed.notify_all();
}

int event_post(int type, const char* type_name, const char* info) {
  if (const Locked device; device->refusals > 0) {
    --device->refusals;
    return -2;
  }
  standin::post(type, type_name, info == nullptr ? "" : info);
  return 1;
}

int econf_get_str(econf_handle*, const char* key, char* buffer, int size) {
  const Locked device;
  const auto found = device->texts.find(key);
  return found == device->texts.end() ? -1 : snprintf(buffer, static_cast<size_t>(size), "%s", found->second.c_str());
}

// clang-format off
int event_pending() { return static_cast<int>(Locked()->queue.size()); }
void event_item_free(event_item* item) { delete static_cast<Event*>(item); }
void event_arrange() { ++Locked()->arranged; }
econf_handle* econf_open(int, const char*, const char*) { return reinterpret_cast<econf_handle*>(Locked::device); }
int econf_get_int(econf_handle*, const char* key, int* value) { return *value = Locked()->numbers[key], 0; }
void econf_close(econf_handle*) {}
int econf_init(lua_State*) { return 1; }
void econf_cleanup() {}
int helper_init(lua_State*) { return 1; }
void helper_cleanup() {}
void elog_set_level(const char* name, int level) { elog(0, "level of %s: %d", name, level); }
void errlog_init(int facility, const char* name) { elog(0, "log of %s: %d", name, facility); }
// clang-format on
}
