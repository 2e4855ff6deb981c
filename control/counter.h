// Numbers that one thread counts and any thread reads: plain words, no lock, no bus-locked instruction.
#pragma once

#include <atomic>
#include <cstdint>

// One thread at a time writes; any thread reads, and may read a value that is just being replaced.
class Counter {
 public:
  void add(uint64_t n = 1) { set(get() + n); }
  void set(uint64_t n) { value.store(n, std::memory_order_relaxed); }
  void raise_to(uint64_t n) {
    if (n > get()) set(n);
  }
  uint64_t get() const { return value.load(std::memory_order_relaxed); }

 private:
  std::atomic<uint64_t> value{0};
};

// How long things took: their number, sum and maximum, and a histogram whose bucket i counts those below 2^(i+1) us;
// the last bucket counts all others. Histograms of one kind can be added up, also those of several devices.
class Durations {
 public:
  static constexpr int kBuckets = 20;

  // The thread that counts. `ns` below 0, of a clock that is not steady, counts as 0.
  void add(int64_t ns) {
    const uint64_t taken = ns > 0 ? static_cast<uint64_t>(ns) : 0;
    sum_ns.add(taken);
    max_ns.raise_to(taken);
    buckets[bucket_of(taken)].add();
  }

  static int bucket_of(uint64_t ns) {
    const uint64_t halves = ns / 2000;  // of the first bucket's bound
    const int bucket = halves == 0 ? 0 : 64 - __builtin_clzll(halves);
    return bucket < kBuckets ? bucket : kBuckets - 1;
  }

  // How many there are. Any thread.
  uint64_t count() const {
    uint64_t sum = 0;
    for (const Counter& bucket : buckets) sum += bucket.get();
    return sum;
  }

  Counter sum_ns;
  Counter max_ns;
  Counter buckets[kBuckets];
};
