#include "device/store_text.h"

#include <algorithm>
#include <charconv>
#include <iterator>

#include "util/safe_text.h"
#include "util/text.h"

namespace {

// Without them everybody may connect.
constexpr std::string_view kRestricting[] = {"listener_address", "listener_allow"};
constexpr char kByteOrderMark[] = "\xef\xbb\xbf";  // some editors put it at the start of a file

std::string_view trimmed(std::string_view text) {
  constexpr char kBlanks[] = " \t\r";
  const size_t first = text.find_first_not_of(kBlanks);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

// The bytes of `text` that a key may have, in small letters.
std::string key_bytes(std::string_view text) {
  std::string bytes;
  for (const char c : text) {
    if (c == '_' || (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z')) bytes += c;
    if (c >= 'A' && c <= 'Z') bytes += static_cast<char>(c - 'A' + 'a');
  }
  return bytes;
}

bool begins_with(std::string_view text, std::string_view beginning) {
  return text.substr(0, beginning.size()) == beginning;
}

// Whether all of `text` is text without control characters, except for tabs and line ends. Comments may have letters of
// another encoding than UTF-8; 0xff is what erased flash holds.
bool is_clean(std::string_view text) {
  while (!text.empty()) {
    const auto first = static_cast<unsigned char>(text[0]);
    const bool is_blank = first == '\t' || first == '\r' || first == '\n';
    const bool is_letter = first >= 0xa0 && first < 0xff;
    const size_t length = is_blank ? 1 : std::max<size_t>(harmless_length(text), is_letter ? 1 : 0);
    if (length == 0) return false;
    text.remove_prefix(length);
  }
  return true;
}

// Notes what a good line with `key` says about the keys that restrict access.
void note_key(std::string_view key, StoreText& store) {
  const std::string bytes = key_bytes(key);
  for (const std::string_view restricting : kRestricting) {
    if (key == restricting) {
      store.damaged.erase(restricting);
    } else if (bytes == restricting) {
      store.damaged.insert(restricting);
    }
  }
}

// Notes which of them a bad line may have set. The last one of a file may be torn off.
void note_bad_line(std::string_view line, bool is_last, StoreText& store) {
  const std::string bytes = key_bytes(line);
  for (const std::string_view restricting : kRestricting) {
    const bool is_torn = is_last && !bytes.empty() && begins_with(restricting, bytes);
    if (is_torn || begins_with(bytes, restricting)) store.damaged.insert(restricting);
  }
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
  note_key(key, store);
  return nullptr;
}

}  // namespace

StoreText parse_store(std::string_view bytes) {
  StoreText store;
  if (bytes.find('\0') != std::string_view::npos) {
    store.damaged.insert(std::begin(kRestricting), std::end(kRestricting));
    store.complaints.push_back({0, "it holds a zero byte, so it is not text and has no keys"});
    return store;
  }
  const bool is_text = is_clean(bytes);
  if (bytes.substr(0, 3) == kByteOrderMark) bytes.remove_prefix(3);
  for (int number = 1; !bytes.empty(); ++number) {
    const std::string_view line = take_item(bytes, '\n');
    const char* const wrong = add_line(line, store);
    if (wrong == nullptr) continue;
    note_bad_line(line, bytes.empty(), store);
    if (store.complaints.size() < kStoreComplaintsMax) {
      store.complaints.push_back({number, wrong});
    } else {
      ++store.more_complaints;
    }
  }
  for (const std::string_view key : kRestricting) {
    if (!is_text && store.values.find(key) == store.values.end()) store.damaged.insert(key);
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
