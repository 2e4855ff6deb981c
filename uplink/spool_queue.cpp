#include "uplink/spool_queue.h"

#include <algorithm>
#include <cerrno>
#include <ctime>

#include "device/log.h"

namespace {

// A gap of unknown size.
UplinkRecord unknown(const std::string& id, const std::string& last_id) {
  return {id, last_id, 0, "", "", false};
}

}  // namespace

uint64_t extend(UplinkRecord& gap, const UplinkRecord& record) {
  const bool is_new = gap.id.empty();
  const bool is_known = record.count > 0 && (is_new || gap.count > 0);
  gap.count = is_known ? (is_new ? 0 : gap.count) + record.count : 0;
  if (is_new) gap.id = record.id;
  gap.last_id = last_id_of(record);
  return record.is_gap() ? 0 : 1;
}

void SpoolQueue::Segment::add(const SpoolItem& item) {
  if (first_id.empty()) first_id = item.record.id;
  last_id = last_id_of(item.record);
  last = item.number;
  open.push_back({item.number, item.since});
}

std::vector<SpoolQueue::Segment::Open>::iterator SpoolQueue::Segment::find(uint64_t number) {
  return std::lower_bound(open.begin(), open.end(), number,
                          [](const Open& one, uint64_t wanted) { return one.number < wanted; });
}

SpoolQueue::Counts SpoolQueue::counts() const {
  Counts counts = totals;
  for (const Segment& segment : segments) {
    counts.bytes += segment.bytes;
    counts.records += segment.open.size();
    if (!counts.since && !segment.open.empty()) counts.since = segment.open.front().since;
  }
  return counts;
}

// --- What an earlier run has left

bool SpoolQueue::open(SpoolItem& lost) {
  const SpoolFolder::Opened opened = folder.open();
  if (opened != SpoolFolder::Opened::fresh) return opened == SpoolFolder::Opened::still;
  if (!std::exchange(is_taken_up, true)) {
    take_up();
    return true;
  }
  if (!folder.serials().empty()) {
    folder.close();
    errno = ENOTEMPTY;
    return false;
  }
  is_writable = false;
  loaded_serial = 0;
  lost = fold(segments.size(), totals.dropped);
  segments.clear();
  return true;
}

void SpoolQueue::take_up() {
  SpoolItem before;  // the last record read
  SpoolItem mark;
  for (const uint64_t serial : folder.serials()) {
    if (!take_file(serial, before, mark)) {
      elog(1, "uplink: spool: left %s alone, which is not a segment", folder.path_of(serial).c_str());
    }
    last_serial = serial;
  }
  written_position = mark.record.id;
  const uint64_t highest = std::max(before.number, mark.record.count);
  shift = kSpoolOrigin - (highest + kSpoolStep - 1) / kSpoolStep * kSpoolStep;
  last_written = before.number + shift;
  for (Segment& segment : segments) {
    segment.open.erase(segment.open.begin(), segment.find(mark.record.count + 1));
    for (Segment::Open& one : segment.open) one.number += shift;
    segment.last += shift;
    if (segment.serial == 0) totals.dropped += segment.open.size();
  }
  remove_acknowledged();
}

// A file counts up to its first item that is not whole. A mark behind it tells whether records are missing: a gap then
// stands for them. Before the first file none are: those were acknowledged. False: this is not a segment.
bool SpoolQueue::take_file(uint64_t serial, SpoolItem& before, SpoolItem& mark) {
  std::string bytes;
  const bool is_ours =
      folder.read(serial, bytes) && bytes.substr(0, kSegmentHead.size()) == kSegmentHead.substr(0, bytes.size());
  Segment segment;
  segment.serial = serial;
  segment.bytes = bytes.size();
  size_t at = kSegmentHead.size();
  for (SpoolItem item; is_ours && read_item(bytes, at, item);) {
    if (!item.is_mark) {
      segment.add(item);
      before = std::move(item);
      continue;
    }
    if (last_serial != 0 && item.number > before.number) put_loss(before, item, bytes, at);
    before.number = std::max(before.number, item.number);
    mark = item;
  }
  is_end_damaged = at != bytes.size();
  if (is_ours) segments.push_back(std::move(segment));
  return is_ours;
}

