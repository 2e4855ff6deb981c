#include "app/control_requests.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <lua.hpp>
#include <memory>

#include "app/reload_requests.h"
#include "control/event_ring.h"
#include "control/loop_stats.h"
#include "device/counts.h"
#include "device/event_source.h"
#include "device/log.h"
#include "device/store_text.h"
#include "listener/manager_listener.h"
#include "script/manager_script.h"
#include "util/clock.h"
#include "util/device_root.h"
#include "util/text.h"

namespace {

constexpr int64_t kNsPerS = 1000000000;
constexpr int64_t kLongCallNs = 100000000;  // a script that has run for longer is asked where it is
constexpr int kWhereMs = 100;
constexpr int kReportMs = 1000;
constexpr int kLogLevelMost = 99;

std::atomic<const char*> g_state{"starting"};
std::atomic<int64_t> g_state_since{0};  // steady_ns

// Bytes of memory in use.
int64_t resident_bytes() {
  const std::unique_ptr<FILE, int (*)(FILE*)> statm(fopen("/proc/self/statm", "re"), fclose);
  char line[128] = "";
  if (statm == nullptr || fgets(line, sizeof(line), statm.get()) == nullptr) return 0;
  char* resident = line;
  strtoll(line, &resident, 10);  // its address space
  return strtoll(resident, nullptr, 10) * sysconf(_SC_PAGESIZE);
}

std::string program_path() {
  char target[4096];
  const ssize_t length = readlink("/proc/self/exe", target, sizeof(target));
  return {target, static_cast<size_t>(std::max<ssize_t>(length, 0))};
}

void add_loop(Answer& answer, const std::string& where) {
  const ActivityNow now = g_loop_stats.activity();
  answer.line("loop").key("activity", activity_name(now.activity)).key("for_us", now.for_ns / 1000);
  if (now.tag >= 0) answer.key("tag", g_loop_stats.tag_names.name(now.tag));
  if (now.event >= 0) answer.key("event", g_loop_stats.event_names.name(now.event));
  if (!where.empty()) answer.key("where", where);
  answer.key("alive_us", g_loop_stats.silent_ns() / 1000);
}

void add_source(Answer& answer, const char* name, uint64_t events, uint64_t refused) {
  answer.line("source").key("name", name).key("events", events).key("refused", refused);
}

void add_queue(Answer& answer) {
  if (event_counts_now != nullptr) {
    event_counts counts{};
    event_counts_now(&counts);
    answer.line("queue").key("waiting", counts.waiting).key("highest", counts.waiting_highest);
    answer.key("oldest_us", counts.oldest_age_us);
    if (event_socket_owned != nullptr) answer.key("socket", event_socket_owned() != 0 ? "owned" : "none");
    add_source(answer, "process", counts.posted, counts.posted_refused);
    add_source(answer, "posters", counts.lines, counts.lines_refused);
    answer.key("connections", counts.posters).key("evicted", counts.posters_evicted);
  }
  if (event_came_ns == nullptr) return;
  answer.line("wait").key("count", g_loop_stats.wait.count()).durations("", g_loop_stats.wait);
}

void add_posters(Answer& answer) {
  if (event_posters_now == nullptr) return;
  std::vector<event_poster> posters(EVENT_POSTERS_MAX);
  posters.resize(event_posters_now(posters.data(), EVENT_POSTERS_MAX));
  for (const event_poster& poster : posters) {
    answer.line("poster").key("pid", poster.process).key("uid", poster.user);
    answer.key("since_s", poster.connected_ms / 1000).key("events", poster.lines).key("refused", poster.lines_refused);
    answer.key("waiting", poster.bytes_waiting).key("recent", poster.recent).key("recent_ms", poster.recent_ms);
  }
}

// Calls add(entry) for each name of a table that has one of its own, and for all others when `other` says that there
// are any.
template <typename Add>
void for_each_entry(const NameTable& names, bool other, Add add) {
  for (int entry = 0; entry < names.size(); ++entry) add(entry);
  if (other) add(NameTable::kOther);
}

void add_events_and_tags(Answer& answer) {
  const LoopStats& loop = g_loop_stats;
  for_each_entry(loop.event_names, loop.events[NameTable::kOther].events.get() > 0, [&](int entry) {
    const EventStats& event = loop.events[entry];
    answer.line("event").key("name", loop.event_names.name(entry)).key("events", event.events.get());
    answer.key("unknown", event.unknown.get()).key("errors", event.errors.get()).durations("run_", event.run);
  });
  for_each_entry(loop.tag_names, loop.tags[NameTable::kOther].run.count() > 0, [&](int entry) {
    const TagStats& tag = loop.tags[entry];
    answer.line("tag").key("name", loop.tag_names.name(entry)).key("runs", tag.run.count());
    answer.key("errors", tag.errors.get()).durations("run_", tag.run);
  });
}

// Absent in the first second of the loop.
void add_recent(Answer& answer) {
  const LoopStats& loop = g_loop_stats;
  const auto past = loop.history.past(steady_ns());
  if (!past || past->age_ns < kNsPerS) return;
  const LoopSample& then = past->sample;
  answer.line("recent").key("over_ms", past->age_ns / 1000000).key("events", loop.all_events() - then.events);
  answer.key("errors", loop.all_errors() - then.errors).key("waiting_then", then.waiting);
  answer.key("timers_then", then.timers).key("coroutines_then", then.coroutines);
}

void add_scripts(Answer& answer, int script_memory_kib) {
  const LoopStats& loop = g_loop_stats;
  answer.line("timers").key("now", loop.timers.get()).durations("lateness_", loop.timer_lateness);
  answer.line("coroutines").key("now", loop.coroutines.get()).durations("lateness_", loop.coroutine_lateness);
  answer.line("lua").key("bytes", loop.lua_bytes.get()).key("limit", int64_t{script_memory_kib} * 1024);
  answer.key("collections", loop.collections.count()).durations("collect_", loop.collections);
  const LastError error = loop.last_error();
  if (error.time != 0) {
    answer.line("error").key("time", error.time).key("tag", error.tag).key("event", error.event);
    answer.key("text", error.text);
  }
  const LastReload reload = loop.last_reload();
  answer.line("reload").key("tried", loop.reloads_tried.get()).key("failed", loop.reloads_failed.get());
  answer.key("done", loop.reloads_done.get()).key("last", reload.time);
  answer.key("last_result", reload.time == 0 ? "none" : reload.text.empty() ? "done" : "failed");
  if (!reload.text.empty()) answer.key("last_text", reload.text);
}

void add_log(Answer& answer) {
  if (log_counts_now == nullptr) return;
  log_counts counts{};
  log_counts_now(&counts);
  answer.line("log").key("written", counts.written).key("lost", counts.lost).key("repeated", counts.repeated);
}

// "in handler 'front' of door for 12.3 s".
std::string loop_activity() {
  const ActivityNow now = g_loop_stats.activity();
  const std::string tag = now.tag < 0 ? "" : std::string(" '") + g_loop_stats.tag_names.name(now.tag) + "'";
  const std::string event = now.event < 0 ? "" : std::string(" of ") + g_loop_stats.event_names.name(now.event);
  const std::string what = (now.tag < 0 ? "" : "in ") + std::string(activity_name(now.activity));
  return what + tag + event + sstr(" for %.1f s", static_cast<double>(now.for_ns) / kNsPerS);
}

void add_report(ManagerScript& script, Answer& answer) {
  if (const auto report = script.report(kReportMs)) return answer.add_lines(*report);
  answer.fail(g_loop_stats.has_ended() ? kLoopHasEnded : "the loop is busy: " + loop_activity());
}

bool wants_trial(const ControlRequest& request) {
  if (request.arguments.empty()) return true;
  if (request.arguments == std::vector<std::string>{"no-trial"}) return false;
  throw std::runtime_error("unknown argument '" + request.arguments.back().substr(0, 40) + "': expected no-trial");
}

void reload(const ControlRequest& request, Answer& answer, const std::function<bool()>& given_up) {
  if (g_loop_stats.has_ended()) throw std::runtime_error(kLoopHasEnded);  // nothing would run what it loads
  const ReloadVerdict verdict = ask_for_reload(wants_trial(request), given_up);
  answer.line("reload").key("result", verdict.done ? "done" : "failed");
  if (!verdict.done) answer.key("text", verdict.text);
}

void refuse_arguments(const ControlRequest& request) {
  if (!request.arguments.empty()) throw std::runtime_error("'" + request.name + "' takes no arguments");
}

}  // namespace

