#include "uplink/uplink.h"

#include <sys/signalfd.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <ctime>
#include <fstream>
#include <nlohmann/json.hpp>

#include "ctl/event_connection.h"
#include "device/event_source.h"
#include "device/log.h"
#include "uplink/event_payload.h"
#include "util/clock.h"
#include "util/rate_limit.h"
#include "util/safe_text.h"

namespace {

constexpr char kPositionPath[] = "/run/zelvind-uplink/position";
constexpr char kReplyName[] = "uplink_reply";
constexpr int kPostMs = 500;            // for a daemon that does not read
constexpr int64_t kPostAgainMs = 2000;  // after it has not
constexpr int kFarewellMs = 3000;
constexpr int64_t kRecentMs = 10000;

int64_t since_s(int64_t ms) {
  return std::max<int64_t>(steady_ms() - ms, 0) / 1000;
}

uint64_t resident_bytes() {
  uint64_t all = 0;
  uint64_t resident = 0;
  std::ifstream("/proc/self/statm") >> all >> resident;
  return resident * static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
}

}  // namespace

Uplink::Uplink(UplinkSettings all_settings, std::string the_root, uint64_t starts)
    : settings(std::move(all_settings)),
      root(std::move(the_root)),
      session(starts),
      started_ms(steady_ms()),
      started_s(time(nullptr)),
      spool(settings.spool, settings.spool_bytes, settings.full),
      outbox(settings, spool, root + kPositionPath,
             [this](const std::string& topic, const std::string& payload) { return broker.publish(topic, payload); }),
      answers([this](const std::string& topic, const std::string& payload) { return broker.publish(topic, payload); }),
      commands(
          settings, settings.spool,
          {[this] { return steady_ms() >= no_post_before; }, [this](const std::string& line) { return post(line); },
           [this](const std::string& id, const std::string& payload) {
             answers.add(settings.topic("r/" + id), payload);
           }}),
      broker(settings, {settings.topic("state"), [this] { return state_text(false); }},
             settings.down.empty() ? std::vector<std::string>() : std::vector<std::string>{settings.topic("c/+")},
             broker_events()),
      daemon(root, followed_names(), outbox.position(), daemon_events()),
      status([this] { return stats(); }) {
  published.emplace_back(started_ms, 0);
}

// --- What the parts tell each other

BrokerLink::Events Uplink::broker_events() {
  BrokerLink::Events events;
  events.on_up = [this] {
    state_message.begin();
    outbox.set_up(true);
  };
  events.on_down = [this](const std::string&) {
    outbox.set_up(false);
    answers.begin_again();
  };
  events.on_confirmed = [this](int token) {
    state_message.go_on();
    outbox.confirm(token);
    answers.forget(token);
  };
  events.on_refused = [this, limit = RateLimit()](int token, const std::string& reason) mutable {
    state_message.go_on();
    outbox.refuse(token);
    answers.forget(token);
    if (const auto left_out = limit.allow()) {
      elog(1, "uplink: the broker refuses a message: %s%s", reason.c_str(), left_out->text);
    }
  };
  events.on_message = [this](std::string_view topic, std::string_view payload, bool retained) {
    const std::string place = settings.topic("c/");
    if (topic.substr(0, place.size()) == place) commands.take(topic.substr(place.size()), payload, retained);
  };
  return events;
}

// Answers of scripts are followed in any case: a daemon that was given no names would send all events.
std::vector<std::string> Uplink::followed_names() const {
  std::vector<std::string> names = settings.up;
  names.emplace_back(kReplyName);
  return names;
}

DaemonLink::Events Uplink::daemon_events() {
  DaemonLink::Events followed;
  followed.on_event = [this](const AnswerLine& event) { take_event(event); };
  followed.on_gap = [this](const std::string& first, const std::string& last, uint64_t count) {
    take_gap(first, last, count);
  };
  followed.on_passed = [this](const std::string& id) { outbox.pass(id); };
  return followed;
}

