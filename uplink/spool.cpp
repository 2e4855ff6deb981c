#include "uplink/spool.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <iterator>
#include <utility>

#include "device/log.h"
#include "util/clock.h"

namespace {

constexpr size_t kSegmentMax = size_t{256} * 1024;
constexpr size_t kMemoryMax = size_t{1024} * 1024;
constexpr size_t kSyncBytes = size_t{64} * 1024;
constexpr int64_t kSyncMs = 1000;
constexpr int64_t kSyncAcknowledgedMs = 60000;
constexpr int64_t kRetryMs = 5000;
constexpr size_t kFrameMax = 64;  // bytes of an item beside its texts, at most
constexpr size_t kMarkMax = 256;  // bytes

// This run's numbers are above; those of earlier runs, which may be read only later, are below.
constexpr uint64_t kOrigin = uint64_t{1} << 62;

// A gap's number is one more than that of the last record in it, which may be in flight: the acknowledgement of the one
// is not that of the other. A gap may become part of others: in memory, twice at the damaged end of a file, and when
// that is dropped.
constexpr uint64_t kStep = 8;

size_t size_of(const UplinkRecord& record) {
  return kFrameMax + record.id.size() + record.last_id.size() + record.name.size() + record.payload.size();
}

UplinkRecord gap_of_unknown_size(const std::string& id, const std::string& last_id) {
  return {id, last_id, 0, "", "", false};
}

// Makes `gap` stand for `record` too, which follows it. Without an id, it stands for nothing yet. Returns how many
// events become part of a gap.
uint64_t extend(UplinkRecord& gap, const UplinkRecord& record) {
  const bool is_new = gap.id.empty();
  const bool is_known = record.count > 0 && (is_new || gap.count > 0);
  gap.count = is_known ? (is_new ? 0 : gap.count) + record.count : 0;
  if (is_new) gap.id = record.id;
  gap.last_id = record.end_id();
  return record.is_gap() ? 0 : 1;
}

}  // namespace

Spool::Spool(std::string folder_path, size_t bytes, UplinkSettings::Full when_full)
    : path(folder_path),
      limit(bytes),
      full(when_full),
      segment_max(std::min(kSegmentMax, bytes / 4)),
      memory_max(std::min(kMemoryMax, bytes / 2)),
      folder(std::move(folder_path)),
      last(kOrigin),
      last_written(kOrigin),
      shift(kOrigin) {
  if (!open()) fail();
  kept = position();
}

// --- Adding, reading, acknowledging

uint64_t Spool::append(const UplinkRecord& record) {
  const size_t size = size_of(record);
  const bool is_too_large = size > std::min(kSpoolBodyMax, limit / 4);
  if (refused.id.empty() && !is_too_large && make_room(size)) return add(record);
  dropped += extend(refused, record);
  add_refused();
  return 0;
}

uint64_t Spool::add(const UplinkRecord& record) {
  last += kStep;
  kept = record.end_id();
  keep({last, false, static_cast<uint64_t>(time(nullptr)), record});
  return last;
}

void Spool::add_refused() {
  if (!refused.id.empty() && make_room(size_of(refused))) add(std::exchange(refused, {}));
}

const UplinkRecord* Spool::read(uint64_t& number) {
  if (!gap.id.empty() && number <= gap_number) {
    number = gap_number;
    return &gap;
  }
  const auto find_in = [&](const Items& items) {
    const auto at = items.lower_bound(number);
    return at == items.end() ? nullptr : &at->second;
  };
  const SpoolItem* found = nullptr;
  for (Segment& segment : segments) {
    if (segment.open == 0 || segment.last < number) continue;
    load(segment);
    found = find_in(segment.items);
    if (found != nullptr) break;
  }
  if (found == nullptr) found = find_in(pending);
  if (found == nullptr) return nullptr;
  number = found->number;
  return &found->record;
}

void Spool::acknowledge(uint64_t number) {
  if (const auto at = pending.find(number); at != pending.end()) {
    take(at);
  } else if (take_written(number) && acknowledged_at == 0) {
    acknowledged_at = steady_ms();
  }
  add_refused();
}

