#include "uplink/spool.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <map>
#include <utility>
#include <vector>

#include "device/log.h"
#include "uplink/number_ranges.h"
#include "uplink/spool_folder.h"
#include "uplink/spool_scan.h"
#include "uplink/spool_segment.h"
#include "util/clock.h"
#include "util/rate_limit.h"

namespace {

constexpr size_t kSegmentMax = size_t{256} * 1024;
constexpr size_t kFileMax = 2 * kSpoolBodyMax;  // a larger file is none of ours
constexpr size_t kMemoryMax = size_t{1024} * 1024;
constexpr size_t kSyncBytes = size_t{64} * 1024;
constexpr int64_t kSyncMs = 1000;
constexpr int64_t kSyncSettledMs = 60000;  // when there are only acknowledgements to be written
constexpr int64_t kRetryMs = 5000;
constexpr size_t kMarkMax = 256;
constexpr size_t kFrameMax = 64;  // bytes of an item beside its texts, at most

// The first number of a run. Those of what earlier runs have left are below: the folder may be readable only later.
constexpr uint64_t kFirstNumber = uint64_t{1} << 40;

// Makes `gap` stand for `record` too, which follows it. Without an id, it stands for nothing yet.
void extend(UplinkRecord& gap, const UplinkRecord& record) {
  const bool is_new = gap.id.empty();
  const bool is_known = record.count > 0 && (is_new || gap.count > 0);
  gap.count = is_known ? (is_new ? 0 : gap.count) + record.count : 0;
  if (is_new) gap.id = record.id;
  gap.last_id = record.is_gap() ? record.last_id : record.id;
}

size_t size_of(const UplinkRecord& record) {
  return kFrameMax + record.id.size() + record.last_id.size() + record.name.size() + record.payload.size();
}

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

  uint64_t origin = kFirstNumber;  // the lowest number that there is
  uint64_t next = kFirstNumber;    // of the next record
  uint64_t shift = 0;              // a number less the same number in the files
  NumberRanges settled;            // numbers from origin to next that are acknowledged, or of no record

  bool is_taken_up = false;       // what an earlier run has left
  std::vector<Segment> segments;  // by serial
  uint64_t current = 0;           // serial of the one that is written to; 0: there is none
  uint64_t keeper = 0;            // serial of the one with the last mark
  uint64_t cached = 0;            // serial of the one whose bytes these are,
  std::string cache;
  std::map<uint64_t, size_t> cached_items;  // where its items begin,
  size_t cached_end = 0;                    // and where they end

  std::map<uint64_t, SpoolItem> memory;  // records that are in no segment
  size_t memory_bytes = 0;
  int64_t memory_since = 0;   // steady_ms() when the first one came
  int64_t settled_since = 0;  // of the first acknowledgement that no mark tells of; 0: there is none
  UplinkRecord refused;       // the gap of what was dropped last; without an id: there is none
  std::string last_kept;      // the position before that gap
  std::string written_position;

  State counts;
  int64_t retry_at = 0;
  RateLimit limit_of_lines;

  uint64_t live(uint64_t number) const { return settled.next_missing(std::max(number, origin)); }
  bool is_settled(const Segment& segment) const { return segment.first == 0 || live(segment.first) > segment.last; }
  bool has_room(size_t size) const {
    return memory_bytes + size <= memory_max && counts.bytes + memory_bytes + size <= limit;
  }

  void keep(uint64_t number, UplinkRecord record, uint64_t seconds);
  void forget(uint64_t number);
  void settle(uint64_t number) { settled.add(number, number); }

  void keep_refused();
  bool make_room(size_t size);
  bool drop_segment();
  bool drop_memory();
  void lose(size_t index);
  void merge_head(uint64_t number);

  bool find(uint64_t number, SpoolItem& out);
  bool find_in(const Segment& segment, uint64_t number, SpoolItem& out);
  bool is_elsewhere(uint64_t number, const Segment& segment) const;
  void remove_settled();

