#include "device/store_text.h"

#include <charconv>

#include "util/text.h"

namespace {

constexpr char kByteOrderMark[] = "\xef\xbb\xbf";  // some editors put it at the start of a file

std::string_view trimmed(std::string_view text) {
  constexpr char kBlanks[] = " \t\r";
  const size_t first = text.find_first_not_of(kBlanks);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

// Parses one line into `store`; returns what is wrong with it, or null.
const char* add_line(std::string_view line, StoreText& store) {
  if (line.size() > kStoreLineMax) return "the line is longer than 64 KiB";
  const std::string_view text = trimmed(line);
  if (text.empty() || text[0] == '#' || text[0] == ';') return nullptr;
  if (text.front() == '[' && text.back() == ']') return nullptr;
  const size_t equals = text.find('=');
  if (equals == std::string_view::npos) return "the line is not 'key = value'";
  const std::string_view key = trimmed(text.substr(0, equals));
  if (key.empty()) return "the key is missing";
  store.values.insert_or_assign(std::string(key), std::string(trimmed(text.substr(equals + 1))));
  return nullptr;
}

}  // namespace

StoreText parse_store(std::string_view bytes) {
  StoreText store;
  if (bytes.find('\0') != std::string_view::npos) {
    store.complaints.push_back({0, "it holds a zero byte, so it is not text and has no keys"});
    return store;
  }
  if (bytes.substr(0, 3) == kByteOrderMark) bytes.remove_prefix(3);
  for (int number = 1; !bytes.empty(); ++number) {
    const char* const wrong = add_line(take_item(bytes, '\n'), store);
    if (wrong == nullptr) continue;
    if (store.complaints.size() < kStoreComplaintsMax) {
      store.complaints.push_back({number, wrong});
    } else {
      ++store.more_complaints;
    }
  }
  return store;
}

bool parse_store_int(std::string_view text, int& value) {
  const char* const end = text.data() + text.size();
  int number = 0;
  const auto [rest, error] = std::from_chars(text.data(), end, number);
  if (error != std::errc() || rest != end) return false;
  value = number;
  return true;
}