bool Spool::take_written(uint64_t number) {
  if (!gap.id.empty() && number == gap_number) return gap = {}, true;
  for (Segment& segment : segments) {
    if (segment.open == 0 || number < segment.first || segment.last < number) continue;
    load(segment);
    const size_t found = segment.items.erase(number);
    segment.open -= found;
    return found > 0;
  }
  return false;
}

// --- Records in memory

void Spool::keep(SpoolItem item) {
  if (pending.empty()) pending_at = steady_ms();
  pending_bytes += size_of(item.record);
  const uint64_t number = item.number;
  pending.emplace(number, std::move(item));
}

SpoolItem Spool::take(Items::iterator at) {
  SpoolItem item = std::move(pending.extract(at).mapped());
  pending_bytes -= size_of(item.record);
  return item;
}

// Makes room in memory, by a sync or else by a gap in the place of the two oldest. The folder gets its room in flush().
bool Spool::make_room(size_t size) {
  const bool may_drop = full == UplinkSettings::Full::drop_oldest;
  if (!may_drop && state().bytes + pending_bytes + size > limit) return false;
  if (pending_bytes + size <= memory_max || (!in_memory && flush())) return true;
  while (may_drop && pending_bytes + size > memory_max && pending.size() > 1) {
    SpoolItem folded{0, false, pending.begin()->second.value, {}};
    for (int i = 0; i < 2; ++i) {
      const SpoolItem oldest = take(pending.begin());
      folded.number = oldest.number + 1;
      dropped += extend(folded.record, oldest.record);
    }
    keep(std::move(folded));
  }
  return pending_bytes + size <= memory_max;
}

// --- Syncs

bool Spool::sync(std::string_view position) {
  add_refused();
  if (refused.id.empty()) kept = position;
  const bool has_news = !pending.empty() || acknowledged_at != 0 || kept != marked.record.name || in_memory;
  if (has_news && (!in_memory || steady_ms() >= retry_at)) flush();
  return is_synced();
}

bool Spool::is_synced() const {
  return refused.id.empty() && ((pending.empty() && !in_memory) || state().records == 0);
}

int64_t Spool::sync_due() const {
  int64_t due = 0;
  if (!pending.empty()) {
    due = pending_at + (pending_bytes >= std::min(kSyncBytes, memory_max / 2) ? 0 : kSyncMs);
  } else if (acknowledged_at != 0) {
    const bool is_one_done = segments.size() > 1 && segments.front().open == 0;
    due = acknowledged_at + (is_one_done ? 0 : kSyncAcknowledgedMs);
  }
  return in_memory ? std::max(due, retry_at) : due;
}

bool Spool::flush() {
  if (!open()) return fail();
  if (full == UplinkSettings::Full::drop_oldest) drop_oldest();
  do {
    if (!write_some()) return fail();
  } while (!pending.empty());
  if (in_memory) elog(1, "uplink: spool: %s takes records again", path.c_str());
  in_memory = false;
  error.clear();
  acknowledged_at = 0;
  remove_acknowledged();
  return true;
}

// By errno. Returns false. Segments that are not needed go without a mark: a disk that is full may have room then.
bool Spool::fail() {
  const char* const reason = errno == EWOULDBLOCK ? "another process uses it" : strerrordesc_np(errno);
  if (!in_memory || error != reason) {
    if (const auto left_out = limit_of_lines.allow()) {
      elog(1, "uplink: spool: %s does not take records, they are kept in memory: %s%s", path.c_str(), reason,
           left_out->text);
    }
  }
  in_memory = true;
  error = reason;
  retry_at = steady_ms() + kRetryMs;
  remove_acknowledged();
  return false;
}

// The last segment stays: it has the last mark.
void Spool::remove_acknowledged() {
  for (; segments.size() > 1 && segments.front().open == 0; segments.pop_front()) {
    folder.remove(segments.front().serial);
  }
}

Spool::State Spool::state() const {
  State state{in_memory, pending.size(), 0, 0, dropped, written, syncs, error};
  uint64_t oldest = pending.empty() ? 0 : pending.begin()->second.value;
  for (auto segment = segments.rbegin(); segment != segments.rend(); ++segment) {
    state.records += segment->open;
    state.bytes += segment->bytes;
    if (segment->open > 0) oldest = segment->is_loaded ? segment->items.begin()->second.value : segment->since;
  }
  state.records += gap.id.empty() ? 0 : 1;
  state.oldest_s = static_cast<int64_t>(oldest);
  return state;
}

