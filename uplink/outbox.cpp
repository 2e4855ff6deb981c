#include "uplink/outbox.h"

#include <fcntl.h>
#include <unistd.h>
#include <algorithm>
#include <cstdio>

#include "uplink/broker_link.h"
#include "uplink/daemon_link.h"
#include "uplink/event_payload.h"
#include "util/descriptor.h"
#include "util/quiet_write.h"

namespace {

constexpr size_t kHeldBytesMax = size_t{256} * 1024;
constexpr size_t kHeldMax = 1024;     // records
constexpr size_t kRecordBytes = 200;  // of a record beside its texts
constexpr int64_t kSecond = 1000;     // ms

size_t size_of(const UplinkRecord& record) {
  return kRecordBytes + record.name.size() + record.payload.size();
}

std::string read_position(const std::string& path) {
  const Descriptor file(above_standard_streams(open(path.c_str(), O_RDONLY | O_CLOEXEC)));
  char text[64];
  const ssize_t size = file.get() < 0 ? 0 : read(file.get(), text, sizeof(text));
  EventId ignored;
  const std::string position(text, static_cast<size_t>(std::max<ssize_t>(size, 0)));
  return parse_event_id(position, ignored) ? position : "";
}

// No position is better than an old one.
void write_position(const std::string& path, const std::string& position) {
  const std::string new_path = path + ".new";
  const Descriptor file(
      above_standard_streams(open(new_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600)));
  const bool is_written = file.get() >= 0 && write_fully(file.get(), position.data(), position.size()) &&
                          rename(new_path.c_str(), path.c_str()) == 0;
  if (!is_written) unlink(path.c_str());
}

// Where to go on. Both are of the same uplink, and the file's is younger as a rule.
std::string later_position(const std::string& of_file, const std::string& of_spool) {
  EventId file;
  EventId spool;
  if (!parse_event_id(of_file, file)) return of_spool;
  const bool is_behind = parse_event_id(of_spool, spool) && spool.run == file.run && spool.sequence > file.sequence;
  return is_behind ? of_spool : of_file;
}

}  // namespace

Outbox::Outbox(const UplinkSettings& all_settings, Spool& the_spool, std::string position_path, Publish publish_one)
    : settings(all_settings),
      spool(the_spool),
      position_file(std::move(position_path)),
      publish(std::move(publish_one)),
      seen(spool.is_cut() && !spool.position().empty()
               ? spool.position()
               : later_position(read_position(position_file), spool.position())) {}

// --- Taking over

void Outbox::add(UplinkRecord record, int64_t now) {
  std::string position = record.is_gap() ? record.last_id : record.id;
  hold(std::move(record), now);
  seen = std::move(position);
}

void Outbox::hold(UplinkRecord record, int64_t now) {
  held_bytes += size_of(record);
  has_urgent = has_urgent || record.urgent;
  waiting.push_back({std::move(record), seen, now, false});
}

void Outbox::pass(const std::string& id) {
  const bool is_first = seen.empty();
  seen = id;
  if (is_first) sync();  // otherwise an uplink that is killed now would begin anew
}

// --- Publishing

void Outbox::set_up(bool up) {
  is_up = up;
  next_number = 0;
  may_have_spooled = true;
  for (auto sent = in_flight.rbegin(); sent != in_flight.rend(); ++sent) {
    if (sent->number != 0) continue;
    sent->held.was_sent = true;
    waiting.push_front(std::move(sent->held));
  }
  in_flight.clear();
  held_in_flight = 0;
}

void Outbox::confirm(int token) {
  const auto sent = std::find_if(in_flight.begin(), in_flight.end(), [&](const Sent& s) { return s.token == token; });
  if (sent == in_flight.end()) return;
  if (sent->number != 0) {
    spool.acknowledge(sent->number);
    may_have_spooled = true;  // there may be room for a gap now
  } else {
    held_bytes -= size_of(sent->held.record);
    --held_in_flight;
  }
  ++counts.confirmed;
  in_flight.erase(sent);
}

void Outbox::refuse(int token, int64_t now) {
  const auto sent = std::find_if(in_flight.begin(), in_flight.end(), [&](const Sent& s) { return s.token == token; });
  if (sent == in_flight.end()) return;
  const UplinkRecord record = sent->held.record;
  confirm(token);
  --counts.confirmed;
  declare(record, now);
}

// A broker that does not take an event may take the gap in its place.
void Outbox::declare(const UplinkRecord& refused, int64_t now) {
  ++counts.refused;
  if (refused.is_gap()) return;
  UplinkRecord gap;
  gap.id = gap.last_id = refused.id;
  hold(std::move(gap), now);
}

void Outbox::run(int64_t now) {
  spool_due(now);
  if (const int64_t at = spool.sync_due(); at != 0 && at <= now) sync();
  while (publish_next(now)) {
  }
  keep_position(now);
}

// True when one was published, or need not be any more.
bool Outbox::publish_next(int64_t now) {
  return has_turn(now) && (publish_spooled(now) || (!may_have_spooled && publish_held(now)));
}

bool Outbox::has_turn(int64_t now) {
  while (!sent_at.empty() && sent_at.front() <= now - kSecond) sent_at.pop_front();
  return is_up && in_flight.size() < static_cast<size_t>(settings.in_flight) &&
         sent_at.size() < static_cast<size_t>(settings.rate);
}

