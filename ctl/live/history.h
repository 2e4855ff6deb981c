// The daemon's answers of the last minute, and what has happened between two of them.
#pragma once

#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <vector>

#include "ctl/inspect/answers.h"

// What a histogram of power-of-two buckets says about the durations between two answers, in us: interpolated within a
// bucket, and never above the longest duration that the daemon has met so far. Nothing when there were none.
struct Spread {
  uint64_t half = 0;     // not exceeded by 50 of 100
  uint64_t nearly = 0;   // by 99 of 100
  uint64_t longest = 0;  // at most that
};

// `now` and `before` are lines of one kind and name; `before` may be without values. `max_key` names the longest.
std::optional<Spread> spread_between(const AnswerLine& before, const AnswerLine& now, const char* max_key);

class History {
 public:
  // Adds the answers of `at_ms` (steady_ms). Answers of another run of the daemon replace all earlier ones.
  void add(int64_t at_ms, Answers answers);

  bool is_empty() const { return samples.empty(); }

  // The last answers, and those of about 10 s before; the same ones when there are no other.
  const Answers& now() const { return samples.back().answers; }
  const Answers& before() const { return samples.front().answers; }

  // Seconds between these two, at least a millisecond.
  double seconds() const;

  // How much the number `key` has grown, a second. `now` is a line of now(), `old` the same of before() or none.
  double rate(const AnswerLine& old, const AnswerLine& now, const char* key) const;

  // Events a second, of each second of the last minute, the newest last.
  const std::deque<double>& minute() const { return rates; }

 private:
  struct Sample {
    int64_t at_ms = 0;
    Answers answers;
  };

  std::deque<Sample> samples;
  std::deque<double> rates;
};

// The line of `kind` whose `key` has the value that `line` has, or one without values.
const AnswerLine& same_line(const std::vector<AnswerLine>& answer, const AnswerLine& line, const char* key);