// --- Segments

void Spool::Segment::add(const SpoolItem& item) {
  if (first_id.empty()) {
    first = item.number;
    since = item.value;
    first_id = item.record.id;
  }
  last = item.number;
  last_id = item.record.end_id();
  ++open;
}

// Opens the folder, for the first time or again. What it holds comes before this run's records, and what another one
// held, which is gone, is lost.
bool Spool::open() {
  const SpoolFolder::Opened opened = folder.open();
  if (opened != SpoolFolder::Opened::fresh) return opened == SpoolFolder::Opened::still;
  SpoolItem lost = lose_all();
  if (!lost.record.id.empty()) keep(std::move(lost));
  take_up();
  return true;
}

SpoolItem Spool::lose_all() {
  SpoolItem lost{last_written | (kStep - 1), false, static_cast<uint64_t>(time(nullptr)), std::exchange(gap, {})};
  for (const Segment& segment : segments) {
    if (segment.open == 0) continue;
    dropped += segment.open;
    for (const auto& [number, item] : segment.items) extend(lost.record, item.record);
    if (!segment.is_loaded) extend(lost.record, gap_of_unknown_size(segment.first_id, segment.last_id));
  }
  segments.clear();
  return lost;
}

void Spool::take_up() {
  marked = {};
  marked.is_mark = true;
  is_writable = is_end_damaged = false;
  for (const uint64_t serial : folder.serials()) {
    if (!take_file(serial)) {
      elog(1, "uplink: spool: left %s alone, which is not a segment", folder.path_of(serial).c_str());
      is_end_damaged = true;
    }
    last_serial = serial;
  }
  last_written = 0;
  for (const Segment& segment : segments) last_written = std::max(last_written, segment.last);
  shift -= (std::max(last_written, marked.value) / kStep + 1) * kStep;
  last_written += shift;
  marked.number += shift;
  marked.value += shift;
  gap = marked.record;
  gap.name.clear();
  gap_number = marked.value + 1;
  for (Segment& segment : segments) {
    for (uint64_t* number : {&segment.before, &segment.first, &segment.last}) *number += shift;
  }
  declare_losses();
  for (Segment& segment : segments) {
    if (segment.last <= marked.value) segment.open = 0;
    if (segment.first <= marked.value && segment.open > 0) load(segment);  // the one that is acknowledged in part
  }
}

// A file counts up to its first item that is not whole. False: it is not a segment.
bool Spool::take_file(uint64_t serial) {
  std::string bytes;
  if (!folder.read(serial, bytes) || bytes.substr(0, kSegmentHead.size()) != kSegmentHead.substr(0, bytes.size())) {
    return false;
  }
  Segment segment;
  segment.serial = serial;
  segment.bytes = bytes.size();
  size_t at = kSegmentHead.size();
  for (SpoolItem item; read_item(bytes, at, item);) {
    if (!item.is_mark) {
      segment.add(item);
      continue;
    }
    marked = item;
    if (segment.open == 0) segment.before = segment.last = item.number;
  }
  is_end_damaged = at != bytes.size();
  segments.push_back(std::move(segment));
  return true;
}

// Records that a segment should come behind, and that are neither there nor acknowledged, are lost: from the last id
// before them to the first one behind. Where none before is known, any event of that run of the daemon may be missing.
void Spool::declare_losses() {
  uint64_t end = marked.value;
  std::string known = gap.last_id;
  for (auto segment = segments.begin(); segment != segments.end(); ++segment) {
    const auto behind = std::find_if(segment, segments.end(), [](const Segment& one) { return !one.first_id.empty(); });
    const std::string& next = behind != segments.end() ? behind->first_id : position();
    if (segment->before > end && !next.empty()) {
      if (known.empty()) known = next.substr(0, next.rfind('-') + 1) + "0";
      const UplinkRecord lost = gap_of_unknown_size(known, next);
      if (end == marked.value) {
        extend(gap, lost);
      } else {
        std::prev(segment)->add({end + 1, false, static_cast<uint64_t>(time(nullptr)), lost});
      }
    }
    end = std::max(end, segment->last);
    if (!segment->last_id.empty()) known = segment->last_id;
  }
}