void enter_state(const char* state) {
  g_state_since = steady_ns();
  g_state = state;
}

ControlRequests::ControlRequests(ManagerScript& the_script, ManagerListener& the_listener, EventRing& the_ring)
    : script(the_script),
      listener(the_listener),
      ring(the_ring),
      program(program_path()),
      started_s(time(nullptr)),
      started_ns(steady_ns()) {
  enter_state("starting");
}

void ControlRequests::set_log_level(int level) {
  log_level = level;
  elog_set_level("zelvind", level);
}

std::vector<ControlCommand> ControlRequests::commands() {
  const auto stats_at_once = [this](const ControlRequest& request, Answer& answer) {
    refuse_arguments(request);
    const ActivityNow now = g_loop_stats.activity();
    const bool in_script = LoopStats::is_call(now.activity) || now.activity == Activity::loading;
    if (in_script && now.for_ns >= kLongCallNs) return false;
    add_stats(answer, "");
    return true;
  };
  const auto stats = [this](const ControlRequest&, Answer& answer, const auto&) {
    add_stats(answer, script.watch.where(kWhereMs));
  };
  const auto scripts = [this](const ControlRequest& request, Answer& answer, const auto&) {
    refuse_arguments(request);
    add_report(script, answer);
  };
  const auto clients = [this](const ControlRequest& request, Answer& answer) {
    refuse_arguments(request);
    add_clients(answer);
    return true;
  };
  const auto change_level = [this](const ControlRequest& request, Answer& answer) {
    change_log_level(request, answer);
    return true;
  };
  return {{"stats", stats_at_once, stats},
          {"clients", clients, nullptr},
          {"scripts", nullptr, scripts},
          {"reload", nullptr, reload},
          {"log_level", change_level, nullptr}};
}