  bool open();
  void take_up();
  bool flush();
  bool write_gaps();
  bool write_batch();
  bool write(std::string bytes, Segment& grown, bool goes_on);
  std::string encoded(SpoolItem item) const;
  bool fail(const char* reason);
};

Spool::Spool(std::string folder, size_t bytes, UplinkSettings::Full full)
    : data(new Data(std::move(folder), bytes, full)) {
  data->open();
}

Spool::~Spool() {
  delete data;
}

// --- Adding, reading, acknowledging

uint64_t Spool::append(const UplinkRecord& record) {
  data->keep_refused();
  const size_t size = size_of(record);
  const bool refuse = !data->refused.id.empty() || size > std::min(kSpoolBodyMax, data->limit / 4) ||
                      (!data->has_room(size) && !data->make_room(size));
  if (refuse) {
    extend(data->refused, record);
    if (!record.is_gap()) data->counts.dropped += record.count;
    data->keep_refused();
    return 0;
  }
  const uint64_t number = data->next++;
  data->keep(number, record, static_cast<uint64_t>(time(nullptr)));
  data->last_kept = record.is_gap() ? record.last_id : record.id;
  return number;
}

bool Spool::read(uint64_t& number, UplinkRecord& out) {
  for (uint64_t at = data->live(number); at < data->next; at = data->live(number)) {
    SpoolItem item;
    if (data->find(at, item)) {
      number = at;
      out = std::move(item.record);
      return true;
    }
    // Its segment was damaged or removed behind our back.
    const auto lost = std::find_if(data->segments.begin(), data->segments.end(),
                                   [&](const Segment& s) { return s.first <= at && at <= s.last; });
    if (lost == data->segments.end()) {
      data->settle(at);
    } else {
      data->lose(static_cast<size_t>(lost - data->segments.begin()));
    }
  }
  return false;
}

void Spool::acknowledge(uint64_t number) {
  if (number == 0 || number >= data->next || data->settled.contains(number)) return;
  if (data->memory.count(number) == 0 && data->settled_since == 0) data->settled_since = steady_ms();
  data->forget(number);
  data->settle(number);
  data->remove_settled();
  data->keep_refused();
}

void Spool::Data::keep(uint64_t number, UplinkRecord record, uint64_t seconds) {
  if (memory.empty()) memory_since = steady_ms();
  memory_bytes += size_of(record);
  memory[number] = SpoolItem{number, false, seconds, std::move(record)};
}

void Spool::Data::forget(uint64_t number) {
  const auto found = memory.find(number);
  if (found == memory.end()) return;
  memory_bytes -= size_of(found->second.record);
  memory.erase(found);
}

// --- When it is full

// The gap of what was refused becomes a record as soon as there is room. Until then no position behind it is written:
// an uplink that starts again then asks the daemon for these events.
void Spool::Data::keep_refused() {
  const size_t size = size_of(refused);
  if (refused.id.empty() || (!has_room(size) && !make_room(size))) return;
  last_kept = refused.last_id;
  keep(next++, std::exchange(refused, {}), static_cast<uint64_t>(time(nullptr)));
}

bool Spool::Data::make_room(size_t size) {
  if (full == UplinkSettings::Full::drop_newest) return false;
  while (!has_room(size)) {
    const bool done = memory_bytes + size > memory_max ? drop_memory() : drop_segment() || drop_memory();
    if (!done) return false;
  }
  return true;
}

// Drops the oldest segment, but for the one that is written to or has the last mark. False: there is none.
bool Spool::Data::drop_segment() {
  size_t oldest = segments.size();
  for (size_t i = 0; i < segments.size(); ++i) {
    const Segment& segment = segments[i];
    if (segment.is_gap || segment.serial == keeper || segment.serial == current) continue;
    if (oldest == segments.size() || segment.first < segments[oldest].first) oldest = i;
  }
  if (oldest == segments.size()) return false;
  lose(oldest);
  return true;
}

