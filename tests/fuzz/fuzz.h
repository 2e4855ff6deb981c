// What the fuzzers share: the way in, how one finds fault, and memory without slack.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

// Each fuzzer's own. `choice` is the first byte of what libFuzzer made up, `input` the rest.
void fuzz(size_t choice, std::string input);

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 0) fuzz(data[0], std::string(reinterpret_cast<const char*>(data) + 1, size - 1));
  return 0;
}

// Ends the fuzzer, which keeps the input, when an invariant does not hold.
#define HOLDS(condition) \
  if (!(condition)) __builtin_trap()

// A copy that fills its allocation: one byte too far is seen by the address sanitizer.
struct Exact {
  explicit Exact(std::string_view bytes) : data(new char[bytes.size()]), size(bytes.size()) {
    bytes.copy(data.get(), size);
  }
  std::string_view view() const { return {data.get(), size}; }
  std::unique_ptr<char[]> data;
  size_t size;
};

// As Exact, zero-terminated.
struct ExactText : Exact {
  explicit ExactText(std::string_view text) : Exact(std::string(text) + '\0') {}
};

// Whether `text` is a decimal number of 32 bits; it is then in `value`.
inline bool reference_int(const std::string& text, int& value) {
  const size_t digits = text.compare(0, 1, "-") == 0 ? 1 : 0;
  if (text.size() == digits || text.find_first_not_of("0123456789", digits) != std::string::npos) return false;
  const long double number = strtold(text.c_str(), nullptr);
  if (number < INT32_MIN || number > INT32_MAX) return false;
  value = static_cast<int>(number);
  return true;
}
