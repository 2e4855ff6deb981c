#include "device/host/log_repeats.h"

#include <algorithm>
#include <functional>
#include <utility>

namespace {

constexpr int64_t kSecondMs = 1000;
constexpr uint32_t kWrittenEach = 100;

constexpr int64_t kAtOnce = std::numeric_limits<int64_t>::min();

// A line stands in one of a few neighbours, so that the search is short.
constexpr size_t kNeighbours = 8;

}  // namespace

// The entry of a line, perhaps a new one in the place of the oldest; null when all of these have lines to sum up.
LogRepeats::Entry* LogRepeats::find(size_t hash, int64_t now_ms) {
  Entry* oldest = nullptr;
  for (size_t i = 0; i < kNeighbours; ++i) {
    Entry& entry = entries[(hash + i) % entries.size()];
    if (entry.hash == hash) return &entry;
    if (entry.held == nullptr && (oldest == nullptr || entry.since_ms < oldest->since_ms)) oldest = &entry;
  }
  if (oldest == nullptr) return nullptr;
  if (oldest == last) last = nullptr;
  oldest->hash = hash;
  oldest->since_ms = now_ms;
  oldest->count = 0;
  return oldest;
}

bool LogRepeats::repeats_itself(Entry& entry, int level, std::string_view line, int64_t now_ms) {
  if (now_ms - entry.since_ms >= kSecondMs) {
    entry.since_ms = now_ms;
    entry.count = 0;
  }
  if (++entry.count <= kWrittenEach) return false;
  if (entry.held == nullptr) {
    entry.held = std::make_unique<Held>(Held{level, std::string(line), entry.since_ms + kSecondMs, 0});
    due = std::min(due, entry.held->due_ms);
  }
  if (entry.held->line != line || entry.held->level != level) return false;  // another line with this hash
  ++entry.held->times;
  return true;
}

bool LogRepeats::leaves_out(int level, std::string_view line, int64_t now_ms) {
  current = find(std::hash<std::string_view>()(line) + static_cast<size_t>(level), now_ms);
  if (current != nullptr && repeats_itself(*current, level, line, now_ms)) return true;
  interrupt();
  return false;
}

void LogRepeats::pass() {
  current = nullptr;
  interrupt();
}

// Another line is to be written: the summary of the last one must stand before it.
void LogRepeats::interrupt() {
  if (last == nullptr || last == current || last->held == nullptr) return;
  last->held->due_ms = due = kAtOnce;
}

bool LogRepeats::take(int64_t now_ms, Summary& out) {
  if (due > now_ms) return false;
  due = kNever;
  for (Entry& entry : entries) {
    if (entry.held == nullptr) continue;
    if (entry.held->due_ms > now_ms) {
      due = std::min(due, entry.held->due_ms);
      continue;
    }
    const std::unique_ptr<Held> held = std::move(entry.held);
    if (held->due_ms == entry.since_ms + kSecondMs) {  // and not earlier, since another line came
      entry.since_ms += kSecondMs;
      entry.count = 0;
    }
    out = Summary{held->level, std::move(held->line), held->times, &entry == last};
    last = &entry;
    due = kAtOnce;  // there may be more
    return true;
  }
  return false;
}

void LogRepeats::forget() {
  for (Entry& entry : entries) entry.held.reset();
  due = kNever;
}