// Reads the records of a segment, those that an earlier run has marked as acknowledged excepted. What its file does not
// hold (any more) is lost.
void Spool::load(Segment& segment) {
  if (std::exchange(segment.is_loaded, true)) return;
  std::string bytes;
  size_t at = kSegmentHead.size();
  size_t found = 0;
  uint64_t read_to = 0;
  std::string known = segment.first_id;
  if (folder.read(segment.serial, bytes)) bytes.resize(std::min(bytes.size(), segment.bytes));
  for (SpoolItem item; read_item(bytes, at, item);) {
    if (item.is_mark) continue;
    ++found;
    read_to = item.number += shift;
    known = item.record.end_id();
    if (read_to > marked.value) segment.items.emplace(read_to, item);
  }
  if (read_to < segment.last) {
    dropped += segment.open - std::min(segment.open, found);
    const uint64_t number = ++segment.last;
    segment.items.emplace(number, SpoolItem{number, false, segment.since, gap_of_unknown_size(known, segment.last_id)});
    if (&segment == &segments.back()) is_writable = false;
  }
  segment.open = segment.items.size();
}

// --- Writing

// Puts one gap in the place of as many of the oldest segments as must go for what is pending, but not of the last one.
void Spool::drop_oldest() {
  size_t bytes = pending_bytes + 2 * kMarkMax;
  for (const Segment& segment : segments) {
    bytes += segment.open > 0 || &segment == &segments.back() ? segment.bytes : 0;
  }
  for (size_t i = 0; i + 1 < segments.size() && bytes > limit; ++i) {
    Segment& segment = segments[i];
    if (segment.open == 0) continue;
    load(segment);
    for (const auto& [number, item] : segment.items) dropped += extend(gap, item.record);
    gap_number = segment.last + 1;
    bytes -= segment.bytes;
    segment.open = 0;
    segment.items.clear();
  }
}

// Writes as many records as the last segment takes, or a new one, and behind the last record a mark.
bool Spool::write_some() {
  const size_t least = kMarkMax + (pending.empty() ? 0 : size_of(pending.begin()->second.record));
  is_writable = is_writable && segments.back().bytes + least <= segment_max;
  std::string bytes;
  if (!is_writable) {
    segments.emplace_back();
    segments.back().serial = ++last_serial;
    segments.back().before = segments.back().last = marked.number = last_written;
    bytes = std::string(kSegmentHead) + bytes_of(marked);
  }
  Segment& segment = segments.back();
  uint64_t number = last_written;
  auto end = pending.begin();
  for (; end != pending.end(); number = end->first, ++end) {
    const std::string piece = bytes_of(end->second);
    if (end != pending.begin() && segment.bytes + bytes.size() + piece.size() + kMarkMax > segment_max) break;
    bytes += piece;
  }
  const bool is_all = end == pending.end();
  const SpoolItem mark = mark_behind(number);
  if (is_all) bytes += bytes_of(mark);
  if (!folder.write(segment.serial, segment.bytes, bytes)) {
    if (segment.bytes == 0) segments.pop_back();
    is_writable = false;
    return false;
  }
  segment.bytes += bytes.size();
  written += bytes.size();
  ++syncs;
  is_writable = is_all;
  if (is_all) marked = mark;
  last_written = number;
  while (pending.begin() != end) {
    SpoolItem item = take(pending.begin());
    segment.add(item);
    if (segment.is_loaded) segment.items.emplace(item.number, std::move(item));
  }
  return true;
}

SpoolItem Spool::mark_behind(uint64_t number) const {
  SpoolItem mark{number, true, first_open() - 1, gap};
  mark.record.name = kept;
  return mark;
}

uint64_t Spool::first_open() const {
  if (!gap.id.empty()) return gap_number;
  const auto open = std::find_if(segments.begin(), segments.end(), [](const Segment& one) { return one.open > 0; });
  if (open != segments.end()) return open->is_loaded ? open->items.begin()->first : open->first;
  return pending.empty() ? last + 1 : pending.begin()->first;
}

std::string Spool::bytes_of(SpoolItem item) const {
  item.number -= shift;
  if (item.is_mark) item.value -= shift;
  std::string bytes;
  write_item(item, bytes);
  return bytes;
}
