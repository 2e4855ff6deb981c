// Runs the benchmarks below a temporary DEVICE_ROOT, with the log in a file there. Options are those of Google
// Benchmark; --benchmark_out=FILE has all figures of all repetitions. ZELVIND_BENCH_DAEMON names the daemon to measure
// (the one of this build otherwise), ZELVIND_BENCH_AGAINST another one that is measured in turn with it.

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "bench/benchmarks.h"
#include "bench/figures.h"
#include "device/log.h"

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
  char root[] = "/tmp/zelvind_bench.XXXXXX";
  if (mkdtemp(root) == nullptr) return perror("zelvind_bench: mkdtemp"), 1;
  setenv("DEVICE_ROOT", root, 1);
  setenv("ELOG_TARGET", (std::string("file:") + root + "/log").c_str(), 1);
  elog_set_level("zelvind", 1);
  errlog_init(3, "zelvind");
  signal(SIGPIPE, SIG_IGN);
  rlimit descriptors{};
  getrlimit(RLIMIT_NOFILE, &descriptors);
  descriptors.rlim_cur = std::min<rlim_t>(descriptors.rlim_max, 4096);  // for a thousand clients
  setrlimit(RLIMIT_NOFILE, &descriptors);

  add_dispatch_benchmark();
  add_poster_benchmarks();
  add_lateness_benchmark();
  add_forward_benchmarks();
  add_match_benchmark();
  add_fairness_benchmarks();
  add_rest_benchmarks();
  add_growth_benchmarks();
  add_reload_benchmark();
  FigureTable table;
  benchmark::RunSpecifiedBenchmarks(&table);
  std::filesystem::remove_all(root);
  return table.all_ran() ? 0 : 1;
}