// Joins the two oldest records that are only in memory. False: there are not two.
bool Spool::Data::drop_memory() {
  uint64_t written = 0;
  for (const Segment& segment : segments) written = std::max(written, segment.last);
  const auto first = memory.upper_bound(written);
  if (first == memory.end() || std::next(first) == memory.end()) return false;
  const auto second = std::next(first);
  SpoolItem gap;
  gap.value = first->second.value;
  for (const auto& part : {first, second}) {
    extend(gap.record, part->second.record);
    if (!part->second.record.is_gap()) counts.dropped += part->second.record.count;
  }
  const uint64_t number = second->first;
  settle(first->first);
  forget(first->first);
  forget(number);
  keep(number, std::move(gap.record), gap.value);
  return true;
}

// Puts a gap in the place of what the segment holds and is not acknowledged, then removes the file.
void Spool::Data::lose(size_t index) {
  const Segment segment = segments[index];
  UplinkRecord gap;
  uint64_t seconds = 0;
  uint64_t unreadable = 0;
  uint64_t number = 0;  // of the gap: the last one that it stands for
  for (uint64_t at = live(segment.first); at <= segment.last; at = live(at + 1)) {
    if (is_elsewhere(at, segment)) continue;
    if (number != 0) settle(number);
    number = at;
    SpoolItem item;
    if (find_in(segment, at, item)) {
      if (seconds == 0) seconds = item.value;
      extend(gap, item.record);
      if (!item.record.is_gap()) counts.dropped += item.record.count;
    } else {
      ++unreadable;
    }
  }
  if (unreadable > 0) {
    UplinkRecord rest;
    rest.id = segment.first_id;
    rest.last_id = segment.last_id;
    rest.count = unreadable;
    extend(gap, rest);
    counts.dropped += unreadable;
  }
  segments.erase(segments.begin() + static_cast<std::ptrdiff_t>(index));
  if (number != 0) {
    keep(number, std::move(gap), seconds != 0 ? seconds : static_cast<uint64_t>(time(nullptr)));
    merge_head(number);
    write_gaps();
  }
  if (segment.serial == current) current = 0;
  folder.remove(segment.serial);
  counts.bytes -= segment.bytes;
  remove_settled();
}

// When all that is before the gap `number` is another gap, it becomes a part of it.
void Spool::Data::merge_head(uint64_t number) {
  const uint64_t head = live(0);
  SpoolItem before;
  if (head >= number || live(head + 1) != number || !find(head, before) || !before.record.is_gap()) return;
  const SpoolItem behind = memory[number];
  extend(before.record, behind.record);
  settle(head);
  forget(head);
  forget(number);
  keep(number, std::move(before.record), before.value);
}

// --- What is in the files

bool Spool::Data::find(uint64_t number, SpoolItem& out) {
  const auto found = memory.find(number);
  if (found != memory.end()) return out = found->second, true;
  return std::any_of(segments.begin(), segments.end(), [&](const Segment& segment) {
    return segment.first <= number && number <= segment.last && find_in(segment, number, out);
  });
}

bool Spool::Data::find_in(const Segment& segment, uint64_t number, SpoolItem& out) {
  if (cached != segment.serial) {
    cached = segment.serial;
    cache.clear();
    cached_items.clear();
    cached_end = kSegmentHead.size();
  }
  if (cache.size() < segment.bytes && folder.read(segment.serial, segment.bytes, cache)) {
    SpoolItem item;
    bool passed = false;
    for (size_t begin = cached_end; read_item(cache, cached_end, item, passed); begin = cached_end) {
      if (!item.is_mark) cached_items[item.number + shift] = begin;
    }
  }
  const auto found = cached_items.find(number);
  if (found == cached_items.end()) return false;
  size_t at = found->second;
  bool passed = false;
  return read_item(cache, at, out, passed);
}

