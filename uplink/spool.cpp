#include "uplink/spool.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <utility>

#include "device/log.h"
#include "uplink/spool_queue.h"
#include "util/clock.h"
#include "util/rate_limit.h"

namespace {

constexpr size_t kSegmentMax = size_t{256} * 1024;
constexpr size_t kMemoryMax = size_t{1024} * 1024;
constexpr size_t kSyncBytes = size_t{64} * 1024;
constexpr int64_t kSyncMs = 1000;
constexpr int64_t kSyncAcknowledgedMs = 60000;
constexpr int64_t kRetryMs = 5000;
constexpr size_t kFrameMax = 64;  // bytes of an item beside its texts, at most

size_t size_of(const UplinkRecord& record) {
  return kFrameMax + record.id.size() + record.last_id.size() + record.name.size() + record.payload.size();
}

}  // namespace

struct Spool::Data {
  Data(std::string folder, size_t bytes, UplinkSettings::Full when_full)
      : path(folder), limit(bytes), full(when_full), queue(std::move(folder), std::min(kSegmentMax, bytes / 4)) {}

  uint64_t add(const UplinkRecord& record);
  void keep(SpoolItem item);
  SpoolItem take(SpoolItems::iterator at);
  bool make_room(size_t size);
  void add_refused();
  bool flush();
  bool fail();

  const std::string path;
  const size_t limit;
  const UplinkSettings::Full full;
  const size_t memory_max = std::min(kMemoryMax, limit / 2);
  SpoolQueue queue;
  SpoolItems pending;  // behind those of the queue, and in no file
  size_t pending_bytes = 0;
  UplinkRecord refused;  // what was dropped last; without an id: nothing
  std::string kept;      // the position before that
  uint64_t last = kSpoolOrigin;
  int64_t pending_at = 0;       // steady_ms() when the first of `pending` came,
  int64_t acknowledged_at = 0;  // of the first acknowledgement that no mark tells of (0: there is none),
  int64_t retry_at = 0;         // and from when on the folder is tried again
  uint64_t dropped = 0;         // events that never were in the queue
  bool in_memory = false;
  std::string error;
  RateLimit limit_of_lines;
};

Spool::Spool(std::string folder, size_t bytes, UplinkSettings::Full full)
    : data(new Data(std::move(folder), bytes, full)) {
  SpoolItem none;
  if (!data->queue.open(none)) data->fail();
  data->kept = data->queue.position();
}

Spool::~Spool() {
  delete data;
}

uint64_t Spool::append(const UplinkRecord& record) {
  const size_t size = size_of(record);
  const bool is_too_large = size > std::min(kSpoolBodyMax, data->limit / 4);
  if (data->refused.id.empty() && !is_too_large && data->make_room(size)) return data->add(record);
  data->dropped += extend(data->refused, record);
  data->add_refused();
  return 0;
}

bool Spool::read(uint64_t& number, UplinkRecord& out) {
  if (data->queue.read(number, out)) return true;
  const auto at = data->pending.lower_bound(number);
  if (at == data->pending.end()) return false;
  number = at->first;
  out = at->second.record;
  return true;
}

void Spool::acknowledge(uint64_t number) {
  const auto at = data->pending.find(number);
  if (at != data->pending.end()) {
    data->take(at);
  } else if (data->queue.acknowledge(number) && data->acknowledged_at == 0) {
    data->acknowledged_at = steady_ms();
  }
  data->add_refused();
}

bool Spool::sync(std::string_view position) {
  data->add_refused();
  const bool is_refusing = !data->refused.id.empty();
  if (!is_refusing) data->kept = position;
  const bool is_written =
      data->pending.empty() && data->acknowledged_at == 0 && data->kept == data->queue.position() && !data->in_memory;
  if (data->in_memory && steady_ms() < data->retry_at) return false;
  return (is_written || data->flush()) && !is_refusing;
}

