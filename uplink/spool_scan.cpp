#include "uplink/spool_scan.h"

#include <algorithm>
#include <ctime>

bool SpoolScan::take_file(uint64_t serial, std::string_view bytes) {
  SpoolSegment segment;
  segment.serial = serial;
  size_t at = std::min(bytes.size(), kSegmentHead.size());
  bool is_empty = true;
  for (SpoolItem item; read_item(bytes, at, item, has_passed); is_empty = false) {
    segment.take(item);
    take(item, serial);
  }
  torn = !is_empty && at < bytes.size() ? serial : 0;
  torn_at = at;
  has_passed = has_passed || at < bytes.size();
  has_lost_file = has_lost_file || is_empty;
  if (is_empty) return false;
  segment.bytes = at;
  segments.push_back(std::move(segment));
  return true;
}

void SpoolScan::take(const SpoolItem& item, uint64_t serial) {
  const UplinkRecord& record = item.record;
  next = std::max(next, item.number + (item.is_mark ? 0 : 1));
  if (item.is_mark) {
    mark = item;
    keeper = serial;
    return;
  }
  const uint64_t before = item.number - item.back;
  if (runs.empty() || runs.back().last != before) runs.push_back({before, item.number, 0, record.id, "", has_passed});
  has_passed = false;
  runs.back().last = item.number;
  runs.back().last_id = record.is_gap() ? record.last_id : record.id;
  present.add(item.number, item.number);
}

void SpoolScan::finish() {
  std::sort(runs.begin(), runs.end(), [](const Run& a, const Run& b) { return a.first < b.first; });
  const uint64_t before_mark = mark.number - mark.back;
  if (keeper != 0) runs.push_back({before_mark, mark.number, before_mark, mark.record.id, "", has_passed});
  Run end{0, 0, settled(), "", "", false};  // what comes before the next run
  for (const Run& run : runs) {
    // The oldest records may also be missing because they were acknowledged and removed, without damage.
    if (run.before > end.last && (run.has_passed || has_lost_file || !end.last_id.empty())) declare_loss(end, run);
    if (run.last > end.last || end.last_id.empty()) end.last_id = run.last_id;
    end.last = std::max(end.last, run.last);
  }
  chain_end = end.last;
  for (uint64_t at = settled() + 1; at < next;) {
    const uint64_t first = present.next_missing(at);
    at = present.next_contained(first, next);
    if (first < next) missing.emplace_back(first, at - 1);
  }
  if (settled() > 0) missing.emplace_back(1, settled());
}

void SpoolScan::declare_loss(const Run& end, const Run& run) {
  SpoolItem gap;
  gap.number = run.before;
  gap.back = run.before - end.last;
  gap.value = static_cast<uint64_t>(time(nullptr));
  // Where no id before the loss is known, anything of that run of the daemon may be lost.
  gap.record.id = end.last_id.empty() ? run.first_id.substr(0, run.first_id.rfind('-') + 1) + '0' : end.last_id;
  gap.record.last_id = run.first_id.empty() ? end.last_id : run.first_id;
  gap.record.count = 0;
  if (!gap.record.is_gap()) return;  // nothing is known of it
  present.add(gap.number, gap.number);
  gaps.push_back(std::move(gap));
}