void Uplink::take_event(const AnswerLine& event) {
  UplinkRecord record = event_record(event);
  const bool is_reply = record.name == kReplyName && !settings.down.empty();
  if (is_reply) commands.reply(event.text("info"));
  if (is_reply || !matches_any(settings.up, record.name)) return outbox.pass(record.id);
  ++taken_over;
  record.urgent = matches_any(settings.urgent, record.name);
  outbox.add(std::move(record), steady_ms());
}

void Uplink::take_gap(const std::string& first, const std::string& last, uint64_t count) {
  UplinkRecord gap;
  gap.id = first;
  gap.last_id = last;
  gap.count = count;
  lost += count;
  if (const auto left_out = lost_limit.allow()) {
    elog(1, "uplink: events from %s to %s are lost, %s of them%s", first.c_str(), last.c_str(),
         count == 0 ? "nobody knows how many" : std::to_string(count).c_str(), left_out->text);
  }
  outbox.add(std::move(gap), steady_ms());
}

// The daemon takes in a line within milliseconds, as a rule. One that does not must not hold up everything else.
bool Uplink::post(const std::string& line) {
  try {
    EventConnection connection(root + kEventSocketPath, kPostMs);
    connection.send(line + "\n");
    connection.finish(false);
    return true;
  } catch (const Failure& failure) {
    no_post_before = steady_ms() + kPostAgainMs;
    elog(1, "uplink: a command is not known to be posted: %s", failure.what());
    return false;
  }
}

// --- The state

StateMessage::Told Uplink::telling() const {
  const Spool::State state = spool.state();
  return {state.records, state.dropped, state.in_memory};
}

std::string Uplink::state_text(bool on) const {
  const StateMessage::Told now = telling();
  nlohmann::ordered_json text;
  text["on"] = on;
  text["session"] = session;
  text["spooled"] = now.spooled;
  text["dropped"] = now.dropped;
  if (now.in_memory) text["spool"] = "memory";
  text["version"] = ZELVIND_VERSION;
  return text.dump();
}

// When the state is to be told again; -1: not as things stand.
int64_t Uplink::state_due() const {
  return broker.state().up ? state_message.due(telling()) : -1;
}

void Uplink::publish_state(int64_t now) {
  const int64_t due = state_due();
  if (due < 0 || due > now) return;
  const StateMessage::Told telling_now = telling();
  if (broker.publish(settings.topic("state"), state_text(true), true) == BrokerLink::kNotNow) {
    state_message.hold_up();
  } else {
    state_message.tell(telling_now, now);
  }
}

// --- The loop

void Uplink::run(int signals) {
  elog(1, "uplink: device %s begins session %llu", settings.device.c_str(), static_cast<unsigned long long>(session));
  do {
    daemon.run();
    broker.run();
    const int64_t now = steady_ms();
    publish_state(now);
    outbox.run(now, [this] { return answers.publish_next(); });
    status.run();
    recent_publishes(now);
    std::vector<pollfd> set = {{signals, POLLIN, 0}};
    daemon.add_descriptors(set);
    broker.add_descriptors(set);
    status.add_descriptors(set);
    poll(set.data(), set.size(), wait_ms());
  } while (!take_signals(signals));
  outbox.save();
  broker.close(state_text(false), kFarewellMs);
  outbox.save();  // what was acknowledged meanwhile
  elog(1, "uplink: ended");
}

int Uplink::wait_ms() const {
  const int64_t now = steady_ms();
  int64_t wait = INT_MAX;
  for (const int part : {daemon.wait_ms(), broker.wait_ms(), status.wait_ms()}) {
    if (part >= 0) wait = std::min<int64_t>(wait, part);
  }
  for (const int64_t due : {outbox.due(), state_due()}) {
    if (due > 0) wait = std::min(wait, std::max<int64_t>(due - now, 0));
  }
  return wait == INT_MAX ? -1 : static_cast<int>(wait);
}