// Adds the gap between the last record and this mark. What is missing ends before the next record, or at the latest
// with the position. Where nothing before it is known, any event of that run of the daemon may be missing.
void SpoolQueue::put_loss(const SpoolItem& before, const SpoolItem& mark, std::string_view bytes, size_t at) {
  SpoolItem next = mark;
  while (next.is_mark && read_item(bytes, at, next)) {
  }
  const std::string& behind = next.record.id;
  const std::string first_of_run = behind.substr(0, behind.rfind('-') + 1) + "0";
  const std::string& known = last_id_of(before.record);
  Segment lost;
  lost.gap = unknown(known.empty() ? first_of_run : known, behind.empty() ? known : behind);
  lost.last = mark.number + kSpoolStep / 2;  // above that of a gap which cannot be read
  lost.open = {{lost.last, static_cast<uint64_t>(time(nullptr))}};
  if (lost.gap->is_gap()) segments.push_back(std::move(lost));
}

// --- Reading and acknowledging

bool SpoolQueue::read(uint64_t& number, UplinkRecord& out) {
  for (Segment& segment : segments) {
    auto at = segment.find(number);
    if (at == segment.open.end()) continue;
    const UplinkRecord* found = find(segment, at->number);
    if (found == nullptr) {  // its file was damaged or removed behind our back
      lose(segment);
      at = segment.open.begin();
      found = &*segment.gap;
    }
    number = at->number;
    out = *found;
    return true;
  }
  return false;
}

// Null when it cannot be read.
const UplinkRecord* SpoolQueue::find(const Segment& segment, uint64_t number) {
  if (segment.gap) return &*segment.gap;
  if (loaded_serial != segment.serial) load(segment);
  const auto found = loaded.find(number);
  return found == loaded.end() ? nullptr : &found->second;
}

void SpoolQueue::load(const Segment& segment) {
  loaded_serial = segment.serial;
  loaded.clear();
  std::string bytes;
  if (!folder.read(segment.serial, bytes)) return;
  size_t at = kSegmentHead.size();
  for (SpoolItem item; read_item(bytes, at, item);) {
    if (!item.is_mark) loaded.emplace(item.number + shift, std::move(item.record));
  }
}

// Puts a gap in the place of a segment that cannot be read. The next write() writes it.
void SpoolQueue::lose(Segment& segment) {
  totals.dropped += segment.open.size();
  segment.bytes = 0;
  segment.gap = unknown(segment.first_id, segment.last_id);
  segment.open = {{++segment.last, segment.open.front().since}};
  if (&segment == &segments.back()) is_writable = false;
}

bool SpoolQueue::acknowledge(uint64_t number) {
  for (Segment& segment : segments) {
    const auto at = segment.find(number);
    if (at == segment.open.end() || at->number != number) continue;
    segment.open.erase(at);
    remove_acknowledged();
    return true;
  }
  return false;
}

void SpoolQueue::remove_acknowledged() {
  while (segments.size() > 1 && segments.front().open.empty() && !are_witnesses(1)) remove_front(true);
}

void SpoolQueue::remove_front(bool with_file) {
  if (with_file && segments.front().serial != 0) folder.remove(segments.front().serial);
  segments.pop_front();
}

// Whether the files before this segment are needed after a crash: the gap that follows is in no file, they tell of it.
bool SpoolQueue::are_witnesses(size_t end) const {
  while (end < segments.size() && segments[end].open.empty()) ++end;
  return end < segments.size() && segments[end].serial == 0;
}

// --- Making room

bool SpoolQueue::drop(size_t needed) {
  size_t count = 0;
  Segment place;
  for (size_t freed = 0; count + 1 < segments.size() && (freed < needed + kMarkMax || are_witnesses(count)); ++count) {
    freed += segments[count].bytes;
    place.serial = std::max(place.serial, segments[count].serial);
  }
  uint64_t events = 0;
  const SpoolItem gap = fold(count, events);
  if (!gap.record.id.empty()) {
    place.add(gap);
    place.gap = gap.record;
    if (!write_gap(place)) return false;
  }
  totals.dropped += events;
  for (; count > 0; --count) remove_front(!place.gap || segments.front().serial != place.serial);
  if (place.gap) segments.push_front(std::move(place));
  return true;
}