void ControlRequests::add_stats(Answer& answer, const std::string& where) const {
  add_daemon(answer);
  add_loop(answer, where);
  add_queue(answer);
  add_recent(answer);
  add_events_and_tags(answer);
  add_scripts(answer, script_memory_kib);
  add_listener(answer);
  add_posters(answer);
  add_log(answer);
  add_control(answer);
}

void ControlRequests::add_daemon(Answer& answer) const {
  const int64_t now = steady_ns();
  const ActivityNow loop = g_loop_stats.activity();
  std::string current = g_state.load();
  int64_t since = g_state_since;
  if (current == "ready" && loop.activity == Activity::stopped) {
    current = "ended";
    since = now - loop.for_ns;
  }
  std::string root;
  under_device_root("", root);
  answer.line("daemon").key("version", ZELVIND_VERSION).key("pid", getpid()).key("run", ring.run());
  answer.key("started", started_s).key("uptime_s", (now - started_ns) / kNsPerS).key("state", current);
  answer.key("state_since_s", (now - since) / kNsPerS).key("root", root).key("log_level", log_level.load());
  answer.key("rss", resident_bytes()).key("exe", program);
  answer.key("device", event_socket_owned != nullptr ? "host" : "external").key("lua", &LUA_RELEASE[strlen("Lua ")]);
}

void ControlRequests::add_listener(Answer& answer) const {
  const ListenerStatus status = listener.status();
  answer.line("listener").key("port", status.port).key("wanted", status.wanted_port);
  answer.key("address", status.address).key("not_open", status.not_open).key("places", status.places);
  answer.key("clients", status.clients);
  answer.key("subscribed", status.subscribed).key("owing", status.owing).key("leaving", status.leaving);
  answer.key("accepted", status.accepted).key("refused", status.refused).key("denied", status.denied);
  answer.key("given_up", status.given_up);
  answer.key("deliveries", status.deliveries).key("bytes", status.bytes).key("sends", status.sends);
  answer.key("gathered", status.gathered_sends).key("skips", status.skips).key("waits", status.waits);
  answer.key("waited_us", status.waited_us).key("memory", status.memory).key("memory_limit", status.memory_limit);
}

void ControlRequests::add_control(Answer& answer) const {
  if (server == nullptr) return;
  const ControlServer::Counts counts = server->counts();
  answer.line("control").key("clients", counts.clients).key("requests", counts.requests);
  answer.key("followers", counts.followers);
}

void ControlRequests::add_clients(Answer& answer) const {
  for (const ClientStatus& client : listener.client_list()) {
    answer.line("client").key("id", client.fd).key("address", client.address).key("connected_s", client.connected_s);
    answer.key("state", client.state).key("wants", client.subscription).key("events", client.deliveries);
    answer.key("bytes", client.bytes).key("waiting", client.bytes_waiting).key("skipped", client.skips);
    if (client.last_skip_s >= 0) answer.key("last_skip_s", client.last_skip_s);
  }
}

void ControlRequests::say_log_level(const ControlRequest& request, int level) {
  const auto left_out = level_lines.allow();
  if (!left_out) return;
  set_log_level(std::max({level, log_level.load(), 1}));  // so that the line is written
  elog(1, "control: process %d of user %u sets log_level to %d%s", request.process, request.user, level,
       left_out->text);
}

void ControlRequests::change_log_level(const ControlRequest& request, Answer& answer) {
  if (request.arguments.size() > 1) throw std::runtime_error("'log_level' takes one number");
  if (request.arguments.size() == 1) {
    int level = 0;
    if (!parse_store_int(request.arguments[0], level) || level < 0 || level > kLogLevelMost) {
      throw std::runtime_error("log_level is '" + request.arguments[0].substr(0, 40) +
                               "': expected a whole number from 0 to 99");
    }
    if (level != log_level) say_log_level(request, level);
    set_log_level(level);
  }
  answer.line("log_level").key("now", log_level.load());
}
