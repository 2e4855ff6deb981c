#include "uplink/spool.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <deque>
#include <map>
#include <optional>
#include <utility>
#include <vector>

#include "device/log.h"
#include "uplink/spool_folder.h"
#include "uplink/spool_segment.h"
#include "util/clock.h"
#include "util/rate_limit.h"

namespace {

constexpr size_t kSegmentMax = size_t{256} * 1024;
constexpr size_t kMemoryMax = size_t{1024} * 1024;
constexpr size_t kSyncBytes = size_t{64} * 1024;
constexpr int64_t kSyncMs = 1000;
constexpr int64_t kSyncAcknowledgedMs = 60000;
constexpr int64_t kRetryMs = 5000;
constexpr size_t kMarkMax = 256;
constexpr size_t kFrameMax = 64;  // bytes of an item beside its texts, at most

// Numbers of events are multiples of this one. A gap gets the number behind the last record that it stands for, since
// that one may be in flight.
constexpr uint64_t kStep = 256;

// Numbers of this run are above, those of what earlier runs have left below: it may be read later than others are given.
constexpr uint64_t kOrigin = uint64_t{1} << 40;

const std::string& last_id_of(const UplinkRecord& record) {
  return record.is_gap() ? record.last_id : record.id;
}

// Makes `gap` stand for `record` too, which follows it. Without an id, it stands for nothing yet.
void extend(UplinkRecord& gap, const UplinkRecord& record) {
  const bool is_new = gap.id.empty();
  const bool is_known = record.count > 0 && (is_new || gap.count > 0);
  gap.count = is_known ? (is_new ? 0 : gap.count) + record.count : 0;
  if (is_new) gap.id = record.id;
  gap.last_id = last_id_of(record);
}

// A gap of unknown size.
UplinkRecord unknown(const std::string& id, const std::string& last_id) {
  return {id, last_id, 0, "", "", false};
}

uint64_t dropped_with(const UplinkRecord& record) {
  return record.is_gap() ? 0 : 1;
}

uint64_t seconds_now() {
  return static_cast<uint64_t>(time(nullptr));
}

size_t size_of(const UplinkRecord& record) {
  return kFrameMax + record.id.size() + record.last_id.size() + record.name.size() + record.payload.size();
}

struct Segment {
  struct Open {
    uint64_t number, since;  // as in SpoolItem
  };
  uint64_t serial = 0;               // of its file; 0: a gap, which the damage of the files before it tells of
  size_t bytes = 0;                  // of its file
  uint64_t last = 0;                 // number of its last record
  std::vector<Open> open;            // its records that are not acknowledged
  std::string first_id, last_id;     // of all of its records
  std::optional<UplinkRecord> gap;   // is its only record, whatever its file holds

  void add(const SpoolItem& item) {
    if (first_id.empty()) first_id = item.record.id;
    last_id = last_id_of(item.record);
    last = item.number;
    open.push_back({item.number, item.since});
  }
  auto find(uint64_t number) {  // the first one that is at least `number`
    return std::lower_bound(open.begin(), open.end(), number,
                            [](const Open& one, uint64_t wanted) { return one.number < wanted; });
  }
};

}  // namespace

struct Spool::Data {
  Data(std::string folder_path, size_t bytes, UplinkSettings::Full when_full)
      : path(folder_path), folder(std::move(folder_path)), limit(bytes), full(when_full) {}

  const std::string path;
  SpoolFolder folder;
  const size_t limit;
  const UplinkSettings::Full full;
  const size_t segment_max = std::min(kSegmentMax, limit / 4);
  const size_t memory_max = std::min(kMemoryMax, limit / 2);

  std::deque<Segment> segments;           // what is in the folder, the oldest first
  std::map<uint64_t, SpoolItem> pending;  // what is not, and is younger
  size_t pending_bytes = 0;
  UplinkRecord refused;  // what was dropped last; without an id: nothing

  uint64_t last = kOrigin;          // number that was given
  uint64_t last_written = kOrigin;  // number in the files
  uint64_t shift = 0;               // a number less the same number in the files
  uint64_t last_serial = 0;
  bool is_taken_up = false;   // what an earlier run has left
  bool is_cut = false;        // the end of that
  bool is_writable = false;   // the last segment
  uint64_t loaded_serial = 0; // of the segment with
  std::map<uint64_t, UplinkRecord> loaded;

