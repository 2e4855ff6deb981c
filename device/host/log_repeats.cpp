#include "device/host/log_repeats.h"

#include <algorithm>
#include <functional>
#include <utility>

namespace {

constexpr int64_t kSecondMs = 1000;
constexpr uint32_t kWrittenEach = 100;

// A message's credit is counted in milliseconds, since it grows by one in each of them.
constexpr int64_t kLinePrice = 10;
constexpr int64_t kCreditMost = 10000 * kLinePrice;

constexpr int64_t kAtOnce = std::numeric_limits<int64_t>::min();

// What has a hash stands in one of a few neighbours, so that the search is short.
constexpr size_t kNeighbours = 8;

// The one of `hash` for which is_wanted(it), else the oldest that holds nothing, else null.
template <typename Table, typename IsWanted, typename IsOlder>
auto* find_or_choose(Table& table, size_t hash, IsWanted is_wanted, IsOlder is_older) {
  typename Table::value_type* oldest = nullptr;
  for (size_t i = 0; i < kNeighbours; ++i) {
    auto& one = table[(hash + i) % table.size()];
    if (is_wanted(one)) return &one;
    if (one.held == nullptr && (oldest == nullptr || is_older(one, *oldest))) oldest = &one;
  }
  return oldest;
}

}  // namespace

LogRepeats::Entry* LogRepeats::find(size_t hash, int64_t now_ms) {
  const auto is_wanted = [hash](const Entry& entry) { return entry.hash == hash; };
  const auto is_older = [](const Entry& entry, const Entry& than) { return entry.since_ms < than.since_ms; };
  Entry* const entry = find_or_choose(entries, hash, is_wanted, is_older);
  if (entry == nullptr || entry->hash == hash) return entry;
  if (entry == last) last = nullptr;
  entry->hash = hash;
  entry->since_ms = now_ms;
  entry->count = 0;
  return entry;
}

bool LogRepeats::repeats_itself(Entry& entry, int level, std::string_view line, int64_t now_ms) {
  if (now_ms - entry.since_ms >= kSecondMs) {
    entry.since_ms = now_ms;
    entry.count = 0;
  }
  if (++entry.count <= kWrittenEach) return false;
  Held& held = hold(entry.held, level, line, entry.since_ms + kSecondMs);
  if (held.line != line || held.level != level) return false;  // another line with this hash
  ++held.times;
  return true;
}

// A new one begins with all its credit: the program has few messages, and they keep theirs.
LogRepeats::Message* LogRepeats::find_message(const char* format, int64_t now_ms) {
  const size_t hash = reinterpret_cast<uintptr_t>(format) * size_t{0x9e3779b1} >> 16;
  const auto is_wanted = [format](const Message& message) { return message.format == format; };
  const auto is_older = [](const Message& message, const Message& than) { return message.then_ms < than.then_ms; };
  Message* const message = find_or_choose(messages, hash, is_wanted, is_older);
  if (message == nullptr || message->format == format) return message;
  message->format = format;
  message->credit = kCreditMost;
  message->then_ms = now_ms;
  return message;
}

bool LogRepeats::exceeds_credit(Message& message, int level, std::string_view line, int64_t now_ms) {
  message.credit = std::min(kCreditMost, message.credit + std::max<int64_t>(now_ms - message.then_ms, 0));
  message.then_ms = now_ms;
  if (message.credit >= kLinePrice) {
    message.credit -= kLinePrice;
    return false;
  }
  ++hold(message.held, level, line, now_ms + kSecondMs).times;
  return true;
}

LogRepeats::Held& LogRepeats::hold(std::unique_ptr<Held>& held, int level, std::string_view line, int64_t due_ms) {
  if (held == nullptr) {
    held = std::make_unique<Held>(Held{level, std::string(line), due_ms, 0});
    due = std::min(due, due_ms);
  }
  return *held;
}

bool LogRepeats::leaves_out(int level, std::string_view line, const char* format, int64_t now_ms) {
  current = find(std::hash<std::string_view>()(line) + static_cast<size_t>(level), now_ms);
  if (current != nullptr && repeats_itself(*current, level, line, now_ms)) return true;
  Message* const message = format == nullptr || level > 1 ? nullptr : find_message(format, now_ms);
  if (message != nullptr && exceeds_credit(*message, level, line, now_ms)) return true;
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

template <typename Holder>
bool LogRepeats::take_of(Holder& holder, int64_t now_ms, Summary& out) {
  if (holder.held == nullptr) return false;
  if (holder.held->due_ms > now_ms) {
    due = std::min(due, holder.held->due_ms);
    return false;
  }
  const std::unique_ptr<Held> held = std::move(holder.held);
  out = Summary{held->level, std::move(held->line), held->times, true, false};
  return true;
}

bool LogRepeats::take(int64_t now_ms, Summary& out) {
  if (due > now_ms) return false;
  due = kNever;
  for (Entry& entry : entries) {
    const int64_t second_over = entry.since_ms + kSecondMs;
    const bool is_of_this_second = entry.held != nullptr && entry.held->due_ms == second_over;
    if (!take_of(entry, now_ms, out)) continue;
    if (is_of_this_second) {
      entry.since_ms = second_over;
      entry.count = 0;
    }
    out.is_last = &entry == last;
    last = &entry;
    due = kAtOnce;  // there may be more
    return true;
  }
  for (Message& message : messages) {
    if (!take_of(message, now_ms, out)) continue;
    out.are_equal = false;
    last = nullptr;
    due = kAtOnce;
    return true;
  }
  return false;
}

void LogRepeats::forget() {
  for (Entry& entry : entries) entry.held.reset();
  for (Message& message : messages) message.held.reset();
  due = kNever;
}
