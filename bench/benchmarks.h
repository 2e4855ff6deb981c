// What there is to measure. Each function registers its benchmarks; docs/performance.md describes them.
#pragma once

void add_dispatch_benchmark();
void add_poster_benchmarks();
void add_lateness_benchmark();
void add_forward_benchmarks();
void add_match_benchmark();
void add_fairness_benchmarks();
void add_rest_benchmarks();
void add_growth_benchmarks();
void add_reload_benchmark();

// Events per second of the `dispatch` benchmark's loop, measured now: what other rates are compared with.
double dispatch_rate();