bool Outbox::publish_spooled(int64_t now) {
  UplinkRecord record;
  uint64_t number = next_number;
  may_have_spooled = may_have_spooled && spool.read(number, record);
  if (!may_have_spooled) return false;
  const int token = publish_record(record, number <= highest_number, now);
  if (token == BrokerLink::kNotNow) return false;
  next_number = number + 1;
  highest_number = std::max(highest_number, number);
  if (token == BrokerLink::kNever) {
    spool.acknowledge(number);
    declare(record, now);
    return true;
  }
  record.payload.clear();
  in_flight.push_back({token, number, {std::move(record), "", now, true}});
  return true;
}

bool Outbox::publish_held(int64_t now) {
  if (waiting.empty()) return false;
  const int token = publish_record(waiting.front().record, waiting.front().was_sent, now);
  if (token == BrokerLink::kNotNow) return false;
  Held held = std::move(waiting.front());
  waiting.pop_front();
  if (token == BrokerLink::kNever) {
    held_bytes -= size_of(held.record);
    declare(held.record, now);
    return true;
  }
  in_flight.push_back({token, 0, std::move(held)});
  ++held_in_flight;
  return true;
}

int Outbox::publish_record(const UplinkRecord& record, bool again, int64_t now) {
  const std::string payload = record.is_gap() ? gap_payload(record) : record.payload;
  const std::string topic = settings.topic(record.is_gap() ? "gap" : "e/" + topic_part(record.name));
  const int token = publish(topic, payload);
  if (token <= 0) return token;
  sent_at.push_back(now);
  ++counts.published;
  counts.repeated += again ? 1 : 0;
  counts.gaps += record.is_gap() ? 1 : 0;
  counts.bytes += payload.size();
  return token;
}

// --- Writing

const Outbox::Held* Outbox::oldest_held() const {
  if (held_in_flight > 0) {
    const auto is_held = [](const Sent& sent) { return sent.number == 0; };
    return &std::find_if(in_flight.begin(), in_flight.end(), is_held)->held;
  }
  return waiting.empty() ? nullptr : &waiting.front();
}

// What is in flight keeps its token; only its acknowledgement goes to the spool.
void Outbox::spool_oldest() {
  UplinkRecord record;
  if (held_in_flight == 0) {
    held_bytes -= size_of(waiting.front().record);
    spool.append(waiting.front().record);
    waiting.pop_front();
    may_have_spooled = true;
  } else {
    const auto is_held = [](const Sent& sent) { return sent.number == 0; };
    const auto sent = std::find_if(in_flight.begin(), in_flight.end(), is_held);
    held_bytes -= size_of(sent->held.record);
    --held_in_flight;
    sent->number = spool.append(sent->held.record);
    sent->held.record.payload.clear();
    if (sent->number == 0) {  // dropped: its acknowledgement changes nothing
      in_flight.erase(sent);
    } else {
      next_number = std::max(next_number, sent->number + 1);
      highest_number = std::max(highest_number, sent->number);
    }
  }
  has_unsynced = true;
}

void Outbox::spool_all() {
  while (oldest_held() != nullptr) spool_oldest();
  has_urgent = false;
}

void Outbox::spool_due(int64_t now) {
  if (has_urgent) {
    spool_all();
    sync();
  }
  for (const Held* held = oldest_held(); held != nullptr; held = oldest_held()) {
    const bool is_late = now - held->since >= settings.hold.count();
    if (!is_late && held_bytes <= kHeldBytesMax && waiting.size() <= kHeldMax) return;
    spool_oldest();
  }
}

void Outbox::sync() {
  if (!spool.sync(safe_position())) return;
  has_unsynced = false;
  kept_at = INT64_MIN / 2;  // the file's follows at once
}

std::string Outbox::safe_position() const {
  const Held* const oldest = oldest_held();
  return oldest == nullptr ? seen : oldest->before;
}

// Whether nothing is lost when this process is killed and begins again behind safe_position().
bool Outbox::is_safe() const {
  return !has_unsynced || spool.state().records == 0;
}

void Outbox::keep_position(int64_t now) {
  if (now - kept_at < kSecond || !is_safe()) return;
  const std::string position = safe_position();
  if (position == kept) return;
  write_position(position_file, position);
  kept = position;
  kept_at = now;
}

void Outbox::save() {
  spool_all();
  sync();
  keep_position(kept_at + kSecond);
}

int64_t Outbox::due() const {
  int64_t next = INT64_MAX;
  const auto not_after = [&](int64_t at) { next = std::min(next, at); };
  if (const Held* const oldest = oldest_held()) not_after(oldest->since + settings.hold.count());
  if (spool.sync_due() != 0) not_after(spool.sync_due());
  const bool waits_for_rate = is_up && sent_at.size() >= static_cast<size_t>(settings.rate) &&
                              in_flight.size() < static_cast<size_t>(settings.in_flight);
  if (waits_for_rate && (may_have_spooled || !waiting.empty())) not_after(sent_at.front() + kSecond);
  if (is_safe() && safe_position() != kept) not_after(kept_at + kSecond);
  return next == INT64_MAX ? -1 : next;
}

Outbox::State Outbox::state() const {
  State state = counts;
  state.waiting = waiting.size() + held_in_flight;
  return state;
}
