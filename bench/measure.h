// What the benchmarks and the siege measure with.
#pragma once

#include <algorithm>
#include <chrono>
#include <vector>

class Stopwatch {
 public:
  double seconds() const { return std::chrono::duration<double>(Clock::now() - start).count(); }

 private:
  using Clock = std::chrono::steady_clock;
  Clock::time_point start = Clock::now();
};

// The value below which `share` (0 to 1) of the samples lie; reorders them. There must be one at least.
inline double percentile(std::vector<double>& samples, double share) {
  const size_t index = std::min(samples.size() - 1, static_cast<size_t>(static_cast<double>(samples.size()) * share));
  const auto at = samples.begin() + static_cast<std::ptrdiff_t>(index);
  std::nth_element(samples.begin(), at, samples.end());
  return *at;
}