// One gap for what the oldest segments hold. Adds to `events` how many are lost with them.
SpoolItem SpoolQueue::fold(size_t count, uint64_t& events) {
  SpoolItem gap;
  for (size_t i = 0; i < count; ++i) {
    const Segment& segment = segments[i];
    gap.number = std::max(gap.number, segment.last + 1);
    for (const Segment::Open& one : segment.open) {
      if (gap.since == 0) gap.since = one.since;
      const UplinkRecord* const found = find(segment, one.number);
      events += found != nullptr ? extend(gap.record, *found) : 1;
      if (found == nullptr) extend(gap.record, unknown(segment.first_id, segment.last_id));
    }
  }
  return gap;
}

// --- Writing

bool SpoolQueue::write(SpoolItems& items, const std::string& position, uint64_t last) {
  for (Segment& segment : segments) {
    if (segment.serial != 0 && segment.gap && segment.bytes == 0 && !write_gap(segment)) return false;
  }
  do {
    if (!write_batch(items, position, items.empty() ? last + 1 : items.begin()->first)) return false;
  } while (!items.empty());
  written_position = position;
  remove_acknowledged();
  return true;
}

// Puts a file with the segment's gap in the place of its file.
bool SpoolQueue::write_gap(Segment& segment) {
  const Segment::Open& open = segment.open.front();
  const std::string bytes = std::string(kSegmentHead) + bytes_of({open.number, false, open.since, *segment.gap}) +
                            mark(open.number, written_position, last_written);
  if (!folder.replace(segment.serial, bytes)) return false;
  count_written(segment, bytes.size());
  return true;
}

// Writes as many items as the last segment takes, or a new one, and behind the last item a mark.
bool SpoolQueue::write_batch(SpoolItems& items, const std::string& position, uint64_t next_open) {
  is_writable = is_writable && segments.back().bytes + kMarkMax <= segment_max;
  if (!is_writable) {
    segments.emplace_back();
    segments.back().serial = ++last_serial;
  }
  Segment& segment = segments.back();
  std::string bytes;
  if (!is_writable) bytes = std::string(kSegmentHead) + mark(last_written, written_position, next_open);
  uint64_t number = last_written;
  auto end = items.begin();
  for (; end != items.end(); number = end->first, ++end) {
    const std::string piece = bytes_of(end->second);
    const bool is_needed = !is_writable && end == items.begin();
    if (!is_needed && segment.bytes + bytes.size() + piece.size() + kMarkMax > segment_max) break;
    bytes += piece;
  }
  const bool is_all = end == items.end();
  if (is_all) bytes += mark(number, position, next_open);
  if (!folder.write(segment.serial, segment.bytes, bytes)) {
    if (segment.bytes == 0) segments.pop_back();
    is_writable = false;
    return false;
  }
  count_written(segment, bytes.size());
  last_written = number;
  is_writable = is_all;
  for (auto at = items.begin(); at != end; at = items.erase(at)) {
    segment.add(at->second);
    if (loaded_serial == segment.serial) loaded.emplace(at->first, std::move(at->second.record));
  }
  return true;
}

void SpoolQueue::count_written(Segment& segment, size_t bytes) {
  segment.bytes += bytes;
  totals.written += bytes;
  ++totals.syncs;
}

std::string SpoolQueue::bytes_of(SpoolItem item) const {
  item.number -= shift;
  std::string bytes;
  write_item(item, bytes);
  return bytes;
}

// Before a gap, what it may stand for counts as acknowledged, but not the gap itself nor one found in its place.
std::string SpoolQueue::mark(uint64_t number, const std::string& position, uint64_t next_open) const {
  const auto oldest = std::find_if(segments.begin(), segments.end(), [](const Segment& s) { return !s.open.empty(); });
  const uint64_t open = oldest != segments.end() ? oldest->open.front().number : next_open;
  const uint64_t acknowledged = open % kSpoolStep == 0 ? open - 1 : open - open % kSpoolStep;
  return bytes_of({number, true, 0, {position, "", acknowledged - shift, "", "", false}});
}
