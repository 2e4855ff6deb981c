// How the benchmarks give their figures, and how these are printed.
//
// A benchmark here is one function that measures the daemon's part and its floor right after each other and gives the
// figures as counters. It is repeated; a ratio compares two figures of the same repetition. The machine may be
// noisy: what counts is the median over the repetitions, printed with the lowest and the highest value.
#pragma once

#include <benchmark/benchmark.h>

#include <functional>
#include <string>
#include <vector>

#include "bench/measure.h"

using Figures = benchmark::UserCounters;

// Has `measure` run once per repetition; it fills in the figures, or throws.
void add_benchmark(const std::string& name, int repetitions, const std::function<void(Figures&)>& measure);

// Has `measure` run for the daemon that is measured and, when there is another one to compare with, for that one right
// before; adds other_FIGURE and FIGURE_to_other then.
void measure_daemons(Figures& figures, const std::function<void(const std::string& program, Figures&)>& measure);

// Prints one line per figure, with the target where there is one, and at the end how many targets were missed.
class FigureTable : public benchmark::BenchmarkReporter {
 public:
  bool ReportContext(const Context& context) override;
  void ReportRuns(const std::vector<Run>& runs) override;
  void Finalize() override;

  bool all_ran() const { return failed == 0; }

 private:
  int missed = 0;
  int failed = 0;
};