  int64_t pending_at = 0;       // steady_ms() when the first of `pending` came,
  int64_t acknowledged_at = 0;  // of the first acknowledgement that no mark tells of (0: there is none),
  int64_t retry_at = 0;         // and from when on the folder is tried again
  std::string position;  // in the files
  std::string kept;      // of what is there or in `pending`, before anything that was refused
  State counts;
  RateLimit limit_of_lines;

  // Records
  uint64_t add(const UplinkRecord& record);
  void put_pending(SpoolItem item);
  std::map<uint64_t, SpoolItem>::iterator drop_pending(std::map<uint64_t, SpoolItem>::iterator at);
  bool make_room(size_t size);
  void add_refused();
  const UplinkRecord* find(const Segment& segment, uint64_t number);
  void load(const Segment& segment);
  void lose(Segment& segment);
  SpoolItem fold(size_t count);
  bool drop(size_t needed);
  void remove_front(bool with_file);
  void remove_acknowledged();
  bool are_witnesses(size_t end) const;
  uint64_t acknowledged() const;

  // The folder
  bool open();
  void take_up();
  bool take_file(uint64_t serial, SpoolItem& before, SpoolItem& mark);
  void put_loss(const SpoolItem& before, const SpoolItem& mark, std::string_view bytes, size_t at);
  bool flush();
  bool write_gap(Segment& segment);
  bool write_batch();
  std::string bytes_of(SpoolItem item) const;
  std::string mark(uint64_t number, const std::string& at_position) const;
  bool fail(const char* reason);
};

Spool::Spool(std::string folder, size_t bytes, UplinkSettings::Full full)
    : data(new Data(std::move(folder), bytes, full)) {
  data->open();
}

Spool::~Spool() {
  delete data;
}

// --- Records

uint64_t Spool::append(const UplinkRecord& record) {
  const size_t size = size_of(record);
  const bool is_too_large = size > std::min(kSpoolBodyMax, data->limit / 4);
  if (data->refused.id.empty() && !is_too_large && data->make_room(size)) return data->add(record);
  extend(data->refused, record);
  data->counts.dropped += dropped_with(record);
  data->add_refused();
  return 0;
}

bool Spool::read(uint64_t& number, UplinkRecord& out) {
  for (Segment& segment : data->segments) {
    auto at = segment.find(number);
    if (at == segment.open.end()) continue;
    const UplinkRecord* found = data->find(segment, at->number);
    if (found == nullptr) {  // its file was damaged or removed behind our back
      data->lose(segment);
      at = segment.open.begin();
      found = &*segment.gap;
    }
    number = at->number;
    out = *found;
    return true;
  }
  const auto at = data->pending.lower_bound(number);
  if (at == data->pending.end()) return false;
  number = at->first;
  out = at->second.record;
  return true;
}

void Spool::acknowledge(uint64_t number) {
  const auto waits = data->pending.find(number);
  if (waits != data->pending.end()) {
    data->drop_pending(waits);
  } else {
    for (Segment& segment : data->segments) {
      const auto at = segment.find(number);
      if (at == segment.open.end() || at->number != number) continue;
      segment.open.erase(at);
      if (data->acknowledged_at == 0) data->acknowledged_at = steady_ms();
      data->remove_acknowledged();
      break;
    }
  }
  data->add_refused();
}

Spool::State Spool::state() const {
  State state = data->counts;
  state.records = data->pending.size();
  if (!data->pending.empty()) state.oldest_s = static_cast<int64_t>(data->pending.begin()->second.since);
  for (auto segment = data->segments.rbegin(); segment != data->segments.rend(); ++segment) {
    state.records += segment->open.size();
    if (!segment->open.empty()) state.oldest_s = static_cast<int64_t>(segment->open.front().since);
  }
  return state;
}

uint64_t Spool::Data::add(const UplinkRecord& record) {
  last += kStep;
  kept = last_id_of(record);
  put_pending({last, false, seconds_now(), record});
  return last;
}

void Spool::Data::put_pending(SpoolItem item) {
  if (pending.empty()) pending_at = steady_ms();
  pending_bytes += size_of(item.record);
  const uint64_t number = item.number;
  pending.emplace(number, std::move(item));
}

std::map<uint64_t, SpoolItem>::iterator Spool::Data::drop_pending(std::map<uint64_t, SpoolItem>::iterator at) {
  pending_bytes -= size_of(at->second.record);
  return pending.erase(at);
}

