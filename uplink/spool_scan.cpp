#include "uplink/spool_scan.h"

#include <algorithm>
#include <ctime>

bool SpoolScan::take_file(uint64_t serial, std::string_view bytes) {
  Segment segment;
  segment.serial = serial;
  segment.bytes = bytes.size();
  size_t at = std::min(bytes.size(), kSegmentHead.size());
  size_t items = 0;
  for (SpoolItem item; read_item(bytes, at, item, has_passed); ++items) take(segment, item);
  torn = items > 0 && at < bytes.size() ? serial : 0;
  torn_at = at;
  has_passed = has_passed || items == 0 || torn != 0;
  if (items == 0) return false;
  segments.push_back(std::move(segment));
  return true;
}

void SpoolScan::take(Segment& segment, const SpoolItem& item) {
  const UplinkRecord& record = item.record;
  if (has_passed && item.number > last + 1) {
    UplinkRecord gap;
    gap.id = last_id.empty() ? record.id : last_id;
    gap.last_id = record.id.empty() ? last_id : record.id;
    gap.count = 0;
    damages.push_back({last + 1, item.number - 1, std::move(gap)});
  }
  if (item.number > last) has_passed = false;
  segment.take(item);
  if (item.is_mark) {
    position = record.id;
    settled = item.value;
    keeper = segment.serial;
    next = std::max(next, item.number);
    last = std::max(last, item.number - 1);
    return;
  }
  present.add(item.number, item.number);
  next = std::max(next, item.number + 1);
  if (item.number <= last) return;
  last = item.number;
  last_id = segment.last_id;
}

void SpoolScan::finish() {
  for (Damage& damage : damages) {
    const uint64_t first = std::max(damage.first, settled + 1);
    if (first > damage.last || present.next_contained(first, next) <= damage.last || !damage.gap.is_gap()) continue;
    present.add(first, first);
    gaps.push_back({first, false, static_cast<uint64_t>(time(nullptr)), std::move(damage.gap)});
  }
  for (uint64_t at = settled + 1; at < next;) {
    const uint64_t first = present.next_missing(at);
    at = present.next_contained(first, next);
    if (first < next) missing.emplace_back(first, at - 1);
  }
  if (settled > 0) missing.emplace_back(1, settled);
}
