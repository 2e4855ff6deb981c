#include "ctl/live/history.h"

#include <algorithm>

namespace {

constexpr int64_t kWindowMs = 10000;
constexpr size_t kMinute = 60;

uint64_t events_in(const Answers& answers) {
  return sum_of(answers.stats, "event", "events");
}

// Bucket i holds durations from 2^i on, the first one from 0 on, the last one without an end.
uint64_t bucket_end(size_t bucket, size_t buckets, uint64_t longest) {
  const uint64_t end = uint64_t{2} << bucket;
  return std::min(bucket + 1 < buckets ? end : std::max(end, longest), longest);
}

}  // namespace

std::optional<Spread> spread_between(const AnswerLine& before, const AnswerLine& now, const char* max_key) {
  std::vector<uint64_t> counts = now.counts("buckets");
  const std::vector<uint64_t> old = before.counts("buckets");
  uint64_t total = 0;
  for (size_t i = 0; i < counts.size(); ++i) {
    counts[i] -= i < old.size() ? std::min(old[i], counts[i]) : 0;
    total += counts[i];
  }
  if (total == 0) return std::nullopt;
  const uint64_t longest = now.count(max_key);
  // The duration that `part` of all durations do not exceed.
  const auto at = [&](double part) {
    double left = part * static_cast<double>(total);
    for (size_t i = 0;; ++i) {
      const uint64_t end = bucket_end(i, counts.size(), longest);
      const auto count = static_cast<double>(counts[i]);
      if (left > count && i + 1 < counts.size()) {
        left -= count;
        continue;
      }
      const uint64_t begin = std::min(i == 0 ? 0 : uint64_t{1} << i, end);
      return begin + static_cast<uint64_t>(static_cast<double>(end - begin) * std::min(left / count, 1.0));
    }
  };
  return Spread{at(0.5), at(0.99), at(1)};
}

void History::add(int64_t at_ms, Answers answers) {
  if (!samples.empty() && now().stat("daemon").text("run") != answers.stat("daemon").text("run")) {
    samples.clear();
    rates.clear();
  }
  if (!samples.empty() && at_ms > samples.back().at_ms) {
    const auto grown = static_cast<double>(events_in(answers) - events_in(now()));
    rates.push_back(grown * 1000 / static_cast<double>(at_ms - samples.back().at_ms));
    if (rates.size() > kMinute) rates.pop_front();
  }
  samples.push_back({at_ms, std::move(answers)});
  while (samples.size() > 2 && samples[1].at_ms <= at_ms - kWindowMs) samples.pop_front();
}

double History::seconds() const {
  return std::max(static_cast<double>(samples.back().at_ms - samples.front().at_ms) / 1000, 0.001);
}

double History::rate(const AnswerLine& old, const AnswerLine& now, const char* key) const {
  const uint64_t count = now.count(key);
  return static_cast<double>(count - std::min(old.count(key), count)) / seconds();
}

const AnswerLine& same_line(const std::vector<AnswerLine>& answer, const AnswerLine& line, const char* key) {
  static const AnswerLine none;
  const std::string value = line.text(key);
  const auto found = std::find_if(answer.begin(), answer.end(), [&](const AnswerLine& other) {
    return other.kind() == line.kind() && other.text(key) == value;
  });
  return found == answer.end() ? none : *found;
}
