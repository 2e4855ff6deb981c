#include "device/host/log_repeats.h"

#include <algorithm>
#include <functional>
#include <utility>

namespace {

constexpr int64_t kSecondMs = 1000;
constexpr uint32_t kWrittenEach = 100;

constexpr int64_t kAtOnce = std::numeric_limits<int64_t>::min();

}  // namespace

// The entry of a line; null when it has none. Another line with its hash, which may be chosen, counts as equal only
// while none are left out.
LogRepeats::Entry* LogRepeats::find(size_t hash, int level, std::string_view line) {
  const size_t* const end = hashes.data() + hashes.size();
  for (const size_t* at = hashes.data(); (at = std::find(at, end, hash)) != end; ++at) {
    Entry& entry = entries[static_cast<size_t>(at - hashes.data())];
    if (entry.held == nullptr || (entry.held->level == level && entry.held->line == line)) return &entry;
  }
  return nullptr;
}

// A new entry in the place of the oldest without lines to sum up; null when all have some.
LogRepeats::Entry* LogRepeats::make(size_t hash, int64_t now_ms) {
  for (size_t i = 0; i < entries.size(); ++i) {
    const size_t place = next++ % entries.size();
    Entry& entry = entries[place];
    if (entry.held != nullptr) continue;
    if (&entry == last) last = nullptr;
    hashes[place] = hash;
    entry.since_ms = now_ms;
    entry.count = 0;
    return &entry;
  }
  return nullptr;
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
  ++entry.held->times;
  return true;
}

bool LogRepeats::leaves_out(int level, std::string_view line, int64_t now_ms) {
  const size_t hash = std::hash<std::string_view>()(line) + static_cast<size_t>(level);
  current = find(hash, level, line);
  if (current == nullptr) current = make(hash, now_ms);
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
