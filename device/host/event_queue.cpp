#include "device/event_queue.h"

#include <malloc.h>
#include <pthread.h>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string_view>

#include "device/counts.h"
#include "device/event_source.h"
#include "device/host/event_inbox.h"
#include "device/host/event_posters.h"
#include "device/host/stand_in.h"
#include "device/log.h"
#include "util/clock.h"
#include "util/lua_binding.h"

namespace {

struct EventQueue {
  EventInbox inbox;
  EventPosters posters{inbox};
  LoopLooks looks;
  StandIn stand_in{looks, posters, inbox};
  int64_t last_look = 0;  // script thread: the steady_tick_ms() at which look_at_posters last looked
};

EventQueue& queue() {
  static auto* const the_queue = new EventQueue;  // threads of plug-ins may post until the process is gone
  return *the_queue;
}

// While the process itself posts without a pause, the loop never waits, and only a wait looks at the posters. So this
// looks at them once a tick: often enough for them, and without a system call for each event.
void look_at_posters(EventQueue& q) {
  if (q.inbox.posted(EventSource::posters).waiting() > 0 || q.inbox.waiting() == 0) return;
  const int64_t now = steady_tick_ms();
  if (now == q.last_look) return;
  q.last_look = now;
  const LoopLooks::Look look(q.looks);
  q.posters.wait(0);
}

EventRecord* wait_for_event(EventQueue& q, int timeout_ms) {
  const LoopLooks::Look look(q.looks);
  const int64_t deadline = steady_ms() + timeout_ms;
  int64_t left = timeout_ms;
  do {
    const int wait_ms = q.inbox.may_sleep() ? static_cast<int>(left) : 0;
    const bool is_whole = q.posters.wait(wait_ms);
    q.inbox.woke_up();
    if (!is_whole) return nullptr;
    if (EventRecord* record = q.inbox.take()) return record;
    if (q.inbox.take_wake()) return nullptr;
    left = deadline - steady_ms();
  } while (left > 0);
  return nullptr;
}

// A child of this process may post as long as it lives, whatever other threads did during the fork.
void keep_usable_in_children() {
  const auto before = [] { queue().inbox.before_fork(), spare_records_before_fork(); };
  const auto after = [] { spare_records_after_fork(), queue().inbox.after_fork(); };
  static const int registered = pthread_atfork(before, after, after);
  (void)registered;
}

// What is wrong with an event, or null.
const char* check_event(std::string_view name, std::string_view info) {
  const char* wrong = check_event_name(name);
  if (wrong == nullptr && info.find('\0') != std::string_view::npos) wrong = "the info holds a zero byte";
  return wrong;
}

// event_post(type, name [, info]): true, or false and a reason.
int lua_event_post(lua_State* L) {
  const int type = whole_arg(L, 1);
  const std::string_view name = bytes_arg(L, 2);
  const std::string_view info = lua_isnoneornil(L, 3) ? std::string_view() : bytes_arg(L, 3);
  const char* wrong = check_event(name, info);
  if (wrong == nullptr) {
    const int result = queue().inbox.post(type, name, info);
    if (result == -1) wrong = "the queue is closed";
    if (result == -2) wrong = "the queue is full";
  }
  lua_pushboolean(L, wrong == nullptr ? 1 : 0);
  if (wrong == nullptr) return 1;
  lua_pushstring(L, wrong);
  return 2;
}

}  // namespace

extern "C" {

int helper_init(lua_State* L) {
  std::string error;
  // First of all: scripts that post still load when the queue cannot be opened, and are told so.
  if (!protect(L, error, [](lua_State* state) { lua_register(state, "event_post", api<lua_event_post>); })) {
    elog(1, "evq: cannot add event_post to Lua: %s", error.c_str());
    return -1;
  }
  EventQueue& q = queue();
  if (q.posters.is_open()) return 0;
  if (!q.inbox.open() || !q.posters.open()) {
    elog(1, "evq: cannot open the event queue: %s", strerrordesc_np(errno));
    q.inbox.close();
    return -1;
  }
  keep_usable_in_children();
  q.stand_in.start();
  return 0;
}

void helper_cleanup() {
  EventQueue& q = queue();
  q.stand_in.stop();
  q.posters.close();
  q.inbox.close();
}

event_item* event_dequeue(int timeout_ms) {
  EventQueue& q = queue();
  if (!q.posters.is_open()) {  // the loop must not spin
    q.inbox.sleep(timeout_ms);
    q.inbox.take_wake();
    return nullptr;
  }
  look_at_posters(q);
  EventRecord* record = q.inbox.take();
  return record != nullptr ? record : wait_for_event(q, timeout_ms);
}

void event_item_free(event_item* item) {
  free_record(static_cast<EventRecord*>(item));
}

void event_arrange() {
  const unsigned long long dropped = queue().posters.tidy_up();
  const unsigned long long refused = queue().inbox.take_refused();
  if (dropped > 0) elog(1, "evq: %llu bad lines of other processes dropped", dropped);
  if (refused > 0) elog(1, "evq: %llu events refused because the queue was full", refused);
  free_spare_records();
  malloc_trim(0);
}

int event_post(int type, const char* type_name, const char* info) {
  if (type_name == nullptr || check_event_name(type_name) != nullptr) return -1;
  return queue().inbox.post(type, type_name, info != nullptr ? info : "");
}

int event_pending() {
  return queue().inbox.waiting();
}

void event_wake() {
  queue().inbox.wake();
}

int event_socket_owned() {
  return queue().posters.socket_number();
}

void event_counts_now(event_counts* out) {
  *out = {};
  queue().inbox.count(*out);
  queue().posters.count(*out);
}

uint32_t event_posters_now(event_poster* out, uint32_t max) {
  return queue().posters.list(out, max);
}

int64_t event_came_ns(const event_item* event) {
  return static_cast<const EventRecord*>(event)->came_ns;
}
}