int64_t Spool::sync_due() const {
  int64_t due = 0;
  if (!data->pending.empty()) {
    due = data->pending_at + (data->pending_bytes >= std::min(kSyncBytes, data->memory_max / 2) ? 0 : kSyncMs);
  } else if (data->acknowledged_at != 0) {
    due = data->acknowledged_at + kSyncAcknowledgedMs;
  }
  return data->in_memory ? std::max(due, data->retry_at) : due;
}

const std::string& Spool::position() const {
  return data->queue.position();
}

bool Spool::is_cut() const {
  return data->queue.is_cut();
}

Spool::State Spool::state() const {
  const SpoolQueue::Counts counts = data->queue.counts();
  uint64_t since = counts.since.value_or(0);
  if (!counts.since && !data->pending.empty()) since = data->pending.begin()->second.since;
  return {data->in_memory,
          counts.records + data->pending.size(),
          counts.bytes,
          static_cast<int64_t>(since),
          counts.dropped + data->dropped,
          counts.written,
          counts.syncs,
          data->error};
}

// --- Records in memory

uint64_t Spool::Data::add(const UplinkRecord& record) {
  last += kSpoolStep;
  kept = last_id_of(record);
  keep({last, false, static_cast<uint64_t>(time(nullptr)), record});
  return last;
}

void Spool::Data::keep(SpoolItem item) {
  if (pending.empty()) pending_at = steady_ms();
  pending_bytes += size_of(item.record);
  const uint64_t number = item.number;
  pending.emplace(number, std::move(item));
}

SpoolItem Spool::Data::take(SpoolItems::iterator at) {
  SpoolItem item = std::move(pending.extract(at).mapped());
  pending_bytes -= size_of(item.record);
  return item;
}

// Makes room in memory, by a sync or else by a gap in the place of the two oldest. The folder gets its room in flush().
bool Spool::Data::make_room(size_t size) {
  const bool may_drop = full == UplinkSettings::Full::drop_oldest;
  if (!may_drop && queue.counts().bytes + pending_bytes + size > limit) return false;
  if (pending_bytes + size <= memory_max || (!in_memory && flush())) return true;
  while (may_drop && pending_bytes + size > memory_max && pending.size() > 1) {
    SpoolItem gap{0, false, pending.begin()->second.since, {}};
    for (int i = 0; i < 2; ++i) {
      const SpoolItem oldest = take(pending.begin());
      gap.number = oldest.number + 1;
      dropped += extend(gap.record, oldest.record);
    }
    keep(std::move(gap));
  }
  return pending_bytes + size <= memory_max;
}

void Spool::Data::add_refused() {
  if (!refused.id.empty() && make_room(size_of(refused))) add(std::exchange(refused, {}));
}

bool Spool::Data::flush() {
  SpoolItem lost;
  if (!queue.open(lost)) return fail();
  if (!lost.record.id.empty()) keep(std::move(lost));
  const size_t size = queue.counts().bytes + pending_bytes + kMarkMax;
  if (full == UplinkSettings::Full::drop_oldest && size > limit && !queue.drop(size - limit)) return fail();
  const bool is_written = queue.write(pending, kept, last);
  pending_bytes = 0;
  for (const auto& [number, item] : pending) pending_bytes += size_of(item.record);
  if (!is_written) return fail();
  if (in_memory) elog(1, "uplink: spool: %s takes records again", path.c_str());
  in_memory = false;
  error.clear();
  acknowledged_at = 0;
  return true;
}

// By errno. Returns false.
bool Spool::Data::fail() {
  const char* reason = strerrordesc_np(errno);
  if (errno == EWOULDBLOCK) reason = "another process uses it";
  if (errno == ENOTEMPTY) reason = "it was replaced by a folder that holds segments";
  if (!in_memory || error != reason) {
    if (const auto left_out = limit_of_lines.allow()) {
      elog(1, "uplink: spool: %s does not take records, they are kept in memory: %s%s", path.c_str(), reason,
           left_out->text);
    }
  }
  in_memory = true;
  error = reason;
  retry_at = steady_ms() + kRetryMs;
  return false;
}
