// A configuration store file, against a plain reading line by line; the whole input as a number too. Input: from 128 on
// the first byte fills the line in the middle up to about the longest that is taken; then the file.
#include "device/host/store_text.h"

#include <sstream>

#include "tests/fuzz/fuzz.h"

namespace {

std::string trimmed(std::string text) {
  while (!text.empty() && strchr(" \t\r", text.front()) != nullptr) text.erase(0, 1);
  while (!text.empty() && strchr(" \t\r", text.back()) != nullptr) text.pop_back();
  return text;
}

struct Reading {
  std::map<std::string, std::string, std::less<>> values;
  int bad_lines = 0;
};

Reading reference(const std::string& bytes) {
  Reading reading;
  std::istringstream lines(bytes.compare(0, 3, "\xef\xbb\xbf") == 0 ? bytes.substr(3) : bytes);
  for (std::string line; std::getline(lines, line);) {
    const std::string text = trimmed(line);
    if (line.size() > 65536) {
      ++reading.bad_lines;
      continue;
    }
    if (text.empty() || text[0] == '#' || text[0] == ';' || (text[0] == '[' && text.back() == ']')) continue;
    const size_t equals = text.find('=');
    const bool is_good = equals != std::string::npos && !trimmed(text.substr(0, equals)).empty();
    if (!is_good) ++reading.bad_lines;
    if (is_good) reading.values[trimmed(text.substr(0, equals))] = trimmed(text.substr(equals + 1));
  }
  return reading;
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  std::string bytes(reinterpret_cast<const char*>(data) + 1, size - 1);
  if (data[0] >= 128) bytes.insert(bytes.size() / 2, size_t{65400} + data[0], 'x');
  const Exact exact(bytes);
  const StoreText store = parse_store(std::string_view(exact.data.get(), bytes.size()));
  HOLDS(store.complaints.size() <= kStoreComplaintsMax);
  const bool is_text = bytes.find('\0') == std::string::npos;
  const Reading expected = is_text ? reference(bytes) : Reading{{}, 1};
  HOLDS(store.values == expected.values);
  HOLDS(static_cast<int>(store.complaints.size()) + store.more_complaints == expected.bad_lines);

  int value = 0;
  const size_t digits = bytes.compare(0, 1, "-") == 0 ? 1 : 0;
  const bool is_number = bytes.size() > digits && bytes.find_first_not_of("0123456789", digits) == std::string::npos;
  const long double number = is_number ? strtold(bytes.c_str(), nullptr) : 0;
  const bool fits = is_number && number >= INT32_MIN && number <= INT32_MAX;
  HOLDS(parse_store_int(std::string_view(exact.data.get(), bytes.size()), value) == fits);
  HOLDS(value == (fits ? static_cast<int>(number) : 0));
  return 0;
}