// Makes room in memory, by a sync or else by a gap in the place of the two oldest. The folder gets its room in flush().
bool Spool::Data::make_room(size_t size) {
  if (full == UplinkSettings::Full::drop_newest && counts.bytes + pending_bytes + size > limit) return false;
  if (pending_bytes + size <= memory_max) return true;
  if (!counts.in_memory && flush()) return true;
  if (full == UplinkSettings::Full::drop_newest) return false;
  while (pending_bytes + size > memory_max && pending.size() > 1) {
    SpoolItem gap{0, false, pending.begin()->second.since, {}};
    for (int i = 0; i < 2; ++i) {
      const SpoolItem& oldest = pending.begin()->second;
      gap.number = oldest.number + 1;
      extend(gap.record, oldest.record);
      counts.dropped += dropped_with(oldest.record);
      drop_pending(pending.begin());
    }
    put_pending(std::move(gap));
  }
  return pending_bytes + size <= memory_max;
}

void Spool::Data::add_refused() {
  if (!refused.id.empty() && make_room(size_of(refused))) add(std::exchange(refused, {}));
}

// Null when it cannot be read.
const UplinkRecord* Spool::Data::find(const Segment& segment, uint64_t number) {
  if (segment.gap) return &*segment.gap;
  if (loaded_serial != segment.serial) load(segment);
  const auto found = loaded.find(number);
  return found == loaded.end() ? nullptr : &found->second;
}

void Spool::Data::load(const Segment& segment) {
  loaded_serial = segment.serial;
  loaded.clear();
  std::string bytes;
  if (!folder.read(segment.serial, bytes)) return;
  size_t at = kSegmentHead.size();
  for (SpoolItem item; read_item(bytes, at, item);) {
    if (!item.is_mark) loaded.emplace(item.number + shift, std::move(item.record));
  }
}

// Puts a gap in the place of a segment that cannot be read. The next sync writes it.
void Spool::Data::lose(Segment& segment) {
  counts.dropped += segment.open.size();
  counts.bytes -= std::exchange(segment.bytes, 0);
  segment.gap = unknown(segment.first_id, segment.last_id);
  segment.open = {{++segment.last, segment.open.front().since}};
  if (&segment == &segments.back()) is_writable = false;
  if (acknowledged_at == 0) acknowledged_at = steady_ms();
}

// One gap for what the oldest segments hold.
SpoolItem Spool::Data::fold(size_t count) {
  SpoolItem gap;
  for (size_t i = 0; i < count; ++i) {
    gap.number = std::max(gap.number, segments[i].last + 1);
    for (const Segment::Open& one : segments[i].open) {
      const UplinkRecord* const found = find(segments[i], one.number);
      const UplinkRecord lost = found != nullptr ? *found : unknown(segments[i].first_id, segments[i].last_id);
      extend(gap.record, lost);
      counts.dropped += found != nullptr ? dropped_with(lost) : 1;
      if (gap.since == 0) gap.since = one.since;
    }
  }
  return gap;
}

// Puts a gap in the place of so many of the oldest segments as it takes to make room, but not of the last one.
bool Spool::Data::drop(size_t needed) {
  size_t count = 0;
  Segment place;
  for (size_t freed = 0; count + 1 < segments.size() && (freed < needed + kMarkMax || are_witnesses(count)); ++count) {
    freed += segments[count].bytes;
    place.serial = std::max(place.serial, segments[count].serial);
  }
  const uint64_t dropped_before = counts.dropped;
  const SpoolItem gap = fold(count);
  if (!gap.record.id.empty()) {
    place.add(gap);
    place.gap = gap.record;
    if (!write_gap(place)) {
      counts.dropped = dropped_before;
      return false;
    }
  }
  for (; count > 0; --count) remove_front(segments.front().serial != place.serial || !place.gap);
  if (place.gap) segments.push_front(std::move(place));
  return true;
}

void Spool::Data::remove_front(bool with_file) {
  counts.bytes -= segments.front().bytes;
  if (with_file && segments.front().serial != 0) folder.remove(segments.front().serial);
  segments.pop_front();
}

void Spool::Data::remove_acknowledged() {
  while (segments.size() > 1 && segments.front().open.empty() && !are_witnesses(1)) remove_front(true);
}

// Whether the files before this segment are needed after a crash: the gap that follows is in no file, they tell of it.
bool Spool::Data::are_witnesses(size_t end) const {
  while (end < segments.size() && segments[end].open.empty()) ++end;
  return end < segments.size() && segments[end].serial == 0;
}

