#include "bench/benchmarks.h"
void add_match_benchmark() {}
