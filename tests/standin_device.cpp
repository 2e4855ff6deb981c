#include "tests/standin_device.h"

#include <chrono>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <map>
#include <mutex>

#include "device/config_store.h"
#include "device/event_queue.h"
#include "device/event_source.h"
#include "device/log.h"

namespace {

struct Event : event_item {
  std::string text;
};

struct Device {
  std::mutex mutex;
  std::condition_variable changed;
  std::map<std::string, std::string> settings;
  std::deque<Event*> queue;
  std::vector<std::string> lines;
  std::vector<int> waits;
  int outstanding = 0;
  int refusals = 0;
  int arranged = 0;
  int handles = 0;
};

Device& device() {
  static Device* const the_device = new Device;  // outlives every thread
  return *the_device;
}

using Lock = std::unique_lock<std::mutex>;

void add_line(int level, const char* format, va_list arguments) {
  char text[16384];
  vsnprintf(text, sizeof(text), format, arguments);
  const Lock lock(device().mutex);
  device().lines.push_back("<" + std::to_string(level) + "> " + text);
  device().changed.notify_all();
}

std::vector<std::string> lines_with(const std::string& part) {
  std::vector<std::string> found;
  for (const std::string& line : device().lines) {
    if (line.find(part) != std::string::npos) found.push_back(line);
  }
  return found;
}

}  // namespace

namespace standin {

void reset() {
  Device& d = device();
  const Lock lock(d.mutex);
  for (Event* event : d.queue) delete event;
  d.queue.clear();
  d.settings.clear();
  d.lines.clear();
  d.waits.clear();
  d.arranged = 0;
}

void set(const std::string& key, const std::string& value) {
  const Lock lock(device().mutex);
  device().settings[key] = value;
}

void post(int type, const std::string& type_name, const std::string& info) {
  Event* event = new Event;
  event->type = type;
  event->timestamp[0] = 1234;
  event->timestamp[1] = -5;
  snprintf(event->type_name, sizeof(event->type_name), "%s", type_name.c_str());
  event->text = info;
  event->info = event->text.c_str();
  const Lock lock(device().mutex);
  device().queue.push_back(event);
  device().changed.notify_all();
}

void refuse_posts(int count) {
  const Lock lock(device().mutex);
  device().refusals = count;
}

std::vector<std::string> log_lines() {
  const Lock lock(device().mutex);
  return device().lines;
}

std::vector<std::string> log_lines_with(const std::string& part) {
  const Lock lock(device().mutex);
  return lines_with(part);
}

bool wait_for_line(const std::string& part, size_t count) {
  Lock lock(device().mutex);
  return device().changed.wait_for(lock, std::chrono::seconds(10), [&] { return lines_with(part).size() >= count; });
}

int events_outstanding() {
  const Lock lock(device().mutex);
  return device().outstanding;
}

int arrange_calls() {
  const Lock lock(device().mutex);
  return device().arranged;
}

std::vector<int> dequeue_waits() {
  const Lock lock(device().mutex);
  return device().waits;
}

int handles_open() {
  const Lock lock(device().mutex);
  return device().handles;
}

}  // namespace standin

extern "C" {

econf_handle* econf_open(int, const char*, const char*) {
  const Lock lock(device().mutex);
  if (device().settings.empty()) return nullptr;
  ++device().handles;
  return reinterpret_cast<econf_handle*>(&device());
}

int econf_get_int(econf_handle*, const char* key, int* value) {
  const Lock lock(device().mutex);
  const auto found = device().settings.find(key);
  if (found == device().settings.end()) return -1;
  *value = atoi(found->second.c_str());
  return 0;
}

int econf_get_str(econf_handle*, const char* key, char* buffer, int size) {
  const Lock lock(device().mutex);
  const auto found = device().settings.find(key);
  if (found == device().settings.end() || found->second.size() >= static_cast<size_t>(size)) return -1;
  strcpy(buffer, found->second.c_str());
  return 0;
}

void econf_close(econf_handle*) {
  const Lock lock(device().mutex);
  --device().handles;
}

int econf_init(lua_State*) {
  return 1;
}
void econf_cleanup() {}

void elog_set_level(const char* name, int level) {
  elog(0, "level of %s: %d", name, level);
}
void errlog_init(int facility, const char* name) {
  elog(0, "log of %s: %d", name, facility);
}

void elog(int level, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  add_line(level, format, arguments);
  va_end(arguments);
}

void elogr(int level, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  add_line(level, format, arguments);
  va_end(arguments);
}

event_item* event_dequeue(int timeout_ms) {
  Device& d = device();
  Lock lock(d.mutex);
  d.waits.push_back(timeout_ms);
  d.changed.wait_for(lock, std::chrono::milliseconds(timeout_ms), [&] { return !d.queue.empty(); });
  if (d.queue.empty()) return nullptr;
  Event* event = d.queue.front();
  d.queue.pop_front();
  ++d.outstanding;
  return event;
}

void event_arrange() {
  const Lock lock(device().mutex);
  ++device().arranged;
}

void event_item_free(event_item* item) {
  const Lock lock(device().mutex);
  --device().outstanding;
  delete static_cast<Event*>(item);
}

int helper_init(lua_State*) {
  return 1;
}
void helper_cleanup() {}

int event_post(int type, const char* type_name, const char* info) {
  {
    const Lock lock(device().mutex);
    if (device().refusals > 0) {
      --device().refusals;
      return -2;
    }
  }
  standin::post(type, type_name, info == nullptr ? "" : info);
  return 1;
}

int event_pending() {
  const Lock lock(device().mutex);
  return static_cast<int>(device().queue.size());
}
}
