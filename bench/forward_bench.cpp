#include "bench/benchmarks.h"
void add_forward_benchmarks() {}
