#include "device/store_text.h"

#include <algorithm>
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

// The key with which a line begins, whatever stands behind it.
std::string_view leading_key(std::string_view line) {
  const std::string_view text = trimmed(line);
  const auto is_of_key = [](char c) { return c == '_' || (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z'); };
  return text.substr(0, static_cast<size_t>(std::find_if_not(text.begin(), text.end(), is_of_key) - text.begin()));
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
  if (const auto found = store.damaged.find(key); found != store.damaged.end()) store.damaged.erase(found);
  return nullptr;
}

}  // namespace

StoreText parse_store(std::string_view bytes) {
  StoreText store;
  if (bytes.find('\0') != std::string_view::npos) {
    store.is_text = false;
    store.complaints.push_back({0, "it holds a zero byte, so it is not text and has no keys"});
    return store;
  }
  if (bytes.substr(0, 3) == kByteOrderMark) bytes.remove_prefix(3);
  for (int number = 1; !bytes.empty(); ++number) {
    const std::string_view line = take_item(bytes, '\n');
    const char* const wrong = add_line(line, store);
    if (wrong == nullptr) continue;
    store.damaged.emplace(leading_key(line));
    if (store.complaints.size() < kStoreComplaintsMax) {
      store.complaints.push_back({number, wrong});
    } else {
      ++store.more_complaints;
    }
  }
  return store;
}

bool is_damaged(const StoreText& store, std::string_view key) {
  return !store.is_text || store.damaged.find(key) != store.damaged.end();
}

bool parse_store_int(std::string_view text, int& value) {
  const char* const end = text.data() + text.size();
  int number = 0;
  const auto [rest, error] = std::from_chars(text.data(), end, number);
  if (error != std::errc() || rest != end) return false;
  value = number;
  return true;
}
