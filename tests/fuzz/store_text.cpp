// A configuration store file, against a plain reading line by line; the whole input as a number too. Input: from 128 on
// the first byte fills the line in the middle up to about the longest that is taken; then the file.
#include "device/store_text.h"

#include <sstream>

#include "tests/fuzz/fuzz.h"

namespace {

std::string trimmed(std::string text) {
  while (!text.empty() && strchr(" \t\r", text.front()) != nullptr) text.erase(0, 1);
  while (!text.empty() && strchr(" \t\r", text.back()) != nullptr) text.pop_back();
  return text;
}

// Takes a line in as the format is described. False when it is bad.
bool take(const std::string& line, std::map<std::string, std::string, std::less<>>& values) {
  const std::string text = trimmed(line);
  if (line.size() > 65536) return false;
  if (text.empty() || text[0] == '#' || text[0] == ';' || (text[0] == '[' && text.back() == ']')) return true;
  const size_t equals = std::min(text.find('='), text.size());
  const std::string key = trimmed(text.substr(0, equals));
  if (equals == text.size() || key.empty()) return false;
  values[key] = trimmed(text.substr(equals + 1));
  return true;
}

}  // namespace

void fuzz(size_t choice, std::string bytes) {
  if (choice >= 128) bytes.insert(bytes.size() / 2, 65400 + choice, 'x');
  const Exact exact(bytes);
  const StoreText store = parse_store(exact.view());

  std::map<std::string, std::string, std::less<>> values;
  int bad_lines = bytes.find('\0') == std::string::npos ? 0 : 1;
  std::istringstream lines(bad_lines > 0 ? "" : bytes.compare(0, 3, "\xef\xbb\xbf") == 0 ? bytes.substr(3) : bytes);
  for (std::string line; std::getline(lines, line);) bad_lines += take(line, values) ? 0 : 1;
  HOLDS(store.values == values && store.complaints.size() <= 20);
  HOLDS(static_cast<int>(store.complaints.size()) + store.more_complaints == bad_lines);

  int value = 0;
  int expected = 0;
  HOLDS(parse_store_int(exact.view(), value) == reference_int(bytes, expected) && value == expected);
}
