// What the fuzzers share: the entry that libFuzzer calls, how one finds fault, and memory without slack.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

// Ends the fuzzer with the input kept when an invariant does not hold.
#define HOLDS(condition) \
  if (!(condition)) __builtin_trap()

// A copy that fills its allocation: one byte too far is seen by the address sanitizer.
struct Exact {
  explicit Exact(std::string_view bytes) : data(new char[bytes.size()]) { bytes.copy(data.get(), bytes.size()); }
  std::unique_ptr<char[]> data;
};

// As Exact, zero-terminated.
struct ExactText : Exact {
  explicit ExactText(std::string_view text) : Exact(std::string(text) + '\0') {}
};
