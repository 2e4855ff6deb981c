#include "util/text.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <numeric>

namespace {

// How many letters must be added, removed or replaced to make `a` out of `b`.
size_t distance(std::string_view a, std::string_view b) {
  std::vector<size_t> row(b.size() + 1);
  std::iota(row.begin(), row.end(), 0U);
  for (size_t i = 1; i <= a.size(); ++i) {
    size_t diagonal = row[0];
    row[0] = i;
    for (size_t j = 1; j <= b.size(); ++j) {
      const size_t replaced = diagonal + (a[i - 1] == b[j - 1] ? 0 : 1);
      diagonal = row[j];
      row[j] = std::min({replaced, row[j] + 1, row[j - 1] + 1});
    }
  }
  return row[b.size()];
}

}  // namespace

std::string sstr(const char* format, ...) {
  char buffer[2048];
  va_list arguments;
  va_start(arguments, format);
  const int length = vsnprintf(buffer, sizeof(buffer), format, arguments);
  va_end(arguments);
  return length < 0 ? std::string() : std::string(buffer);
}

void copy_text(char* out, size_t size, const char* text) {
  const size_t length = std::min(strlen(text), size - 1);
  memcpy(out, text, length);
  out[length] = '\0';
}

std::string_view take_item(std::string_view& list, char separator) {
  const std::string_view item = list.substr(0, list.find(separator));
  list.remove_prefix(std::min(item.size() + 1, list.size()));
  return item;
}

std::string_view cut_text(std::string_view text, size_t most) {
  if (text.size() <= most) return text;
  while (most > 0 && (static_cast<unsigned char>(text[most]) & 0xc0U) == 0x80) --most;
  return text.substr(0, most);
}

int char_index(const char* s, int c) {
  const char wanted = static_cast<char>(c);
  const char* found = strchr(s, wanted);  // for a zero byte that is the end, whose index is the length
  return static_cast<int>(found != nullptr ? found - s : static_cast<ptrdiff_t>(strlen(s)));
}

int query_field(const char* text, const char* key, char* out, int max) {
  out[0] = '\0';
  const int key_length = static_cast<int>(strlen(key));
  for (int offset = 0; text[offset] != '\0';) {
    const int item_length = char_index(text + offset, '&');
    if (item_length >= key_length && memcmp(text + offset, key, static_cast<size_t>(key_length)) == 0) {
      const int value_length = item_length - key_length;
      if (value_length > max) return -2;
      memcpy(out, text + offset + key_length, static_cast<size_t>(value_length));
      out[value_length] = '\0';
      return offset + item_length;
    }
    offset += item_length;
    if (text[offset] == '&') ++offset;
  }
  return -1;
}

// A "*" first stands for nothing. When the rest does not match, the last "*" takes one byte more: no earlier one needs
// to be tried again.
bool matches_pattern(std::string_view pattern, std::string_view name) {
  size_t at = 0;
  size_t seen = 0;
  size_t star = std::string_view::npos;
  size_t star_seen = 0;
  while (seen < name.size()) {
    if (at < pattern.size() && pattern[at] == '*') {
      star = at++;
      star_seen = seen;
    } else if (at < pattern.size() && (pattern[at] == '?' || pattern[at] == name[seen])) {
      ++at;
      ++seen;
    } else if (star != std::string_view::npos) {
      at = star + 1;
      seen = ++star_seen;
    } else {
      return false;
    }
  }
  return pattern.find_first_not_of('*', at) == std::string_view::npos;
}

std::string suggestion_for(std::string_view word, const std::vector<std::string>& known) {
  const std::string* nearest = nullptr;
  size_t least = std::max<size_t>(word.size() / 3, 1);  // further away it is another word
  for (const std::string& one : known) {
    const size_t away = distance(word, one);
    if (away > least || (nearest != nullptr && away == least)) continue;
    nearest = &one;
    least = away;
  }
  return nearest == nullptr ? "" : "; did you mean " + *nearest + "?";
}
