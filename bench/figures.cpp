#include "bench/figures.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <exception>
#include <map>
#include <ostream>

#include "bench/daemon_process.h"

namespace {

constexpr unsigned kLimitS = 300;  // of one repetition: should another process fail, it may wait for ever

enum class Bound { at_most, at_least };

struct Target {
  const char* benchmark;
  const char* figure;
  Bound bound;
  double value;
};

constexpr Target kTargets[] = {
    {"dispatch", "ratio", Bound::at_most, 2.0},
    {"post_single", "ratio", Bound::at_least, 0.5},
    {"post_batch", "to_dispatch", Bound::at_least, 0.7},
    {"coroutine_lateness", "p99_us", Bound::at_most, 2000},
    {"reload_trial", "held_ms", Bound::at_most, 20},
    {"start", "rss_kib", Bound::at_most, 6144},
    {"start", "first_connection_ms", Bound::at_most, 8},
    {"start", "first_event_ms", Bound::at_most, 10},
    {"idle", "wakeups_per_s", Bound::at_most, 2},
    {"idle", "wakeups_10_clients_per_s", Bound::at_most, 2},
    {"idle", "stop_ms", Bound::at_most, 50},
    {"memory", "rss_1000_clients_kib", Bound::at_most, 10240},
    {"memory", "rss_after_burst_kib", Bound::at_most, 4608},
    {"fairness/8", "p50_ms", Bound::at_most, 1000},
    {"fairness/8", "max_ms", Bound::at_most, 2000},
    {"fairness/255", "p50_ms", Bound::at_most, 600},
    {"growth/timers/60000/packaged", "to_first", Bound::at_most, 1.1},
    {"growth/coroutines/60000/packaged", "to_first", Bound::at_most, 1.1},
    {"forward_single/1", "p50_ratio", Bound::at_most, 1.3},
    {"forward_single/1", "p99_ratio", Bound::at_most, 1.3},
    {"forward_single/10", "p50_ratio", Bound::at_most, 1.3},
    {"forward_single/10", "p99_ratio", Bound::at_most, 1.3},
    {"forward_single/100", "p50_ratio", Bound::at_most, 1.3},
    {"forward_single/100", "p99_ratio", Bound::at_most, 1.3},
    {"forward_burst/1", "to_dispatch", Bound::at_least, 0.7},
    {"forward_burst/10", "to_send_floor", Bound::at_least, 15},
    {"forward_burst/100", "to_send_floor", Bound::at_least, 22},
    {"forward_burst/100", "to_batch_floor", Bound::at_least, 0.667},
    {"match", "ns_per_client", Bound::at_most, 50},
};

const Target* find_target(const std::string& benchmark, const std::string& figure) {
  const auto* const found = std::find_if(std::begin(kTargets), std::end(kTargets), [&](const Target& target) {
    return benchmark == target.benchmark && figure == target.figure;
  });
  return found == std::end(kTargets) ? nullptr : found;
}

bool is_met(const Target& target, double value) {
  return target.bound == Bound::at_most ? value <= target.value : value >= target.value;
}

// "12.3", "4,567", "0.83": three digits or more, whatever the size.
std::string number(double value) {
  char text[40];
  snprintf(text, sizeof(text), "%.*f", value >= 100 ? 0 : value >= 10 ? 1 : 2, value);
  std::string digits = text;
  if (digits.find('.') == std::string::npos) {
    for (size_t at = digits.size(); at > 3;) digits.insert(at -= 3, ",");
  }
  return digits;
}

}  // namespace

void add_benchmark(const std::string& name, int repetitions, const std::function<void(Figures&)>& measure) {
  const auto run = [measure](benchmark::State& state) {
    try {
      alarm(kLimitS);
      for (auto _ : state) measure(state.counters);
    } catch (const std::exception& error) {
      state.SkipWithError(error.what());
    }
  };
  benchmark::RegisterBenchmark(name.c_str(), run)->Iterations(1)->Repetitions(repetitions);
}

void measure_daemons(Figures& figures, const std::function<void(const std::string& program, Figures&)>& measure) {
  Figures other;
  const std::string other_program = other_daemon_program();
  if (!other_program.empty()) measure(other_program, other);
  measure(daemon_program(), figures);
  for (const auto& [figure, counter] : other) {
    figures["other_" + figure] = counter;
    figures[figure + "_to_other"] = figures[figure] / counter;
  }
}

bool FigureTable::ReportContext(const Context& context) {
  PrintBasicContext(&GetOutputStream(), context);
  GetOutputStream().flush();
  printf("%-32s %-26s %12s   %-27s %s\n", "benchmark", "figure", "median", "lowest .. highest", "target");
  return true;
}

void FigureTable::ReportRuns(const std::vector<Run>& runs) {
  const std::string name = runs.front().run_name.function_name;
  std::map<std::string, std::vector<double>> figures;
  for (const Run& run : runs) {
    if (run.error_occurred) {
      printf("%-32s failed: %s\n", name.c_str(), run.error_message.c_str());
      ++failed;
    }
    if (run.run_type != Run::RT_Iteration) continue;
    for (const auto& [figure, counter] : run.counters) figures[figure].push_back(counter.value);
  }
  for (auto& [figure, values] : figures) {
    const double median = percentile(values, 0.5);
    const auto [lowest, highest] = std::minmax_element(values.begin(), values.end());
    printf("%-32s %-26s %12s   %-27s", name.c_str(), figure.c_str(), number(median).c_str(),
           (number(*lowest) + " .. " + number(*highest)).c_str());
    if (const Target* const target = find_target(name, figure)) {
      printf(" %s %s", target->bound == Bound::at_most ? "at most" : "at least", number(target->value).c_str());
      if (!is_met(*target, median)) {
        printf(", MISSED");
        ++missed;
      }
    }
    printf("\n");
  }
  fflush(stdout);
}

void FigureTable::Finalize() {
  printf("%d targets missed, %d repetitions failed\n", missed, failed);
}