// Whether the record `number` is not the segment's, though within its numbers: a gap in the place of what is damaged.
bool Spool::Data::is_elsewhere(uint64_t number, const Segment& segment) const {
  return memory.count(number) != 0 || std::any_of(segments.begin(), segments.end(), [&](const Segment& other) {
           return other.serial != segment.serial && other.first <= number && number <= other.last;
         });
}

void Spool::Data::remove_settled() {
  const auto is_done = [&](const Segment& segment) {
    if (segment.serial == keeper || segment.serial == current || !is_settled(segment)) return false;
    folder.remove(segment.serial);
    counts.bytes -= segment.bytes;
    return true;
  };
  segments.erase(std::remove_if(segments.begin(), segments.end(), is_done), segments.end());
}

// Opens the folder, for the first time or again. What a folder that was removed held is lost.
bool Spool::Data::open() {
  const SpoolFolder::Opened opened = folder.open();
  if (opened == SpoolFolder::Opened::still) return true;
  if (opened == SpoolFolder::Opened::failed) {
    return fail(errno == EWOULDBLOCK ? "another process uses it" : strerrordesc_np(errno));
  }
  current = 0;
  keeper = 0;
  cached = 0;
  if (!is_taken_up) {
    take_up();
    is_taken_up = true;
    return true;
  }
  if (!folder.serials().empty()) {
    folder.close();
    return fail("it was replaced by a folder that holds segments");
  }
  while (!segments.empty()) lose(0);
  return true;
}

// Takes up what an earlier run has left.
void Spool::Data::take_up() {
  SpoolScan scan;
  for (const uint64_t serial : folder.serials()) {
    std::string bytes;
    const bool is_read = folder.read(serial, kFileMax, bytes) && bytes.size() < kFileMax;
    if (scan.take_file(serial, is_read ? bytes : "")) continue;
    // A file that was made and not written yet, or one that is not ours.
    const bool is_ours = is_read && kSegmentHead.substr(0, bytes.size()) == std::string_view(bytes).substr(0, 8);
    if (is_ours) {
      folder.remove(serial);
    } else {
      elog(1, "spool: %s/%016llx.seg is left alone: it is not a segment that can be read", path.c_str(),
           static_cast<unsigned long long>(serial));
    }
  }
  scan.finish();
  if (scan.torn != 0) folder.cut(scan.torn, scan.torn_at);

  shift = kFirstNumber - scan.next;
  origin = 1 + shift;
  keeper = scan.keeper;
  written_position = last_kept = scan.position;
  segments = std::move(scan.segments);
  for (Segment& segment : segments) {
    segment.first += shift;
    segment.last += shift;
    counts.bytes += segment.bytes;
  }
  for (const auto& [first, last] : scan.missing) settled.add(first + shift, last + shift);
  for (SpoolItem& gap : scan.gaps) {
    ++counts.dropped;
    keep(gap.number + shift, std::move(gap.record), gap.value);
  }
  remove_settled();
}

// --- Writing

bool Spool::sync(std::string_view position) {
  data->keep_refused();
  if (data->refused.id.empty()) data->last_kept = position;
  const bool is_written = data->memory.empty() && data->settled_since == 0 && data->last_kept == data->written_position;
  if (is_written && !data->counts.in_memory) return true;
  if (data->counts.in_memory && steady_ms() < data->retry_at) return false;
  return data->flush();
}

int64_t Spool::sync_due() const {
  int64_t due = 0;
  if (!data->memory.empty()) {
    due = data->memory_since + (data->memory_bytes >= kSyncBytes ? 0 : kSyncMs);
  } else if (data->settled_since != 0) {
    due = data->settled_since + kSyncSettledMs;
  }
  return due != 0 && data->counts.in_memory ? std::max(due, data->retry_at) : due;
}

const std::string& Spool::position() const {
  return data->written_position;
}

