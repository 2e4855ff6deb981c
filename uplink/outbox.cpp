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
constexpr int kUnsent = 0;            // a token

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
  std::string position = record.end_id();
  held_bytes += size_of(record);
  has_urgent = has_urgent || record.urgent;
  waiting.push_back({std::move(record), std::exchange(seen, std::move(position)), now, false});
}

void Outbox::pass(const std::string& id) {
  const bool is_first = seen.empty();
  seen = id;
  if (is_first) sync();  // otherwise an uplink that is killed now would begin anew
}

// --- Publishing

void Outbox::set_up(bool up) {
  is_up = up;
  for (auto sent = in_flight.rbegin(); sent != in_flight.rend(); ++sent) {
    if (sent->number != 0) continue;
    sent->held.was_sent = sent->held.was_sent || sent->token != kUnsent;
    waiting.push_front(std::move(sent->held));
  }
  in_flight.clear();
  held_in_flight = 0;
}

Outbox::Flight::iterator Outbox::find(int token) {
  return std::find_if(in_flight.begin(), in_flight.end(), [&](const Sent& sent) { return sent.token == token; });
}

void Outbox::confirm(int token) {
  const auto sent = find(token);
  if (sent == in_flight.end()) return;
  ++counts.confirmed;
  finish(sent);
}

void Outbox::finish(const Flight::iterator& sent) {
  if (sent->number != 0) {
    spool.acknowledge(sent->number);
  } else {
    held_bytes -= size_of(sent->held.record);
    --held_in_flight;
  }
  in_flight.erase(sent);
}

void Outbox::refuse(int token) {
  if (const auto sent = find(token); sent != in_flight.end()) declare(sent);
}

// A broker that does not take an event may take a gap in its place. Until that is confirmed, the spool and the position
// go by the event: an uplink that is killed sends it again.
void Outbox::declare(const Flight::iterator& refused) {
  ++counts.refused;
  UplinkRecord& record = refused->held.record;
  if (record.is_gap()) return finish(refused);
  if (refused->number == 0) held_bytes -= record.name.size() + record.payload.size();
  record.last_id = record.id;
  record.name.clear();
  record.payload.clear();
  refused->token = kUnsent;
}

void Outbox::run(int64_t now, const std::function<bool()>& publish_other) {
  spool_due(now);
  if (const int64_t at = spool.sync_due(); at != 0 && at <= now) sync();
  publish_due(now, publish_other);
  keep_position(now);
}

void Outbox::publish_due(int64_t now, const std::function<bool()>& publish_other) {
  bool may_have_own = true;
  bool may_have_other = publish_other != nullptr;
  while (has_rate(now) && is_up && (may_have_own || may_have_other)) {
    if (may_have_other && (is_turn_of_other || !may_have_own)) {
      may_have_other = publish_other();
      if (may_have_other) sent_at.push_back(now);
      is_turn_of_other = false;
    } else {
      may_have_own = publish_next(now);
      is_turn_of_other = true;
    }
  }
}

bool Outbox::has_rate(int64_t now) {
  while (!sent_at.empty() && sent_at.front() <= now - kSecond) sent_at.pop_front();
  return sent_at.size() < static_cast<size_t>(settings.rate);
}

// Returns true when one was published, or never will be.
bool Outbox::publish_next(int64_t now) {
  if (find(kUnsent) == in_flight.end() && !take_next(now)) return false;
  const auto next = find(kUnsent);
  const UplinkRecord& record = next->held.record;
  const std::string payload = record.is_gap() ? gap_payload(record) : record.payload;
  const int token = publish(settings.topic(record.is_gap() ? "gap" : "e/" + topic_part(record.name)), payload);
  if (token == BrokerLink::kNotNow) return false;
  if (token == BrokerLink::kNever) return declare(next), true;
  next->token = token;
  sent_at.push_back(now);
  ++counts.published;
  counts.repeated += next->held.was_sent ? 1 : 0;
  counts.gaps += record.is_gap() ? 1 : 0;
  counts.bytes += payload.size();
  if (next->number != 0) next->held.record.payload.clear();
  return true;
}

// Puts the next record behind those in flight. False: there is none, or no place.
bool Outbox::take_next(int64_t now) {
  if (in_flight.size() >= static_cast<size_t>(settings.in_flight)) return false;
  uint64_t number = 0;
  if (const UplinkRecord* const record = next_spooled(number)) {
    in_flight.push_back({kUnsent, number, {*record, "", now, number <= highest_number}});
    highest_number = std::max(highest_number, number);
    return true;
  }
  if (waiting.empty()) return false;
  in_flight.push_back({kUnsent, 0, std::move(waiting.front())});
  waiting.pop_front();
  ++held_in_flight;
  return true;
}

// The first record of the spool that is not on its way; null: there is none.
const UplinkRecord* Outbox::next_spooled(uint64_t& number) {
  const auto is_on_its_way = [&](const Sent& sent) { return sent.number == number; };
  const UplinkRecord* record = spool.read(number);
  while (record != nullptr && std::any_of(in_flight.begin(), in_flight.end(), is_on_its_way)) {
    record = spool.read(++number);
  }
  return record;
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
  } else {
    const auto is_held = [](const Sent& sent) { return sent.number == 0; };
    const auto sent = std::find_if(in_flight.begin(), in_flight.end(), is_held);
    held_bytes -= size_of(sent->held.record);
    --held_in_flight;
    sent->number = spool.append(sent->held.record);
    highest_number = std::max(highest_number, sent->number);
    if (sent->token != kUnsent) sent->held.record.payload.clear();
    if (sent->number == 0) in_flight.erase(sent);  // dropped: its acknowledgement changes nothing
  }
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
  if (spool.sync(safe_position())) kept_at = INT64_MIN / 2;  // the file's follows at once
}

std::string Outbox::safe_position() const {
  const Held* const oldest = oldest_held();
  return oldest == nullptr ? seen : oldest->before;
}

void Outbox::keep_position(int64_t now) {
  if (now - kept_at < kSecond || !spool.is_synced()) return;
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
  if (sent_at.size() >= static_cast<size_t>(settings.rate)) not_after(sent_at.front() + kSecond);
  if (spool.is_synced() && safe_position() != kept) not_after(kept_at + kSecond);
  return next == INT64_MAX ? -1 : next;
}

Outbox::State Outbox::state() const {
  State state = counts;
  state.waiting = waiting.size() + held_in_flight;
  return state;
}