// All numbers up to this one are. Before a gap, this is the last event that it may stand for.
uint64_t Spool::Data::acknowledged() const {
  const auto before = [](uint64_t open) { return open % kStep == 0 ? open - 1 : open - open % kStep; };
  for (const Segment& segment : segments) {
    if (!segment.open.empty()) return before(segment.open.front().number);
  }
  return pending.empty() ? last : before(pending.begin()->first);
}

// --- The folder

// Opens it, for the first time or again. What a folder that was removed held is lost.
bool Spool::Data::open() {
  const SpoolFolder::Opened opened = folder.open();
  if (opened == SpoolFolder::Opened::still) return true;
  if (opened == SpoolFolder::Opened::failed) {
    return fail(errno == EWOULDBLOCK ? "another process uses it" : strerrordesc_np(errno));
  }
  if (!std::exchange(is_taken_up, true)) {
    take_up();
    return true;
  }
  if (!folder.serials().empty()) {
    folder.close();
    return fail("it was replaced by a folder that holds segments");
  }
  is_writable = false;
  loaded_serial = 0;
  SpoolItem gap = fold(segments.size());
  segments.clear();
  counts.bytes = 0;
  if (!gap.record.id.empty()) put_pending(std::move(gap));
  return true;
}

// Takes up what an earlier run has left.
void Spool::Data::take_up() {
  SpoolItem before;  // the last record read
  SpoolItem mark;
  for (const uint64_t serial : folder.serials()) {
    if (!take_file(serial, before, mark)) {
      elog(1, "uplink: spool: left %s/%s alone, which is not a segment", path.c_str(),
           SpoolFolder::file_of(serial).c_str());
    }
    last_serial = serial;
  }
  position = mark.record.id;
  if (kept.empty()) kept = position;
  const uint64_t highest = std::max(before.number, mark.record.count);
  shift = kOrigin - (highest + kStep - 1) / kStep * kStep;
  last_written = before.number + shift;
  for (Segment& segment : segments) {
    const auto end = segment.find(mark.record.count + 1);
    segment.open.erase(segment.open.begin(), end);
    segment.last += shift;
    for (Segment::Open& one : segment.open) one.number += shift;
    if (segment.serial == 0) counts.dropped += segment.open.size();
    counts.bytes += segment.bytes;
  }
  remove_acknowledged();
}

// A file counts up to its first item that is not whole. A mark behind it tells whether records are missing: a gap then
// stands for them. Before the first file they are not: those were acknowledged. False: this is not a segment.
bool Spool::Data::take_file(uint64_t serial, SpoolItem& before, SpoolItem& mark) {
  std::string bytes;
  const bool is_ours = folder.read(serial, bytes) && bytes.substr(0, kSegmentHead.size()) == kSegmentHead.substr(0, bytes.size());
  Segment segment;
  segment.serial = serial;
  segment.bytes = bytes.size();
  size_t at = kSegmentHead.size();
  for (SpoolItem item; is_ours && read_item(bytes, at, item);) {
    const bool is_behind_loss = item.is_mark && last_serial != 0 && item.number > before.number;
    before.number = std::max(before.number, item.number);
    if (is_behind_loss) put_loss(before, item, bytes, at);
    if (item.is_mark) {
      mark = item;
    } else {
      segment.add(item);
      before = std::move(item);
    }
  }
  is_cut = at != bytes.size();
  if (is_ours) segments.push_back(std::move(segment));
  return is_ours;
}

// Adds the gap between the last record and this mark. What is missing ends before the next record, or at the latest with
// the position. Where nothing before it is known, any event of that run of the daemon may be missing.
void Spool::Data::put_loss(const SpoolItem& before, const SpoolItem& mark, std::string_view bytes, size_t at) {
  SpoolItem next = mark;
  while (next.is_mark && read_item(bytes, at, next)) {
  }
  const std::string& behind = next.record.id;
  const std::string first_of_run = behind.substr(0, behind.rfind('-') + 1) + "0";
  Segment lost;
  lost.gap = unknown(before.record.id.empty() ? first_of_run : last_id_of(before.record),
                     behind.empty() ? last_id_of(before.record) : behind);
  lost.last = mark.number + kStep / 2;  // above that of a gap which cannot be read
  lost.open = {{lost.last, seconds_now()}};
  if (lost.gap->is_gap()) segments.push_back(std::move(lost));
}

