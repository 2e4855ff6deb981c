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

uint64_t seconds_now() {
  return static_cast<uint64_t>(time(nullptr));
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
  const size_t sync_bytes = std::min(kSyncBytes, memory_max / 2);

  uint64_t origin = kFirstNumber;  // the lowest number that there is
  uint64_t next = kFirstNumber;    // of the next record
  uint64_t shift = 0;              // a number less the same number in the files
  NumberRanges settled;            // numbers from origin to next that are acknowledged, or of no record
  uint64_t chain_end = 0;          // the last number in the files, as it is there

  bool is_taken_up = false;            // what an earlier run has left
  std::vector<SpoolSegment> segments;  // by serial
  uint64_t current = 0;                // serial of the one that is written to; 0: there is none
  uint64_t keeper = 0;                 // serial of the one with the last mark
  uint64_t cached = 0;                 // serial of the one whose bytes these are,
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
  bool is_settled(const SpoolSegment& segment) const {
    return segment.first == 0 || live(segment.first) > segment.last;
  }
  bool has_room(size_t size) const {
    return memory_bytes + size <= memory_max && counts.bytes + memory_bytes + size <= limit;
  }

  void keep(SpoolItem item);
  void forget(uint64_t number);
  void settle(uint64_t number) { settled.add(number, number); }

  void keep_refused();
  bool make_room(size_t size);
  bool drop_segment();
  bool drop_memory();
  void lose(size_t index);
  bool join_head(SpoolItem& gap);
  void add_to(SpoolItem& gap, const SpoolItem& item);

  bool find(uint64_t number, SpoolItem& out);
  bool find_in(const SpoolSegment& segment, uint64_t number, SpoolItem& out);
  void remove_settled();

  bool open();
  void take_up();
  bool flush();
  bool write_gaps();
  bool write_batch();
  bool write(std::string bytes, SpoolSegment& grown, bool goes_on);
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
  data->keep({number, 0, false, seconds_now(), record});
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
                                   [&](const SpoolSegment& s) { return s.first <= at && at <= s.last; });
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

void Spool::Data::keep(SpoolItem item) {
  if (memory.empty()) memory_since = steady_ms();
  memory_bytes += size_of(item.record);
  const uint64_t number = item.number;
  memory[number] = std::move(item);
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
  keep({next++, 0, false, seconds_now(), std::exchange(refused, {})});
}

bool Spool::Data::make_room(size_t size) {
  if (full == UplinkSettings::Full::drop_newest) return false;
  while (!has_room(size)) {
    const bool done = memory_bytes + size > memory_max ? drop_memory() : drop_segment() || drop_memory();
    if (!done) return false;
  }
  return true;
}

// Makes the gap stand for the item too, which follows what it stands for.
void Spool::Data::add_to(SpoolItem& gap, const SpoolItem& item) {
  if (gap.value == 0) gap.value = item.value;
  extend(gap.record, item.record);
  if (!item.record.is_gap()) counts.dropped += item.record.count;
}

