#include "device/host/log_repeats.h"

#include <algorithm>
#include <functional>
#include <utility>

namespace {

constexpr int64_t kSecondMs = 1000;
constexpr uint32_t kWrittenEach = 100;

}  // namespace

// The entry of a line, perhaps a new one; null when all entries have lines to sum up.
LogRepeats::Entry* LogRepeats::find(size_t hash, int64_t now_ms) {
  Entry* oldest = nullptr;
  for (Entry& entry : entries) {
    if (entry.hash == hash) return &entry;
    if (entry.left_out == 0 && (oldest == nullptr || entry.turn < oldest->turn)) oldest = &entry;
  }
  if (oldest == nullptr) return nullptr;
  if (oldest == last) last = nullptr;
  oldest->hash = hash;
  oldest->since_ms = now_ms;
  oldest->count = 0;
  return oldest;
}

uint64_t LogRepeats::leave_out(int level, std::string_view line, int64_t now_ms) {
  current = find(std::hash<std::string_view>()(line) + static_cast<size_t>(level), now_ms);
  if (current == nullptr) return 0;
  Entry& entry = *current;
  entry.turn = ++turns;
  if (now_ms - entry.since_ms >= kSecondMs && entry.left_out == 0) {
    entry.since_ms = now_ms;
    entry.count = 0;
  }
  if (++entry.count <= kWrittenEach || now_ms - entry.since_ms >= kSecondMs) return 0;
  if (entry.left_out > 0 && (entry.line != line || entry.level != level)) return 0;  // another line with this hash
  if (entry.left_out == 0) {
    entry.line = line;
    entry.level = level;
  }
  return ++entry.left_out;
}

bool LogRepeats::take(int64_t now_ms, Summary& out) {
  for (Entry& entry : entries) {
    const bool is_due = now_ms - entry.since_ms >= kSecondMs;
    const bool is_interrupted = &entry == last && current != last;
    if (entry.left_out == 0 || (!is_due && !is_interrupted)) continue;
    out = Summary{entry.level, std::move(entry.line), std::exchange(entry.left_out, 0), &entry == last};
    last = &entry;
    if (is_due) {
      entry.since_ms = now_ms;
      entry.count = &entry == current ? 1 : 0;
    }
    return true;
  }
  return false;
}

int64_t LogRepeats::due_ms() const {
  int64_t due = kNever;
  for (const Entry& entry : entries) {
    if (entry.left_out > 0) due = std::min(due, entry.since_ms + kSecondMs);
  }
  return due;
}

void LogRepeats::forget() {
  for (Entry& entry : entries) entry.left_out = 0;
}