bool Spool::sync(std::string_view position) {
  data->add_refused();
  const bool is_refusing = !data->refused.id.empty();
  if (!is_refusing) data->kept = position;
  const bool is_written = data->pending.empty() && data->acknowledged_at == 0 && data->kept == data->position;
  if (is_written && !data->counts.in_memory) return !is_refusing;
  if (data->counts.in_memory && steady_ms() < data->retry_at) return false;
  return data->flush() && !is_refusing;
}

int64_t Spool::sync_due() const {
  int64_t due = 0;
  if (!data->pending.empty()) {
    due = data->pending_at + (data->pending_bytes >= std::min(kSyncBytes, data->memory_max / 2) ? 0 : kSyncMs);
  } else if (data->acknowledged_at != 0) {
    due = data->acknowledged_at + kSyncAcknowledgedMs;
  }
  return data->counts.in_memory ? std::max(due, data->retry_at) : due;
}

const std::string& Spool::position() const {
  return data->position;
}

bool Spool::is_cut() const {
  return data->is_cut;
}

bool Spool::Data::flush() {
  if (!open()) return false;
  for (Segment& segment : segments) {
    if (segment.serial != 0 && segment.gap && segment.bytes == 0 && !write_gap(segment)) return false;
  }
  const size_t size = counts.bytes + pending_bytes + kMarkMax;
  if (full == UplinkSettings::Full::drop_oldest && size > limit && !drop(size - limit)) return false;
  do {
    if (!write_batch()) return false;
  } while (!pending.empty());
  if (counts.in_memory) elog(1, "uplink: spool: %s takes records again", path.c_str());
  counts.in_memory = false;
  counts.error.clear();
  position = kept;
  acknowledged_at = 0;
  remove_acknowledged();
  return true;
}

// Puts a file with the segment's gap in the place of its file.
bool Spool::Data::write_gap(Segment& segment) {
  const Segment::Open& open = segment.open.front();
  const std::string bytes = std::string(kSegmentHead) + bytes_of({open.number, false, open.since, *segment.gap}) +
                            mark(open.number, position);
  if (!folder.replace(segment.serial, bytes)) return fail(strerrordesc_np(errno));
  segment.bytes = bytes.size();
  counts.bytes += bytes.size();
  counts.written += bytes.size();
  ++counts.syncs;
  return true;
}

// Writes as many records as the last segment takes, or a new one, and behind the last record a mark.
bool Spool::Data::write_batch() {
  is_writable = is_writable && segments.back().bytes + kMarkMax <= segment_max;
  if (!is_writable) {
    segments.emplace_back();
    segments.back().serial = ++last_serial;
  }
  Segment& segment = segments.back();
  std::string bytes = is_writable ? "" : std::string(kSegmentHead) + mark(last_written, position);
  uint64_t number = last_written;
  auto end = pending.begin();
  for (; end != pending.end(); number = end->first, ++end) {
    const std::string piece = bytes_of(end->second);
    const bool is_needed = !is_writable && end == pending.begin();
    if (!is_needed && segment.bytes + bytes.size() + piece.size() + kMarkMax > segment_max) break;
    bytes += piece;
  }
  const bool is_all = end == pending.end();
  if (is_all) bytes += mark(number, kept);
  if (!folder.write(segment.serial, segment.bytes, bytes)) {
    const int error = errno;
    if (segment.bytes == 0) segments.pop_back();
    is_writable = false;
    return fail(strerrordesc_np(error));
  }
  segment.bytes += bytes.size();
  counts.bytes += bytes.size();
  counts.written += bytes.size();
  ++counts.syncs;
  last_written = number;
  for (auto at = pending.begin(); at != end; at = drop_pending(at)) {
    segment.add(at->second);
    if (loaded_serial == segment.serial) loaded.emplace(at->first, at->second.record);
  }
  is_writable = is_all;
  return true;
}

std::string Spool::Data::bytes_of(SpoolItem item) const {
  item.number -= shift;
  std::string bytes;
  write_item(item, bytes);
  return bytes;
}

std::string Spool::Data::mark(uint64_t number, const std::string& at_position) const {
  SpoolItem item{number, true, 0, {}};
  item.record.id = at_position;
  item.record.count = acknowledged() - shift;
  return bytes_of(item);
}

bool Spool::Data::fail(const char* reason) {
  if (!counts.in_memory || counts.error != reason) {
    if (const auto left_out = limit_of_lines.allow()) {
      elog(1, "uplink: spool: %s does not take records, they are kept in memory: %s%s", path.c_str(), reason,
           left_out->text);
    }
  }
  counts.in_memory = true;
  counts.error = reason;
  retry_at = steady_ms() + kRetryMs;
  return false;
}