// Drops the oldest segment, but for the one that is written to or has the last mark. False: there is none.
bool Spool::Data::drop_segment() {
  size_t oldest = segments.size();
  for (size_t i = 0; i < segments.size(); ++i) {
    const SpoolSegment& segment = segments[i];
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
  for (const SpoolSegment& segment : segments) written = std::max(written, segment.last);
  const auto first = memory.upper_bound(written);
  if (first == memory.end() || std::next(first) == memory.end()) return false;
  const auto second = std::next(first);
  SpoolItem gap{second->first, first->second.back, false, first->second.value, {}};
  for (const auto& part : {first, second}) add_to(gap, part->second);
  settle(first->first);
  forget(first->first);
  forget(gap.number);
  keep(std::move(gap));
  return true;
}

// Puts a gap in the place of what the segment holds and is not acknowledged, then removes the file.
void Spool::Data::lose(size_t index) {
  const SpoolSegment segment = segments[index];
  SpoolItem gap{segment.last, segment.last - segment.first + segment.back, false, 0, {}};
  SpoolItem unreadable;
  unreadable.record.id = segment.first_id;
  unreadable.record.last_id = segment.last_id;
  unreadable.record.count = 0;
  for (uint64_t at = live(segment.first); at <= segment.last; at = live(at + 1)) {
    settle(at);
    SpoolItem item;
    if (find(at, item)) {  // also a gap in the place of what is damaged, which is in a file of its own
      forget(at);
      add_to(gap, item);
    } else {
      ++unreadable.record.count;
    }
  }
  if (unreadable.record.count > 0) {
    counts.dropped += unreadable.record.count;
    add_to(gap, unreadable);
  }
  segments.erase(segments.begin() + static_cast<std::ptrdiff_t>(index));
  if (segment.serial == current) current = 0;
  if (join_head(gap) || !gap.record.id.empty()) {
    if (gap.value == 0) gap.value = seconds_now();
    settled.remove(gap.number);
    keep(std::move(gap));
    write_gaps();
  }
  folder.remove(segment.serial);
  counts.bytes -= segment.bytes;
  remove_settled();
}

// When there is one record before the gap, and that is a gap too, joins them: the file of the older one goes.
bool Spool::Data::join_head(SpoolItem& gap) {
  const uint64_t head = live(0);
  SpoolItem head_gap;
  if (head >= gap.number || live(head + 1) <= gap.number || !find(head, head_gap) || !head_gap.record.is_gap())
    return false;
  if (!gap.record.id.empty()) add_to(head_gap, gap);
  head_gap.back += gap.number - head;
  head_gap.number = gap.number;
  settle(head);
  forget(head);
  gap = std::move(head_gap);
  return true;
}

// --- What is in the files

bool Spool::Data::find(uint64_t number, SpoolItem& out) {
  const auto found = memory.find(number);
  if (found != memory.end()) return out = found->second, true;
  return std::any_of(segments.begin(), segments.end(), [&](const SpoolSegment& segment) {
    return segment.first <= number && number <= segment.last && find_in(segment, number, out);
  });
}

bool Spool::Data::find_in(const SpoolSegment& segment, uint64_t number, SpoolItem& out) {
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

// Only the oldest: a file that is missing between others is a loss.
void Spool::Data::remove_settled() {
  const auto is_done = [&](const SpoolSegment& segment) {
    if (segment.serial == keeper || segment.serial == current || live(0) <= segment.last) return false;
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
  for (size_t left = segments.size(); left > 0 && !segments.empty(); --left) lose(0);
  return true;
}

// Takes up what an earlier run has left.
void Spool::Data::take_up() {
  SpoolScan scan;
  std::vector<uint64_t> empty;  // files that were made and not written
  for (const uint64_t serial : folder.serials()) {
    std::string bytes;
    const bool is_read = folder.read(serial, kFileMax, bytes);
    if (scan.take_file(serial, bytes)) continue;
    if (is_read && kSegmentHead.substr(0, bytes.size()) == std::string_view(bytes).substr(0, kSegmentHead.size())) {
      empty.push_back(serial);
    } else {
      const std::string file = path + "/" + SpoolFolder::file_of(serial);
      elog(1, "uplink: spool: left %s alone, which is not a segment", file.c_str());
    }
  }
  scan.finish();

  shift = kFirstNumber - scan.next;
  origin = 1 + shift;
  keeper = scan.keeper;
  chain_end = scan.chain_end;
  written_position = last_kept = scan.mark.record.id;
  segments = std::move(scan.segments);
  for (SpoolSegment& segment : segments) {
    segment.first += shift;
    segment.last += shift;
    counts.bytes += segment.bytes;
  }
  for (const auto& [first, last] : scan.missing) settled.add(first + shift, last + shift);
  for (SpoolItem& gap : scan.gaps) {
    ++counts.dropped;
    gap.number += shift;
    keep(std::move(gap));
  }
  remove_settled();
  if (!write_gaps()) return;  // damage that is declared only in memory must be found again
  if (scan.torn != 0) folder.cut(scan.torn, scan.torn_at);
  for (const uint64_t serial : empty) folder.remove(serial);
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
    due = data->memory_since + (data->memory_bytes >= data->sync_bytes ? 0 : kSyncMs);
  } else if (data->settled_since != 0) {
    due = data->settled_since + kSyncSettledMs;
  }
  return data->counts.in_memory ? std::max(due, data->retry_at) : due;
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
  const auto now =
      std::find_if(segments.begin(), segments.end(), [&](const SpoolSegment& s) { return s.serial == current; });
  if (now != segments.end() && now->bytes >= kSyncBytes && is_settled(*now)) current = 0;  // it goes with the next one
  do {
    if (!write_batch()) return false;
  } while (!memory.empty());
  if (counts.in_memory) elog(1, "uplink: spool: %s takes records again", path.c_str());
  counts.in_memory = false;
  counts.error.clear();
  written_position = last_kept;
  settled_since = 0;
  remove_settled();
  return true;
}

// Writes each gap that belongs before what is in the segments to a file of its own.
bool Spool::Data::write_gaps() {
  if (counts.in_memory && steady_ms() < retry_at) return false;
  uint64_t newest = 0;
  for (const SpoolSegment& segment : segments) newest = std::max(newest, segment.last);
  while (!memory.empty() && memory.begin()->first < newest) {
    const SpoolItem gap = memory.begin()->second;
    SpoolSegment segment;
    if (!write(encoded(gap), segment, false)) return false;
    segment.take(gap);
    segments.push_back(std::move(segment));
    forget(gap.number);
  }
  return true;
}

// Writes as many records as the current segment takes, or a new one, and behind the last record a mark.
bool Spool::Data::write_batch() {
  auto written_to =
      std::find_if(segments.begin(), segments.end(), [&](const SpoolSegment& s) { return s.serial == current; });
  SpoolSegment segment = written_to != segments.end() ? *written_to : SpoolSegment();
  std::string bytes;
  auto end = memory.begin();
  uint64_t before = chain_end;
  for (; end != memory.end(); ++end) {
    SpoolItem item = end->second;
    if (item.back == 0) item.back = item.number - shift - before;
    const std::string piece = encoded(item);
    const bool is_first = bytes.empty() && segment.bytes == 0;
    if (!is_first && segment.bytes + bytes.size() + piece.size() + kMarkMax > segment_max) break;
    bytes += piece;
    segment.take(item);
    before = std::max(before, item.number - shift);
  }
  const bool is_all = end == memory.end();
  if (is_all)
    bytes += encoded({next, next - shift - before, true, live(0) - 1 - shift, {last_kept, "", 0, "", "", false}});
  if (!bytes.empty()) {
    if (!write(bytes, segment, true)) return false;
    if (written_to != segments.end()) {
      *written_to = std::move(segment);
    } else {
      segments.push_back(std::move(segment));
    }
    while (memory.begin() != end) forget(memory.begin()->first);
    chain_end = before;
  }
  if (is_all) {
    keeper = current;
  } else {
    current = 0;
  }
  return true;
}

// Appends to the current segment when that is `grown`, and else makes a file.
bool Spool::Data::write(std::string bytes, SpoolSegment& grown, bool goes_on) {
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
      elog(1, "uplink: spool: %s does not take records, they are kept in memory: %s%s", path.c_str(), reason,
           left_out->text);
    }
  }
  counts.in_memory = true;
  counts.error = reason;
  retry_at = steady_ms() + kRetryMs;
  return false;
}
