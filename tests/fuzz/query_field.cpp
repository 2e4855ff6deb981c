// Field lookup, against a list of the items. Input: the longest value accepted (one byte), the key, a zero byte, the
// text.
#include "tests/fuzz/fuzz.h"
#include "util/text.h"

namespace {

struct Answer {
  int result = -1;
  std::string value;
};

Answer reference(const std::string& text, const std::string& key, int max) {
  for (size_t start = 0; start < text.size();) {
    const size_t end = std::min(text.find('&', start), text.size());
    const std::string item = text.substr(start, end - start);
    if (item.substr(0, key.size()) == key) {
      const std::string value = item.substr(key.size());
      if (value.size() > static_cast<size_t>(max)) return {-2, ""};
      return {static_cast<int>(end), value};
    }
    start = end + 1;
  }
  return {};
}

}  // namespace

void fuzz(size_t choice, std::string input) {
  const int max = static_cast<int>(choice);
  const std::string key = input.substr(0, input.find('\0'));
  const std::string rest = input.substr(std::min(input.size(), key.size() + 1));
  const std::string text = rest.substr(0, rest.find('\0'));
  const Exact out(std::string(choice + 1, 'x'));
  const Answer expected = reference(text, key, max);
  HOLDS(query_field(ExactText(text).data.get(), ExactText(key).data.get(), out.data.get(), max) == expected.result);
  HOLDS(out.data.get() == expected.value);
}
