#include "util/text.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>

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
