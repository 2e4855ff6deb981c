#include "uplink/daemon_link.h"

#include <algorithm>
#include <charconv>

#include "device/log.h"
#include "util/clock.h"
#include "util/safe_text.h"
#include "util/text.h"

namespace {

constexpr int kConnectMs = 20;  // a connect waits only for a daemon that accepts nobody
constexpr int kFirstRetryMs = 500;
constexpr int kLongestRetryMs = 5000;
constexpr int kLinesAtOnce = 256;
constexpr char kNotYet[] = "has not come yet";  // within the daemon's sentence
constexpr char kNoRun[] = "00000000";           // that never was; the daemon takes nothing shorter

std::string names_argument(const std::vector<std::string>& names) {
  std::string list;
  for (const std::string& name : names) {
    list += list.empty() ? " names=" : ",";
    for (const char c : encoded(name)) list += c == ',' ? "%2C" : std::string(1, c);
  }
  return list;
}

}  // namespace

bool parse_event_id(const std::string& text, EventId& id) {
  const size_t dash = text.find('-');
  if (dash == std::string::npos || dash == 0 || text.find_first_not_of("0123456789abcdef") != dash) return false;
  const char* const end = text.data() + text.size();
  uint64_t sequence = 0;
  const auto [rest, error] = std::from_chars(text.data() + dash + 1, end, sequence);
  if (error != std::errc() || rest != end) return false;
  id = {text.substr(0, dash), sequence};
  return true;
}

DaemonLink::DaemonLink(std::string the_root, const std::vector<std::string>& names, const std::string& last_known,
                       Events all_events)
    : root(std::move(the_root)), request_names(names_argument(names)), events(std::move(all_events)) {
  parse_event_id(last_known, position);
  current.since_ms = next_try = steady_ms();
}

void DaemonLink::add_descriptors(std::vector<pollfd>& out) const {
  if (client != nullptr) out.push_back({client->descriptor(), POLLIN, 0});
}

int DaemonLink::wait_ms() const {
  if (client != nullptr) return may_have_more ? 0 : -1;
  return static_cast<int>(std::max<int64_t>(next_try - steady_ms(), 0));
}

void DaemonLink::run() {
  try {
    if (client == nullptr && steady_ms() >= next_try) connect();
    may_have_more = false;
    for (int i = 0; client != nullptr && i < kLinesAtOnce; ++i) {
      if (!take_line()) return;
    }
    may_have_more = client != nullptr;
  } catch (const Failure& failure) {
    go_away(failure.what());
  }
}

void DaemonLink::connect() {
  auto made = std::make_unique<ControlClient>(root, kConnectMs);
  const EventId from{is_position_unknown ? kNoRun : position.run, position.sequence};
  made->send("follow" + (position.run.empty() ? "" : " from=" + from.text()) + request_names);
  client = std::move(made);
}

// Returns false when no line has come.
bool DaemonLink::take_line() {
  AnswerLine line;
  try {
    switch (client->next(line, 0)) {
      case ControlClient::Got::nothing:
        return false;
      case ControlClient::Got::end:
        go_away("the daemon has ended its answer");
        return false;
      case ControlClient::Got::line:
        take(line);
    }
  } catch (const Refused& refused) {
    // The run is the same by chance, or the position is not ours: as if it were of another run.
    if (std::string_view(refused.what()).find(kNotYet) != std::string_view::npos) is_position_unknown = true;
    throw;
  }
  return true;
}

void DaemonLink::take(const AnswerLine& line) {
  if (line.kind() == "event") {
    events.on_event(line);
    parse_event_id(line.text("id"), position);
  } else if (line.kind() == "lost") {
    lose(line);
  } else if (line.kind() == "passed") {
    move_to(line.text("id"));
  } else if (line.kind() == "following") {
    begin(line);
  }
}

void DaemonLink::begin(const AnswerLine& line) {
  const std::string run = line.text("run");
  if (!current.last_error.empty()) {
    elog(1, "uplink: the daemon is followed again%s", run == current.run ? "" : "; it was started anew");
  }
  current.following = true;
  current.since_ms = following_since = steady_ms();
  current.last_error.clear();
  current.run = run;
  is_position_unknown = false;
  ++current.connects;
  const uint64_t next = line.count("next");
  if (position.run.empty() && next > 0) move_to(EventId{run, next - 1}.text());
}

// A gap across two runs begins in the former one.
void DaemonLink::lose(const AnswerLine& line) {
  EventId last;
  if (!parse_event_id(line.text("last"), last)) return;
  const uint64_t count = line.count("n");
  EventId first = position;
  first.sequence = count == 0 ? position.sequence + 1 : last.sequence + 1 - std::min(count, last.sequence);
  events.on_gap(first.text(), last.text(), count);
  position = last;
}

void DaemonLink::move_to(const std::string& id) {
  if (parse_event_id(id, position)) events.on_passed(id);
}

void DaemonLink::go_away(const std::string& reason) {
  client.reset();
  may_have_more = false;
  const int64_t now = steady_ms();
  const bool was_up_long = current.following && now - following_since >= kLongestRetryMs;
  retry_ms = was_up_long || retry_ms == 0 ? kFirstRetryMs : std::min(2 * retry_ms, kLongestRetryMs);
  next_try = now + retry_ms;
  const std::string safe = escaped(reason);
  if (safe != current.last_error) elog(1, "uplink: the daemon is not followed: %s", safe.c_str());
  if (current.following) current.since_ms = now;
  current.following = false;
  current.last_error = safe;
}