Spool::State Spool::state() const {
  State state = data->counts;
  state.records = data->next - data->origin - data->settled.size();
  state.written = data->folder.bytes_written();
  SpoolItem oldest;
  if (state.records > 0 && data->find(data->live(0), oldest)) state.oldest_s = static_cast<int64_t>(oldest.value);
  return state;
}

bool Spool::Data::flush() {
  if (!open() || !write_gaps()) return false;
  const auto now = std::find_if(segments.begin(), segments.end(), [&](const Segment& s) { return s.serial == current; });
  if (now != segments.end() && now->bytes >= kSyncBytes && is_settled(*now)) current = 0;  // it goes with the next one
  do {
    if (!write_batch()) return false;
  } while (!memory.empty());
  if (counts.in_memory) elog(1, "spool: %s takes records again", path.c_str());
  counts.in_memory = false;
  counts.error.clear();
  written_position = last_kept;
  settled_since = 0;
  remove_settled();
  return true;
}

// Writes each gap that belongs before what is in the segments to a file of its own.
bool Spool::Data::write_gaps() {
  uint64_t newest = 0;
  for (const Segment& segment : segments) newest = std::max(newest, segment.last);
  while (!memory.empty() && memory.begin()->first < newest) {
    const SpoolItem gap = memory.begin()->second;
    Segment segment;
    if (!write(encoded(gap), segment, false)) return false;
    segment.take(gap);
    segments.push_back(std::move(segment));
    forget(gap.number);
  }
  return true;
}

// Writes as many records as the current segment takes, or a new one, and behind the last record a mark.
bool Spool::Data::write_batch() {
  auto written_to = std::find_if(segments.begin(), segments.end(), [&](const Segment& s) { return s.serial == current; });
  Segment segment = written_to != segments.end() ? *written_to : Segment();
  std::string bytes;
  auto end = memory.begin();
  for (; end != memory.end(); ++end) {
    const std::string piece = encoded(end->second);
    const bool is_first = bytes.empty() && segment.bytes == 0;
    if (!is_first && segment.bytes + bytes.size() + piece.size() + kMarkMax > segment_max) break;
    bytes += piece;
    segment.take(end->second);
  }
  const bool is_all = end == memory.end();
  if (is_all) bytes += encoded(SpoolItem{next, true, live(0) - 1 - shift, {last_kept, "", 0, "", "", false}});
  if (!bytes.empty()) {
    if (!write(bytes, segment, true)) return false;
    if (written_to != segments.end()) {
      *written_to = std::move(segment);
    } else {
      segments.push_back(std::move(segment));
    }
    while (memory.begin() != end) forget(memory.begin()->first);
  }
  if (is_all) {
    keeper = current;
  } else {
    current = 0;
  }
  return true;
}

// Appends to the current segment when that is `grown`, and else makes a file.
bool Spool::Data::write(std::string bytes, Segment& grown, bool goes_on) {
  if (grown.serial != 0) {
    if (!folder.append(bytes, grown.bytes)) {
      current = 0;
      return fail(strerrordesc_np(errno));
    }
  } else {
    bytes.insert(0, kSegmentHead);
    grown.serial = folder.create(bytes, goes_on);
    if (grown.serial == 0) return fail(strerrordesc_np(errno));
    if (goes_on) current = grown.serial;
  }
  grown.bytes += bytes.size();
  counts.bytes += bytes.size();
  ++counts.syncs;
  return true;
}

std::string Spool::Data::encoded(SpoolItem item) const {
  item.number -= shift;
  std::string bytes;
  write_item(item, bytes);
  return bytes;
}

bool Spool::Data::fail(const char* reason) {
  if (!counts.in_memory || counts.error != reason) {
    if (const auto left_out = limit_of_lines.allow()) {
      elog(1, "spool: %s does not take records, they are kept in memory: %s%s", path.c_str(), reason, left_out->text);
    }
  }
  counts.in_memory = true;
  counts.error = reason;
  retry_at = steady_ms() + kRetryMs;
  return false;
}