// Returns true when it is time to end.
bool Uplink::take_signals(int signals) {
  signalfd_siginfo signal{};
  bool ends = false;
  while (read(signals, &signal, sizeof(signal)) == sizeof(signal)) {
    if (signal.ssi_signo == SIGHUP) {
      elog(1, "uplink: SIGHUP: connects anew");
      broker.reconnect();
    } else {
      ends = true;
    }
  }
  return ends;
}

// --- What it tells

// Publishes in the last ten seconds. Keeps a count a second, while there are any.
uint64_t Uplink::recent_publishes(int64_t now) {
  const uint64_t count = outbox.state().published;
  if (now - published.back().first >= 1000 && count != published.back().second) published.emplace_back(now, count);
  while (published.size() > 1 && published[1].first <= now - kRecentMs) published.pop_front();
  const bool is_old = published.front().first <= now - kRecentMs;
  return is_old && published.size() == 1 ? 0 : count - published.front().second;
}

std::string Uplink::stats() {
  const BrokerLink::State link = broker.state();
  const DaemonLink::State& source = daemon.state();
  const Outbox::State out = outbox.state();
  const Spool::State disk = spool.state();
  const Commands::State orders = commands.state();
  const auto since = [](int64_t ms) { return static_cast<uint64_t>(since_s(ms)); };
  StatusLines lines;
  lines.line("uplink").key("version", std::string(ZELVIND_VERSION)).key("pid", static_cast<uint64_t>(getpid()));
  lines.key("started", static_cast<uint64_t>(started_s)).key("uptime_s", since(started_ms)).key("session", session);
  lines.key("device", settings.device).key("rss", resident_bytes());

  lines.line("broker").key("host", settings.host).key("port", static_cast<uint64_t>(settings.port));
  lines.key("tls", settings.tls ? 1 : 0).key("state", std::string(link.up ? "up" : "down"));
  lines.key("since_s", since(link.since_ms)).key("connects", link.connects).key("failures", link.failures);
  lines.key("in_flight", static_cast<uint64_t>(link.in_flight))
      .key("refused", link.refused)
      .key("ignored", link.ignored);
  if (link.up) lines.key("protocol", static_cast<uint64_t>(link.protocol));
  if (link.next_try_ms != 0) {
    lines.key("next_try_s", static_cast<uint64_t>(std::max<int64_t>(link.next_try_ms - steady_ms(), 0) / 1000));
  }
  if (!link.last_error.empty()) lines.key("error", link.last_error);

  lines.line("daemon").key("state", std::string(source.following ? "following" : "away"));
  lines.key("since_s", since(source.since_ms))
      .key("connects", source.connects)
      .key("events", taken_over)
      .key("lost", lost);
  if (!source.run.empty()) lines.key("run", source.run);
  if (!outbox.position().empty()) lines.key("position", outbox.position());
  if (!source.last_error.empty()) lines.key("error", source.last_error);

  lines.line("out").key("published", out.published).key("confirmed", out.confirmed).key("repeated", out.repeated);
  lines.key("refused", out.refused).key("gaps", out.gaps).key("bytes", out.bytes);
  lines.key("rate", recent_publishes(steady_ms())).key("waiting", static_cast<uint64_t>(out.waiting));

  lines.line("spool").key("place", std::string(disk.in_memory ? "memory" : "disk")).key("records", disk.records);
  lines.key("bytes", disk.bytes).key("limit", static_cast<uint64_t>(settings.spool_bytes)).key("dropped", disk.dropped);
  lines.key("written", disk.written).key("syncs", disk.syncs);
  if (disk.oldest_s >= kClockIsSet)  // otherwise nobody knows
    lines.key("oldest_s", static_cast<uint64_t>(std::max<int64_t>(time(nullptr) - disk.oldest_s, 0)));
  if (!disk.error.empty()) lines.key("error", disk.error);

  lines.line("commands").key("taken", orders.taken).key("refused", orders.refused).key("failed", orders.failed);
  lines.key("repeated", orders.repeated).key("stray_replies", orders.stray_replies);
  lines.key("dropped_answers", answers.dropped());
  if (!orders.last_refusal.empty()) lines.key("refusal", orders.last_refusal);
  return lines.end();
}
